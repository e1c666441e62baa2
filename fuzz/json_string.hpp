#pragma once

// A strict JSON string decoder written from RFC 8259, independent of the library, that also
// reads back the library's convention for bytes that are not UTF-8: a lone \udcXX (XX >= 80)
// stands for the byte XX.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"

namespace orvo_fuzz {

/// Decodes the JSON string literal at `pos` (which must be at its opening quote) and moves
/// `pos` past it; on failure returns nothing and says why.
inline std::optional<std::string> decode_json_string(std::string_view text, std::size_t& pos,
                                                     std::string& why) {
  const auto hex4 = [&](std::size_t at) -> std::optional<char32_t> {
    if (at + 4 > text.size()) return std::nullopt;
    char32_t v = 0;
    for (std::size_t i = at; i < at + 4; ++i) {
      const char c = text[i];
      int h = -1;
      if (c >= '0' && c <= '9') h = c - '0';
      if (c >= 'a' && c <= 'f') h = c - 'a' + 10;
      if (c >= 'A' && c <= 'F') h = c - 'A' + 10;
      if (h < 0) return std::nullopt;
      v = v << 4 | static_cast<char32_t>(h);
    }
    return v;
  };
  if (pos >= text.size() || text[pos] != '"') {
    why = "no opening quote";
    return std::nullopt;
  }
  ++pos;
  std::string out;
  while (true) {
    if (pos >= text.size()) {
      why = "unterminated string";
      return std::nullopt;
    }
    const auto c = static_cast<unsigned char>(text[pos]);
    if (c == '"') {
      ++pos;
      return out;
    }
    if (c < 0x20) {
      why = "raw control character";
      return std::nullopt;
    }
    if (c != '\\') {
      const Utf8Step step = utf8_step(text, pos);
      if (!step.valid) {
        why = "invalid UTF-8";
        return std::nullopt;
      }
      out.append(text.substr(pos, step.len));
      pos += step.len;
      continue;
    }
    if (pos + 1 >= text.size()) {
      why = "dangling backslash";
      return std::nullopt;
    }
    const char e = text[pos + 1];
    pos += 2;
    switch (e) {
      case '"': out += '"'; continue;
      case '\\': out += '\\'; continue;
      case '/': out += '/'; continue;
      case 'b': out += '\b'; continue;
      case 'f': out += '\f'; continue;
      case 'n': out += '\n'; continue;
      case 'r': out += '\r'; continue;
      case 't': out += '\t'; continue;
      case 'u': break;
      default: why = "unknown escape"; return std::nullopt;
    }
    const std::optional<char32_t> u = hex4(pos);
    if (!u) {
      why = "bad \\u escape";
      return std::nullopt;
    }
    pos += 4;
    if (*u >= 0xD800 && *u <= 0xDBFF) {
      std::optional<char32_t> low;
      if (pos + 1 < text.size() && text[pos] == '\\' && text[pos + 1] == 'u') low = hex4(pos + 2);
      if (!low || *low < 0xDC00 || *low > 0xDFFF) {
        why = "high surrogate without its low half";
        return std::nullopt;
      }
      pos += 6;
      append_utf8(out, 0x10000 + ((*u - 0xD800) << 10) + (*low - 0xDC00));
    } else if (*u >= 0xDC80 && *u <= 0xDCFF) {
      out += static_cast<char>(*u - 0xDC00);
    } else if (*u >= 0xDC00 && *u <= 0xDFFF) {
      why = "lone low surrogate that stands for no byte";
      return std::nullopt;
    } else {
      append_utf8(out, *u);
    }
  }
}

}  // namespace orvo_fuzz
