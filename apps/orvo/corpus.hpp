#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "markdown_chunker.hpp"
#include "orvo_core/schema/chunk.hpp"

namespace orvo_cli {

/// Which files of a corpus are read.
struct LoadOptions {
  std::uint64_t max_file_bytes = std::uint64_t{16} << 20;  ///< Larger files are skipped.
  /// A file in a folder that cannot be read (not a regular file, too large, unreadable, a
  /// symbolic link loop) is an error instead of being skipped.
  bool strict = false;
};

/// A file of a corpus, as it was when listed.
struct CorpusFile {
  std::filesystem::path path;
  std::int64_t size = 0;
  std::int64_t modified_ns = 0;  ///< Last modification, in nanoseconds since the epoch.
};

/// The files of a corpus and the problems met while listing them.
struct CorpusFiles {
  std::vector<CorpusFile> files;      ///< In name order.
  std::vector<std::string> problems;  ///< "<path>: why", one per file left out.
};

/// Size and time of the regular file at `path`; an `UnreadableFile` error names it and why not.
[[nodiscard]] CorpusFile stat_corpus_file(const std::filesystem::path& path);

/// Lists the text files (.md, .txt) under a folder, in name order, without following linked
/// folders; what cannot be read is named in `problems`.
[[nodiscard]] CorpusFiles list_corpus_files(const std::filesystem::path& folder);

/// A file that cannot be read (not a regular file, too large, unreadable, a link loop).
class UnreadableFile : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a regular file of at most `max_bytes` without blocking on FIFOs or devices; throws
/// `UnreadableFile` naming it and why otherwise.
[[nodiscard]] std::string read_corpus_file(const std::filesystem::path& path,
                                           std::uint64_t max_bytes);

/// The chunks of one file's `text`: JSON Lines for a .jsonl `name`, Markdown or plain text
/// otherwise. `name` gives the metadata "file_name" and "file_url" and the chunk ids.
[[nodiscard]] std::vector<std::shared_ptr<orvo_core::Chunk>> chunk_file(
    const std::filesystem::path& name, std::string text, const ChunkOptions& options);

}  // namespace orvo_cli
