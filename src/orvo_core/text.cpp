#include "orvo_core/text.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <system_error>

namespace orvo_core::text {

// In json_scan.cpp: how many bytes at `data` need no escape in a JSON string.
std::size_t plain_json_prefix(const char* data, std::size_t size);

namespace {

struct CodePointRange {
  char32_t lo;
  char32_t hi;
};

#include "unicode_tables.inc"

template <std::size_t N>
bool in_ranges(const CodePointRange (&table)[N], char32_t cp) noexcept {
  const auto* end = std::end(table);
  const auto* it =
      std::upper_bound(std::begin(table), end, cp,
                       [](char32_t value, const CodePointRange& r) { return value < r.lo; });
  return it != std::begin(table) && cp <= std::prev(it)->hi;
}

constexpr char kHex[] = "0123456789abcdef";

void append_hex(std::string& out, std::uint32_t value, int digits) {
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
    out.push_back(kHex[(value >> shift) & 0xF]);
  }
}

inline bool is_continuation(unsigned char c) noexcept {
  return (c & 0xC0) == 0x80;
}

// The escape of every ASCII byte that needs one, as the host's serializer writes it.
const std::array<std::string, 128> kJsonAsciiEscape = [] {
  std::array<std::string, 128> escape;
  for (std::size_t c = 0; c < 128; ++c) {
    if (c < 0x20 || c == 0x7F) {
      escape[c] = "\\u00";
      escape[c] += kHex[c >> 4];
      escape[c] += kHex[c & 0xF];
    }
  }
  escape['"'] = "\\\"";
  escape['\\'] = "\\\\";
  escape['\b'] = "\\b";
  escape['\f'] = "\\f";
  escape['\n'] = "\\n";
  escape['\r'] = "\\r";
  escape['\t'] = "\\t";
  return escape;
}();

}  // namespace

char32_t decode(std::string_view s, std::size_t& pos) noexcept {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char b0 = byte(pos);
  const std::size_t left = s.size() - pos;
  if (b0 < 0x80) {
    ++pos;
    return b0;
  }
  // Well-formed sequences as in the Unicode standard's table of UTF-8 byte sequences: no
  // overlong forms, no encoded surrogates, nothing above U+10FFFF.
  if (b0 >= 0xC2 && b0 <= 0xDF && left >= 2 && is_continuation(byte(pos + 1))) {
    const char32_t cp = (char32_t{b0} & 0x1F) << 6 | (char32_t{byte(pos + 1)} & 0x3F);
    pos += 2;
    return cp;
  }
  if (b0 >= 0xE0 && b0 <= 0xEF && left >= 3) {
    const unsigned char b1 = byte(pos + 1);
    const unsigned char lo = b0 == 0xE0 ? 0xA0 : 0x80;
    const unsigned char hi = b0 == 0xED ? 0x9F : 0xBF;
    if (b1 >= lo && b1 <= hi && is_continuation(byte(pos + 2))) {
      const char32_t cp = (char32_t{b0} & 0x0F) << 12 | (char32_t{b1} & 0x3F) << 6 |
                          (char32_t{byte(pos + 2)} & 0x3F);
      pos += 3;
      return cp;
    }
  }
  if (b0 >= 0xF0 && b0 <= 0xF4 && left >= 4) {
    const unsigned char b1 = byte(pos + 1);
    const unsigned char lo = b0 == 0xF0 ? 0x90 : 0x80;
    const unsigned char hi = b0 == 0xF4 ? 0x8F : 0xBF;
    if (b1 >= lo && b1 <= hi && is_continuation(byte(pos + 2)) && is_continuation(byte(pos + 3))) {
      const char32_t cp = (char32_t{b0} & 0x07) << 18 | (char32_t{b1} & 0x3F) << 12 |
                          (char32_t{byte(pos + 2)} & 0x3F) << 6 | (char32_t{byte(pos + 3)} & 0x3F);
      pos += 4;
      return cp;
    }
  }
  ++pos;
  return 0xDC00 + b0;
}

bool is_printable(char32_t cp) noexcept {
  if (cp < 0x80) return cp >= 0x20 && cp < 0x7F;
  return !in_ranges(kNonPrintable, cp);
}

bool is_space(char32_t cp) noexcept {
  return in_ranges(kWhiteSpace, cp);
}

void append_quoted(std::string& out, std::string_view s) {
  const bool has_single = s.find('\'') != std::string_view::npos;
  const bool has_double = s.find('"') != std::string_view::npos;
  const char quote = has_single && !has_double ? '"' : '\'';
  out.reserve(out.size() + s.size() + 2);
  out.push_back(quote);
  std::size_t pos = 0;
  while (pos < s.size()) {
    const std::size_t start = pos;
    const char32_t cp = decode(s, pos);
    if (cp == static_cast<char32_t>(quote) || cp == U'\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(cp));
    } else if (cp == U'\t') {
      out += "\\t";
    } else if (cp == U'\n') {
      out += "\\n";
    } else if (cp == U'\r') {
      out += "\\r";
    } else if (is_printable(cp)) {
      out.append(s.substr(start, pos - start));
    } else if (cp < 0x100) {
      out += "\\x";
      append_hex(out, cp, 2);
    } else if (cp < 0x10000) {
      out += "\\u";
      append_hex(out, cp, 4);
    } else {
      out += "\\U";
      append_hex(out, cp, 8);
    }
  }
  out.push_back(quote);
}

