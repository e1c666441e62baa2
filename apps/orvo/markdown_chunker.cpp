#include "markdown_chunker.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <utility>

#include "orvo_core/utils/markdown.hpp"

namespace orvo_cli {
namespace {

constexpr std::size_t kMinChars = 40;
constexpr std::size_t kMaxInline = 1024;  // The longest link we look for.

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

std::size_t indent_of(std::string_view line) {
  std::size_t n = 0;
  while (n < line.size() && (line[n] == ' ' || line[n] == '\t')) ++n;
  return n;
}

// The position of the bracket that closes the one at `open`, skipping code spans and nested
// pairs; npos without one.
std::size_t closing(std::string_view s, std::size_t open, char left, char right) {
  int depth = 0;
  // Links are short; looking no further keeps a run of brackets from taking quadratic time.
  const std::size_t end = std::min(s.size(), open + kMaxInline);
  for (std::size_t i = open; i < end;) {
    if (s[i] == '`') {
      i = orvo_core::code_span_end(s, i);
      continue;
    }
    if (s[i] == left) ++depth;
    if (s[i] == right && --depth == 0) return i;
    ++i;
  }
  return std::string_view::npos;
}

// Inline links and images reduced to their text: "[`fs`][]" and "[the docs](x.md)" read as
// "`fs`" and "the docs". Code spans stay as they are.
std::string plain_links(std::string_view s) {
  std::string out;
  for (std::size_t i = 0; i < s.size();) {
    if (s[i] == '`') {
      const std::size_t end = orvo_core::code_span_end(s, i);
      out.append(s.substr(i, end - i));
      i = end;
      continue;
    }
    const std::size_t open = s[i] == '!' && i + 1 < s.size() && s[i + 1] == '[' ? i + 1 : i;
    if (s[open] == '[') {
      const std::size_t close = closing(s, open, '[', ']');
      if (close != std::string_view::npos && close + 1 < s.size() &&
          (s[close + 1] == '(' || s[close + 1] == '[')) {
        const char left = s[close + 1];
        const std::size_t target = closing(s, close + 1, left, left == '(' ? ')' : ']');
        if (target != std::string_view::npos) {
          out += plain_links(s.substr(open + 1, close - open - 1));
          i = target + 1;
          continue;
        }
      }
    }
    out += s[i++];
  }
  return out;
}

// The fence that opens a code block ("```" or "~~~", three or more), if `body` starts one.
std::optional<std::string> fence_opening(std::string_view body) {
  if (body.size() < 3 || (body[0] != '`' && body[0] != '~')) return std::nullopt;
  const std::size_t run = body.find_first_not_of(body[0]);
  const std::size_t length = run == std::string_view::npos ? body.size() : run;
  if (length < 3) return std::nullopt;
  // A backtick fence's info string holds no backtick, or it is a code span.
  if (body[0] == '`' && body.find('`', length) != std::string_view::npos) return std::nullopt;
  return std::string(length, body[0]);
}

bool closes_fence(std::string_view body, const std::string& fence) {
  const std::size_t run = body.find_first_not_of(fence[0]);
  return (run == std::string_view::npos ? body.size() : run) >= fence.size() &&
         (run == std::string_view::npos || trim(body.substr(run)).empty());
}

// The level of an ATX heading ("## Title"), 0 for another line; `text` gets its title.
int heading_level(std::string_view line, std::string& text) {
  if (indent_of(line) > 3) return 0;
  const std::string_view body = trim(line);
  const std::size_t level = std::min(body.find_first_not_of('#'), body.size());
  if (level == 0 || level > 6 || (level < body.size() && body[level] != ' ' && body[level] != '\t'))
    return 0;
  std::string_view title = trim(body.substr(level));
  const std::size_t hashes = title.find_last_not_of('#');
  if (hashes == std::string_view::npos) {
    title = {};
  } else if (hashes + 1 < title.size() && (title[hashes] == ' ' || title[hashes] == '\t')) {
    title = trim(title.substr(0, hashes));
  }
  text = plain_links(title);
  return static_cast<int>(level);
}

// "***", "---", "___" (blanks allowed between): a rule, which carries no text.
bool is_rule(std::string_view body) {
  std::size_t marks = 0;
  for (const char c : body) {
    if (c == body[0]) {
      ++marks;
    } else if (c != ' ' && c != '\t') {
      return false;
    }
  }
  return (body[0] == '*' || body[0] == '-' || body[0] == '_') && marks >= 3;
}

// "[label]: destination", which only feeds links elsewhere.
bool is_reference_definition(std::string_view body) {
  if (body[0] != '[') return false;
  const std::size_t close = body.find("]:");
  return close != std::string_view::npos && close > 1 &&
         body.substr(1, close - 1).find(']') == std::string_view::npos;
}

// `line` without HTML comments; `open` says whether a comment is still open at its start and
// end.
std::string strip_comments(std::string_view line, bool& open) {
  std::string out;
  std::size_t pos = 0;
  while (pos <= line.size()) {
    if (open) {
      const std::size_t end = line.find("-->", pos);
      if (end == std::string_view::npos) return out;
      open = false;
      pos = end + 3;
    }
    const std::size_t start = line.find("<!--", pos);
    out.append(line.substr(pos, start == std::string_view::npos ? start : start - pos));
    if (start == std::string_view::npos) break;
    open = true;
    pos = start + 4;
  }
  return out;
}

// Whether a line holds HTML tags and nothing else.
bool only_tags(std::string_view line) {
  line = trim(line);
  if (line.empty() || line[0] != '<') return false;
  while (!line.empty()) {
    if (line[0] != '<') return false;
    const std::size_t close = line.find('>');
    if (close == std::string_view::npos) return false;
    line = trim(line.substr(close + 1));
  }
  return true;
}

// A heading (level 1..6) or a block of text (level 0).
struct Element {
  enum class Kind { prose, item, code, table };
  int level = 0;
  Kind kind = Kind::prose;
  std::string text;
};

// Reads a document into headings and blocks.
class Reader {
 public:
  std::vector<Element> read(std::string_view text) {
    bool in_comment = false;
    for (std::size_t pos = 0; pos <= text.size();) {
      std::size_t eol = text.find('\n', pos);
      if (eol == std::string_view::npos) eol = text.size();
      std::string_view line = text.substr(pos, eol - pos);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      pos = eol + 1;
      if (!fence_.empty()) {
        code_line(line);
        continue;
      }
      const bool had_comment = in_comment || line.find("<!--") != std::string_view::npos;
      const std::string kept = had_comment ? strip_comments(line, in_comment) : std::string(line);
      // A line of comments or bare tags ("<a id=...></a>") is no paragraph break either.
      if ((had_comment && trim(kept).empty()) || only_tags(kept)) continue;
      text_line(kept);
    }
    close();
    if (!fence_.empty()) out_.push_back({0, Element::Kind::code, std::move(code_)});
    return std::move(out_);
  }

