#pragma once

#include <string>
#include <string_view>

#include "orvo_core/any.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace orvo_generation::reference_formatter {

/// `text` as literal Markdown text: backslash, backtick, the brackets and parentheses, and the
/// characters that start emphasis, HTML or entities (`* _ ~ < > &`) are escaped with a backslash,
/// and line breaks become blanks. With `line_start`, a leading `#`, `-`, `+`, `=`, `|` or the
/// `.` or `)` after leading digits is escaped too, so that the text cannot open a heading, a
/// list, a quote or a rule.
[[nodiscard]] std::string escape_markdown_text(std::string_view text, bool line_start = false);

/// `url` as a Markdown link destination: blanks, parentheses, `<`, `>`, backslash and control
/// characters percent-encoded, and `&` escaped so that no entity is read into it. Other
/// characters, `%` included, stay as they are: an encoded address is not encoded twice.
[[nodiscard]] std::string encode_link_destination(std::string_view url);

/// Like `format_chunk_as_string`, but every entry is valid CommonMark that renders as what it
/// says: "[title](url)" with the title escaped and the address encoded as above, one link per
/// entry; without an address, the escaped title as plain text (the absent value when there is
/// no title either).
[[nodiscard]] FormatChunkFunc format_chunk_as_markdown(orvo_core::Any metadata_map);

}  // namespace orvo_generation::reference_formatter