std::string quoted(std::string_view s) {
  std::string out;
  append_quoted(out, s);
  return out;
}

void append_json_string(std::string& out, std::string_view s) {
  // Room for a few escapes too, so that text with line breaks is not copied again as it grows.
  out.reserve(out.size() + s.size() + s.size() / 16 + 8);
  out.push_back('"');
  const char* data = s.data();
  std::size_t pos = 0;
  while (pos < s.size()) {
    // Copy the run of bytes that need no escape in one go; most text is such a run.
    const std::size_t end = pos + plain_json_prefix(data + pos, s.size() - pos);
    out.append(data + pos, end - pos);
    pos = end;
    if (pos == s.size()) break;
    const auto byte = static_cast<unsigned char>(data[pos]);
    if (byte < 0x80) {
      out += kJsonAsciiEscape[byte];
      ++pos;
      continue;
    }
    const char32_t cp = decode(s, pos);
    if (cp < 0x10000) {
      out += "\\u";
      append_hex(out, cp, 4);
    } else {
      const char32_t v = cp - 0x10000;
      out += "\\u";
      append_hex(out, 0xD800 + (v >> 10), 4);
      out += "\\u";
      append_hex(out, 0xDC00 + (v & 0x3FF), 4);
    }
  }
  out.push_back('"');
}

void append_float(std::string& out, double d) {
  if (std::isnan(d)) {
    out += "nan";
    return;
  }
  if (std::isinf(d)) {
    out += d < 0 ? "-inf" : "inf";
    return;
  }
  // The shortest round-trip digits, then laid out as the host does: positional notation while
  // the decimal point falls between 10^-4 and 10^16, scientific otherwise.
  std::array<char, 64> buf{};
  const auto [end, ec] =
      std::to_chars(buf.data(), buf.data() + buf.size(), d, std::chars_format::scientific);
  (void)ec;  // 64 characters always suffice for a double
  const std::string_view sci(buf.data(), static_cast<std::size_t>(end - buf.data()));
  const std::size_t e_pos = sci.find('e');
  std::string_view mantissa = sci.substr(0, e_pos);
  int exponent = 0;
  std::from_chars(sci.data() + e_pos + (sci[e_pos + 1] == '+' ? 2 : 1), sci.data() + sci.size(),
                  exponent);
  if (!mantissa.empty() && mantissa.front() == '-') {
    out.push_back('-');
    mantissa.remove_prefix(1);
  }
  std::string digits;
  digits.reserve(mantissa.size());
  for (char c : mantissa) {
    if (c != '.') digits.push_back(c);
  }
  const int n = static_cast<int>(digits.size());
  const int decpt = exponent + 1;
  if (decpt > -4 && decpt <= 16) {
    if (decpt <= 0) {
      out += "0.";
      out.append(static_cast<std::size_t>(-decpt), '0');
      out += digits;
    } else if (decpt >= n) {
      out += digits;
      out.append(static_cast<std::size_t>(decpt - n), '0');
      out += ".0";
    } else {
      out.append(digits, 0, static_cast<std::size_t>(decpt));
      out.push_back('.');
      out.append(digits, static_cast<std::size_t>(decpt));
    }
    return;
  }
  out.push_back(digits[0]);
  if (n > 1) {
    out.push_back('.');
    out.append(digits, 1);
  }
  out.push_back('e');
  out.push_back(exponent < 0 ? '-' : '+');
  const int magnitude = exponent < 0 ? -exponent : exponent;
  if (magnitude < 10) out.push_back('0');
  out += std::to_string(magnitude);
}

bool is_blank(std::string_view s) noexcept {
  std::size_t pos = 0;
  while (pos < s.size()) {
    if (!is_space(decode(s, pos))) return false;
  }
  return true;
}

std::string excerpt(std::string_view s, std::size_t max_bytes) {
  if (s.size() <= max_bytes) return std::string(s);
  std::size_t end = 0;
  while (end < s.size()) {
    std::size_t next = end;
    (void)decode(s, next);
    if (next > max_bytes) break;
    end = next;
  }
  return std::string(s.substr(0, end)) + "...";
}

std::string escape_controls(std::string_view s, bool keep_lines) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(s.size());
  for (std::size_t pos = 0; pos < s.size();) {
    const std::size_t start = pos;
    const char32_t cp = decode(s, pos);
    const bool lone_byte = cp >= 0xdc80 && cp <= 0xdcff && pos - start == 1;
    if (lone_byte || cp < 0x20 || cp == 0x7f) {
      const unsigned byte = lone_byte ? cp - 0xdc00 : cp;
      if (keep_lines && (cp == '\n' || cp == '\t')) {
        out += static_cast<char>(cp);
        continue;
      }
      out += "\\x";
      out += digits[byte >> 4];
      out += digits[byte & 15];
    } else if (cp >= 0x80 && cp <= 0x9f) {
      out += "\\u00";
      out += digits[cp >> 4];
      out += digits[cp & 15];
    } else {
      out.append(s.substr(start, pos - start));
    }
  }
  return out;
}

std::size_t code_point_count(std::string_view s) noexcept {
  std::size_t count = 0;
  std::size_t pos = 0;
  while (pos < s.size()) {
    (void)decode(s, pos);
    ++count;
  }
  return count;
}

}  // namespace orvo_core::text
