#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvo_cli {

/// How documents are cut into chunks.
struct ChunkOptions {
  std::size_t max_chars = 800;  ///< Longest chunk in bytes (at least 40 is used).
};

/// One chunk of a document and where it sits.
struct DocumentChunk {
  std::string text;                   ///< Its text; hard-wrapped lines of a paragraph joined.
  std::vector<std::string> headings;  ///< Heading path, outermost first, without the '#'s.
  std::string anchor;                 ///< Slug of the innermost heading; empty without one.
};

/// Cuts a Markdown or plain-text document into chunks of at most options.max_chars.
///
/// Each chunk holds blocks of one section (the text under one heading): a paragraph's
/// hard-wrapped lines become one line, list items stay whole on lines of their own, tables and
/// fenced code blocks keep their lines, blocks are separated by a blank line (items of one list
/// by a line break). Link syntax is reduced to the link's text; HTML comments, link reference
/// definitions and rules are dropped. A block too long for a chunk is cut between sentences (a
/// sentence too long, between words), a code block or table between lines (each piece fenced
/// again). Headings are not part of the text: they make the chunk's heading path, and the
/// innermost one its anchor (lower case, punctuation other than '-' and '_' removed, blanks
/// turned into '-', "-1", "-2", ... appended to repeats within the document).
[[nodiscard]] std::vector<DocumentChunk> chunk_markdown(std::string_view text,
                                                        const ChunkOptions& options);

}  // namespace orvo_cli
