#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

// Reading the prose of Markdown text.
namespace orvo_core {

/// The sentences of a text, trimmed, in order. A sentence ends at a line break, and after '.',
/// '!' or '?' (with any closing quotes, brackets or emphasis marks) that white space and then
/// something other than a lower-case letter follow, unless the word ending there is a common
/// abbreviation ("e.g.", "i.e.", "etc.", "vs."). Nothing inside a `code span` ends one.
[[nodiscard]] std::vector<std::string_view> split_sentences(std::string_view text);

/// The end of the code span whose opening backticks start at `pos`: after the closing run of as
/// many backticks on the same line (within 1 KiB), or, without one, after the opening run (which
/// is then text).
[[nodiscard]] std::size_t code_span_end(std::string_view text, std::size_t pos);

/// The length of the list marker that opens `line`, with the blank after it ("* ", "- ", "+ ",
/// "12. ", "3) "; a marker alone on its line counts too), or 0 when it opens none.
[[nodiscard]] std::size_t list_marker(std::string_view line);

}  // namespace orvo_core
