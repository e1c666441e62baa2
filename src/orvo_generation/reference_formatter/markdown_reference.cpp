#include "orvo_generation/reference_formatter/markdown_reference.hpp"

#include <cctype>

namespace orvo_generation::reference_formatter {

namespace {

bool is_digit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

void append_percent(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out.push_back('%');
  out.push_back(kHex[c >> 4]);
  out.push_back(kHex[c & 0xF]);
}

}  // namespace

std::string escape_markdown_text(std::string_view text, bool line_start) {
  std::string out;
  out.reserve(text.size() + 8);
  // Where a block marker would sit: the first character, or the one after leading digits.
  std::size_t marker = std::string_view::npos;
  if (line_start && !text.empty()) {
    std::size_t digits = 0;
    while (digits < text.size() && is_digit(text[digits])) ++digits;
    if (digits == 0 && std::string_view("#-+=|").find(text[0]) != std::string_view::npos) {
      marker = 0;
    } else if (digits > 0 && digits < text.size() && (text[digits] == '.' || text[digits] == ')')) {
      marker = digits;
    }
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\r' || c == '\n') {
      if (c == '\n' && i > 0 && text[i - 1] == '\r') continue;
      out.push_back(' ');
      continue;
    }
    if (i == marker || std::string_view("\\`[]()*_~<>&").find(c) != std::string_view::npos) {
      out.push_back('\\');
    }
    out.push_back(c);
  }
  return out;
}

std::string encode_link_destination(std::string_view url) {
  std::string out;
  out.reserve(url.size() + 8);
  for (const char c : url) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F ||
        std::string_view("()<>\\").find(c) != std::string_view::npos) {
      append_percent(out, byte);
    } else if (c == '&') {
      out += "\\&";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

}  // namespace orvo_generation::reference_formatter