 private:
  void close() {
    if (!open_) return;
    if (open_->kind != Element::Kind::table) open_->text = plain_links(open_->text);
    out_.push_back(std::move(*open_));
    open_.reset();
    quote_ = false;
  }

  void open(Element::Kind kind, std::string text) {
    close();
    open_ = Element{0, kind, std::move(text)};
    lines_ = 1;
  }

  void code_line(std::string_view line) {
    const std::string_view body = trim(line);
    // Lines of a fenced block lose the fence's own indentation (a fence inside a list item).
    const std::size_t cut = std::min(indent_of(line), fence_indent_);
    code_ += '\n';
    code_ += line.substr(cut);
    if (closes_fence(body, fence_)) {
      out_.push_back({0, Element::Kind::code, std::move(code_)});
      fence_.clear();
      code_.clear();
    }
  }

  void text_line(std::string_view line) {
    const std::string_view body = trim(line);
    if (body.empty()) {
      close();
      return;
    }
    if (auto fence = fence_opening(body)) {
      close();
      fence_ = std::move(*fence);
      fence_indent_ = indent_of(line);
      code_ = std::string(body);
      return;
    }
    std::string title;
    if (const int level = heading_level(line, title); level > 0) {
      close();
      out_.push_back({level, Element::Kind::prose, std::move(title)});
      return;
    }
    const bool underline = body.find_first_not_of(body[0]) == std::string_view::npos &&
                           (body[0] == '=' || body[0] == '-');
    if (underline && open_ && open_->kind == Element::Kind::prose && !quote_ && lines_ == 1) {
      out_.push_back({body[0] == '=' ? 1 : 2, Element::Kind::prose, plain_links(open_->text)});
      open_.reset();
      return;
    }
    if (is_rule(body) || is_reference_definition(body)) {
      close();
      return;
    }
    if (body[0] == '|') {
      if (!open_ || open_->kind != Element::Kind::table) {
        open(Element::Kind::table, std::string(body));
      } else {
        open_->text += '\n';
        open_->text += body;
      }
      return;
    }
    if (const std::size_t marker = orvo_core::list_marker(body); marker > 0) {
      open(Element::Kind::item, std::string(line.substr(0, indent_of(line))) +
                                    std::string(trim(body.substr(0, marker))) + ' ' +
                                    std::string(trim(body.substr(marker))));
      return;
    }
    std::string_view words = body;
    const bool quoted = body[0] == '>';
    if (quoted) words = trim(body.substr(1));
    if (open_ && open_->kind != Element::Kind::table && (!quoted || quote_)) {
      open_->text += ' ';
      open_->text += words;
      ++lines_;
    } else {
      open(Element::Kind::prose, std::string(words));
      quote_ = quoted;
    }
  }

