#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace orvo_generation::reference_formatter {

/// One entry of merged references: a source and the chunks that cite it.
struct SourceReference {
  orvo_core::Any title;                ///< The title of the source's first chunk, or absent.
  orvo_core::Any url;                  ///< The address the source's chunks share, or absent.
  std::vector<std::string> sections;   ///< Distinct section texts, in order of first appearance.
  std::vector<std::size_t> positions;  ///< Where the source's chunks are in the given list.
};

/// Creates a chunk formatter whose entry is the map {"title", "url", "section"} of the chunk's
/// values under the metadata keys that `metadata_map` names under "title" and "url" and under
/// `section_key` (each absent when missing). It pairs with `format_references_by_source`.
[[nodiscard]] FormatChunkFunc format_chunk_as_source(orvo_core::Any metadata_map,
                                                     orvo_core::Any section_key = {});

/// Merges entries of the same source: entries with the same address (when it is present and
/// not empty) are one source, and so are entries without an address that have the same title.
/// Sources are in order of first appearance. An entry that is not a map stands for a title.
[[nodiscard]] std::vector<SourceReference> group_by_source(const orvo_core::List& entries);

/// `group_by_source` over the entries that `format_chunk_as_source` makes of `chunks`.
[[nodiscard]] std::vector<SourceReference> group_by_source(
    const Chunks& chunks, const orvo_core::Any& metadata_map = DEFAULT_FORMAT_CHUNK_METADATA_MAP,
    const orvo_core::Any& section_key = {});

/// The reference number (from 1) of each of `count` chunks: the entry that cites it.
[[nodiscard]] std::vector<std::size_t> source_numbers(const std::vector<SourceReference>& sources,
                                                      std::size_t count);

/// Formats entries as references with one numbered entry per source: "References:" and lines
/// such as "1. [title](url) — section a; section b", Markdown-safe (see
/// `format_chunk_as_markdown`); the sections are listed when the entries have any. The empty
/// string when there is no entry.
[[nodiscard]] std::string format_references_by_source(const orvo_core::List& formatted_chunks);

}  // namespace orvo_generation::reference_formatter
