#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_core/schema/chunk.hpp"

namespace orvo_cli {

/// How documents are cut into chunks.
struct ChunkOptions {
  std::size_t max_chars = 800;  ///< Longest chunk; longer paragraphs are cut at sentences.
};

/// Cuts a document into chunks: paragraphs (separated by blank lines) are joined while they fit
/// in `max_chars`, a heading stays with the paragraph after it, and a paragraph too long on its
/// own is cut between sentences (or words, as a last resort).
[[nodiscard]] std::vector<std::string> split_text(std::string_view text,
                                                  const ChunkOptions& options);

/// Loads the chunks of a corpus: a folder (searched recursively, in name order) of .md and .txt
/// files, one such file, or a .jsonl file of {"content": ..., "metadata": {...}} objects. Files
/// get the metadata "file_name" (the file's name) and "file_url" (its path). Errors are
/// `std::runtime_error`s that say which file (and, for JSON Lines, which line) is at fault.
[[nodiscard]] std::vector<std::shared_ptr<orvo_core::Chunk>> load_corpus(
    const std::filesystem::path& path, const ChunkOptions& options = {});

}  // namespace orvo_cli
