#include "orvo_core/utils/markdown.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

namespace orvo_core {
namespace {

constexpr std::array<std::string_view, 9> kAbbreviations = {"approx.", "cf.", "dr.", "e.g.", "etc.",
                                                            "i.e.",    "mr.", "no.", "vs."};

constexpr std::size_t kMaxSpan = 1024;  // The longest code span we look for.

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

// Whether the word that ends with the full stop at `dot` is an abbreviation.
bool ends_abbreviation(std::string_view text, std::size_t dot) {
  std::size_t start = dot;
  while (start > 0 && !is_blank(text[start - 1]) && text[start - 1] != '(') --start;
  std::string word(text.substr(start, dot + 1 - start));
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(kAbbreviations.begin(), kAbbreviations.end(), word) != kAbbreviations.end();
}

}  // namespace

std::size_t code_span_end(std::string_view text, std::size_t pos) {
  std::size_t run = 0;
  while (pos + run < text.size() && text[pos + run] == '`') ++run;
  // Spans are short; looking no further keeps a run of lone backticks from taking quadratic time.
  const std::size_t line_end = std::min({text.find('\n', pos), text.size(), pos + kMaxSpan});
  for (std::size_t at = text.find('`', pos + run); at < line_end; at = text.find('`', at)) {
    std::size_t close = 0;
    while (at + close < text.size() && text[at + close] == '`') ++close;
    if (close == run) return at + close;
    at += close;
  }
  return pos + run;
}

std::size_t list_marker(std::string_view line) {
  std::size_t n = 0;
  if (line.empty()) return 0;
  if (line[0] == '*' || line[0] == '-' || line[0] == '+') {
    n = 1;
  } else {
    while (n < line.size() && n < 9 && std::isdigit(static_cast<unsigned char>(line[n])) != 0) ++n;
    if (n == 0 || n >= line.size() || (line[n] != '.' && line[n] != ')')) return 0;
    ++n;
  }
  if (n == line.size()) return n;
  return line[n] == ' ' || line[n] == '\t' ? n + 1 : 0;
}

std::vector<std::string_view> split_sentences(std::string_view text) {
  std::vector<std::string_view> out;
  const auto add = [&](std::size_t from, std::size_t to) {
    const std::string_view piece = trim(text.substr(from, to - from));
    if (!piece.empty()) out.push_back(piece);
  };
  std::size_t start = 0;
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (c == '`') {
      i = code_span_end(text, i);
      continue;
    }
    if (c == '\n') {
      add(start, i);
      start = ++i;
      continue;
    }
    ++i;
    if (c != '.' && c != '!' && c != '?') continue;
    std::size_t end = i;
    while (end < text.size() &&
           std::string_view("\"')]*_").find(text[end]) != std::string_view::npos)
      ++end;
    if (end == text.size() || (text[end] != ' ' && text[end] != '\t')) continue;
    std::size_t next = end;
    while (next < text.size() && (text[next] == ' ' || text[next] == '\t')) ++next;
    if (next < text.size() && std::islower(static_cast<unsigned char>(text[next])) != 0) continue;
    if (c == '.' && ends_abbreviation(text, i - 1)) continue;
    add(start, end);
    start = i = end;
  }
  add(start, text.size());
  return out;
}

}  // namespace orvo_core