  std::vector<Element> out_;
  std::optional<Element> open_;  // The paragraph, item or table being read.
  std::size_t lines_ = 0;        // Its lines so far.
  bool quote_ = false;           // It is a block quote.
  std::string fence_;            // Inside a fenced code block: its fence.
  std::size_t fence_indent_ = 0;
  std::string code_;
};

// `s` cut into pieces of at most `budget` bytes at blanks, or at a character boundary where a
// word is longer than that.
void cut_words(std::string_view s, std::size_t budget, std::vector<std::string>& out) {
  while (s.size() > budget) {
    std::size_t at = s.rfind(' ', budget);
    if (at == std::string_view::npos || at == 0) {
      at = budget;
      while (at > 1 && (static_cast<unsigned char>(s[at]) & 0xC0) == 0x80) --at;
    }
    out.emplace_back(trim(s.substr(0, at)));
    s = trim(s.substr(at));
  }
  if (!s.empty()) out.emplace_back(s);
}

// Joins `units` with `joiner` into pieces of at most `budget` bytes, greedily; a unit too long
// on its own is cut at blanks.
std::vector<std::string> pack(const std::vector<std::string_view>& units, std::string_view joiner,
                              std::size_t budget) {
  std::vector<std::string> out;
  std::string piece;
  for (const std::string_view unit : units) {
    if (!piece.empty() && piece.size() + joiner.size() + unit.size() <= budget) {
      piece += joiner;
      piece += unit;
      continue;
    }
    if (!piece.empty()) out.push_back(std::move(piece));
    piece.clear();
    if (unit.size() <= budget) {
      piece = unit;
    } else {
      cut_words(unit, budget, out);
    }
  }
  if (!piece.empty()) out.push_back(std::move(piece));
  return out;
}

std::vector<std::string_view> lines_of(std::string_view s) {
  std::vector<std::string_view> out;
  for (std::size_t pos = 0; pos <= s.size();) {
    const std::size_t eol = std::min(s.find('\n', pos), s.size());
    out.push_back(s.substr(pos, eol - pos));
    pos = eol + 1;
  }
  return out;
}

// Pieces of a block too long for one chunk.
std::vector<std::string> cut_block(const Element& block, std::size_t max_chars) {
  if (block.kind == Element::Kind::prose || block.kind == Element::Kind::item) {
    return pack(orvo_core::split_sentences(block.text), " ", max_chars);
  }
  std::vector<std::string_view> lines = lines_of(block.text);
  if (block.kind == Element::Kind::table) return pack(lines, "\n", max_chars);
  const std::string opening(lines.front());
  const std::string fence = opening.substr(0, opening.find_first_not_of(opening[0]));
  lines.erase(lines.begin());
  if (!lines.empty() && closes_fence(trim(lines.back()), fence)) lines.pop_back();
  const std::size_t frame = opening.size() + fence.size() + 2;
  if (frame + kMinChars / 2 > max_chars) return pack(lines, "\n", max_chars);
  std::vector<std::string> pieces = pack(lines, "\n", max_chars - frame);
  for (auto& piece : pieces) piece = opening + '\n' + piece + '\n' + fence;
  return pieces;
}

std::string slug(std::string_view heading) {
  std::string out;
  for (const char c : heading) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80 || std::isalnum(byte) != 0) {
      out += static_cast<char>(std::tolower(byte));
    } else if (c == '-' || c == '_') {
      out += c;
    } else if (c == ' ' || c == '\t') {
      out += '-';
    }
  }
  return out;
}

