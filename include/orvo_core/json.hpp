#pragma once

#include <string>
#include <string_view>

#include "orvo_core/any.hpp"

namespace orvo_core {

/// Parses JSON text into values: objects become maps (in document order; a repeated key keeps its
/// last value), arrays lists, integers `int64` (larger ones floating-point), other numbers the
/// nearest double (infinity or a signed zero beyond the doubles' range). Invalid UTF-8 inside
/// strings is kept as it is, and a lone surrogate escape `\udc80`..`\udcff` stands for the byte
/// 0x80..0xFF, as `to_json` writes such bytes, so every string written reads back unchanged. Any
/// other lone surrogate has no UTF-8 form and is a `ValueError`. Malformed text and nesting
/// deeper than 1,000 levels are a `ValueError` that names the offset and quotes the start of the
/// text.
[[nodiscard]] Any parse_json(std::string_view text);

/// Writes a value as JSON in the host serializer's default style: ", " and ": " separators, pure
/// ASCII (`\u` escapes), floats in their shortest form. Objects, non-finite floats and
/// self-containing containers cannot be written: `TypeError` or `ValueError`.
[[nodiscard]] std::string to_json(const Any& value);

/// Appends `to_json(value)` to `out`.
void append_json(std::string& out, const Any& value);

}  // namespace orvo_core
