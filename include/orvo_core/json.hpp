#pragma once

#include <string>
#include <string_view>

#include "orvo_core/any.hpp"

namespace orvo_core {

/// Parses JSON text into values: objects become maps (in document order; a repeated key keeps its
/// last value), arrays lists, integers `int64` (larger ones floating-point), other numbers
/// floating-point. Invalid UTF-8 inside strings is kept as it is. Malformed text is a
/// `ValueError` that names the position and quotes the start of the text.
[[nodiscard]] Any parse_json(std::string_view text);

/// Writes a value as JSON in the host serializer's default style: ", " and ": " separators, pure
/// ASCII (`\u` escapes), floats in their shortest form. Objects, non-finite floats and
/// self-containing containers cannot be written: `TypeError` or `ValueError`.
[[nodiscard]] std::string to_json(const Any& value);

/// Appends `to_json(value)` to `out`.
void append_json(std::string& out, const Any& value);

}  // namespace orvo_core
