#pragma once

#include <string>

#include "orvo_inference/output_parser/output_parser.hpp"

namespace orvo_inference {

/// Returns the reply text as it is.
class TextOutputParser : public BaseOutputParser {
 public:
  [[nodiscard]] orvo_core::Any parse(const std::string& text) const override;
};

}  // namespace orvo_inference
