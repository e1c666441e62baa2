#include <iostream>

#include <orvo_generation/reference_formatter/reference_formatter.hpp>

int main() {
  namespace rf = orvo_generation::reference_formatter;
  orvo_core::Map metadata;
  metadata.emplace("file_name", "Guide");
  metadata.emplace("file_url", "docs/guide");
  const orvo_core::Chunk chunk("text", metadata);
  const auto entry = rf::format_chunk_as_string(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP)(chunk);
  std::cout << rf::format_references_as_string(orvo_core::List{entry}) << '\n';
}