// Collects the blocks of each section into chunks.
class Packer {
 public:
  explicit Packer(std::size_t max_chars) : max_(max_chars) {}

  void heading(const Element& heading) {
    flush();
    while (!path_.empty() && path_.back().first >= heading.level) path_.pop_back();
    path_.emplace_back(heading.level, heading.text);
    const std::string base = slug(heading.text);
    const int seen = seen_[base]++;
    anchor_ = seen == 0 ? base : base + "-" + std::to_string(seen);
  }

  void block(const Element& block) {
    const bool item = block.kind == Element::Kind::item;
    std::string_view rest = block.text;
    // A chunk not yet half full takes the paragraph's first sentences rather than closing
    // small: a paragraph that opens with its point keeps it near what comes before.
    if (block.kind == Element::Kind::prose && !text_.empty() && text_.size() < max_ / 2 &&
        text_.size() + 2 + rest.size() > max_) {
      const std::size_t room = max_ - text_.size() - 2;
      std::size_t taken = 0;
      for (const auto sentence : orvo_core::split_sentences(rest)) {
        const std::size_t end =
            static_cast<std::size_t>(sentence.data() - rest.data()) + sentence.size();
        if (end > room) break;
        taken = end;
      }
      if (taken > 0) {
        append(rest.substr(0, taken), false);
        rest = trim(rest.substr(taken));
      }
    }
    if (rest.size() <= max_) {
      append(rest, item);
      return;
    }
    for (const auto& piece : cut_block({0, block.kind, std::string(rest)}, max_))
      append(piece, item);
  }

  std::vector<DocumentChunk> finish() {
    flush();
    return std::move(out_);
  }

 private:
  void append(std::string_view piece, bool item) {
    const std::string_view separator = text_.empty() ? "" : (item && last_item_ ? "\n" : "\n\n");
    if (text_.size() + separator.size() + piece.size() > max_) {
      flush();
    } else {
      text_ += separator;
    }
    text_ += piece;
    last_item_ = item;
  }

  void flush() {
    if (text_.empty()) return;
    DocumentChunk chunk{std::move(text_), {}, anchor_};
    for (const auto& [level, title] : path_) chunk.headings.push_back(title);
    out_.push_back(std::move(chunk));
    text_.clear();
    last_item_ = false;
  }

  std::size_t max_;
  std::vector<DocumentChunk> out_;
  std::vector<std::pair<int, std::string>> path_;  // Level and title, outermost first.
  std::map<std::string, int> seen_;                // Slugs so far, for repeats.
  std::string anchor_;
  std::string text_;
  bool last_item_ = false;
};

}  // namespace

std::vector<DocumentChunk> chunk_markdown(std::string_view text, const ChunkOptions& options) {
  Packer packer(std::max(options.max_chars, kMinChars));
  for (const Element& element : Reader().read(text)) {
    if (element.level > 0) {
      packer.heading(element);
    } else if (!trim(element.text).empty()) {
      packer.block(element);
    }
  }
  return packer.finish();
}

}  // namespace orvo_cli
