#pragma once

#include <memory>
#include <string>

#include "orvo_core/schema/chunk.hpp"

namespace orvo_test {

/// A chunk with the default title and address metadata keys; an empty value leaves a key out.
inline std::shared_ptr<orvo_core::Chunk> make_chunk(std::string content, std::string file_name = {},
                                                    std::string file_url = {}) {
  orvo_core::Map metadata;
  if (!file_name.empty()) metadata.emplace("file_name", std::move(file_name));
  if (!file_url.empty()) metadata.emplace("file_url", std::move(file_url));
  return std::make_shared<orvo_core::Chunk>(std::move(content), std::move(metadata));
}

}  // namespace orvo_test
