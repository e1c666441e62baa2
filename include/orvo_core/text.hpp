#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Text helpers that follow the host language's rules for strings. Strings are UTF-8; each byte
// that is not part of a valid UTF-8 sequence stands for the lone surrogate U+DC00+byte.
namespace orvo_core::text {

/// Appends the host's quoted form of a string: single quotes (double quotes when the text has a
/// single quote and no double quote), backslash escapes for the quote, backslash, \n, \r, \t
/// and for every code point that is not printable under Unicode 14.0.
void append_quoted(std::string& out, std::string_view s);

/// The quoted form of a string.
[[nodiscard]] std::string quoted(std::string_view s);

/// Appends a JSON string literal in pure ASCII, as the host's JSON serializer writes it with its
/// defaults: `"` and `\` escaped, \b \f \n \r \t as two-character escapes, everything outside
/// blank..tilde as `\u` with four lowercase hex digits (surrogate pairs beyond the BMP).
void append_json_string(std::string& out, std::string_view s);

/// Appends the host's shortest round-trip form of a floating-point number ("0.5", "1.0",
/// "1e-05", "1e+16", "inf", "-inf", "nan", "-0.0").
void append_float(std::string& out, double d);

/// Whether the string is empty once white space (as the host classes it) is stripped from both
/// ends.
[[nodiscard]] bool is_blank(std::string_view s) noexcept;

/// The number of code points, counting each invalid byte as one.
[[nodiscard]] std::size_t code_point_count(std::string_view s) noexcept;

/// At most `max_bytes` of `s`, cut at a code-point boundary, with "..." appended when cut: a short
/// excerpt for error messages.
[[nodiscard]] std::string excerpt(std::string_view s, std::size_t max_bytes = 120);

/// `s` with every control character escaped (C0 as \xNN, DEL as \x7f, C1 as \u0080..\u009f,
/// and bytes that are not UTF-8 as \xNN), so that text from outside cannot drive a terminal.
/// With `keep_lines`, \n and \t stay as they are.
[[nodiscard]] std::string escape_controls(std::string_view s, bool keep_lines = false);

/// Whether a code point is printable under Unicode 14.0 (the host's `str.isprintable`).
[[nodiscard]] bool is_printable(char32_t cp) noexcept;

/// Whether a code point is white space (the host's `str.isspace`).
[[nodiscard]] bool is_space(char32_t cp) noexcept;

/// Decodes the code point that starts at `pos` and advances `pos` past it. A byte that does not
/// start a valid sequence decodes to U+DC00+byte and advances by one.
[[nodiscard]] char32_t decode(std::string_view s, std::size_t& pos) noexcept;

}  // namespace orvo_core::text
