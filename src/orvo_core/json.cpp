#include "orvo_core/json.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/error.hpp>

#include "orvo_core/errors.hpp"
#include "orvo_core/text.hpp"

namespace orvo_core {
namespace {

constexpr std::size_t kMaxDepth = 1000;
constexpr std::size_t kExcerpt = 80;

// Builds values straight from the parser's events. Numbers are read again from their own text:
// Boost.JSON 1.81 rounds some 17-digit decimals to a neighbour of the nearest double, and the
// writer relies on the shortest form of a float reading back as that float.
class Builder {
  using error_code = boost::system::error_code;
  using string_view = boost::json::string_view;

 public:
  static constexpr std::size_t max_object_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_key_size = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t max_string_size = std::numeric_limits<std::size_t>::max();

  Any take() { return std::move(root_); }

  bool on_document_begin(error_code& /*ec*/) { return true; }
  bool on_document_end(error_code& /*ec*/) { return true; }
  bool on_array_begin(error_code& /*ec*/) {
    open(Any(List{}));
    return true;
  }
  bool on_array_end(std::size_t /*n*/, error_code& /*ec*/) {
    open_.pop_back();
    return true;
  }
  bool on_object_begin(error_code& /*ec*/) {
    open(Any(Map{}));
    return true;
  }
  bool on_object_end(std::size_t /*n*/, error_code& /*ec*/) {
    open_.pop_back();
    return true;
  }
  bool on_string_part(string_view s, std::size_t /*n*/, error_code& /*ec*/) {
    string_.append(s.data(), s.size());
    return true;
  }
  bool on_string(string_view s, std::size_t /*n*/, error_code& /*ec*/) {
    string_.append(s.data(), s.size());
    add(Any(std::move(string_)));
    string_.clear();
    return true;
  }
  bool on_key_part(string_view s, std::size_t /*n*/, error_code& /*ec*/) {
    key_.append(s.data(), s.size());
    return true;
  }
  bool on_key(string_view s, std::size_t /*n*/, error_code& /*ec*/) {
    key_.append(s.data(), s.size());
    return true;
  }
  bool on_number_part(string_view s, error_code& /*ec*/) {
    number_.append(s.data(), s.size());
    return true;
  }
  bool on_int64(std::int64_t i, string_view /*s*/, error_code& /*ec*/) {
    number_.clear();
    add(Any(i));
    return true;
  }
  bool on_uint64(std::uint64_t u, string_view /*s*/, error_code& /*ec*/) {
    number_.clear();
    if (u <= static_cast<std::uint64_t>(INT64_MAX)) {
      add(Any(static_cast<std::int64_t>(u)));
    } else {
      add(Any(static_cast<double>(u)));
    }
    return true;
  }
  bool on_double(double approximate, string_view s, error_code& /*ec*/) {
    std::string_view digits(s.data(), s.size());
    if (!number_.empty()) {
      number_.append(digits);
      digits = number_;
    }
    double d = approximate;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), d);
    if (result.ec == std::errc::result_out_of_range) {
      // Beyond the doubles either way: infinity or zero, as the host reads it. The approximation
      // is on the right side of 1 even where its last bits are off.
      d = std::abs(approximate) >= 1 ? std::numeric_limits<double>::infinity() : 0.0;
      if (digits.front() == '-') d = -d;
    }
    number_.clear();
    add(Any(d));
    return true;
  }
  bool on_bool(bool b, error_code& /*ec*/) {
    add(Any(b));
    return true;
  }
  bool on_null(error_code& /*ec*/) {
    add(Any());
    return true;
  }
  bool on_comment_part(string_view /*s*/, error_code& /*ec*/) { return true; }
  bool on_comment(string_view /*s*/, error_code& /*ec*/) { return true; }

 private:
  void add(Any value) {
    if (open_.empty()) {
      root_ = std::move(value);
    } else if (List* list = open_.back().list) {
      list->push_back(std::move(value));
    } else {
      open_.back().map->insert_or_assign(std::move(key_), std::move(value));
      key_.clear();
    }
  }

  void open(Any container) {
    Open entry;
    if (container.is_list()) {
      entry.list = &container.as_list();
    } else {
      entry.map = &container.as_map();
    }
    add(std::move(container));  // the parent now owns the container, and it lives on
    open_.push_back(entry);
  }

  struct Open {
    List* list = nullptr;
    Map* map = nullptr;
  };

  Any root_;
  std::vector<Open> open_;
  std::string key_;
  std::string string_;
  std::string number_;
};

// A four-digit hex escape's value, or -1.
int hex4(std::string_view s, std::size_t pos) {
  if (pos + 4 > s.size()) return -1;
  int value = 0;
  for (std::size_t i = pos; i < pos + 4; ++i) {
    const char c = s[i];
    int digit = -1;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    }
    if (digit < 0) return -1;
    value = value * 16 + digit;
  }
  return value;
}

// Whether the text may hold a `\udcXX` escape (or a false alarm, such as an escaped backslash
// before "udc"); most text has none and is parsed as it is.
bool may_hold_byte_escapes(std::string_view text) {
  for (std::size_t pos = text.find('\\'); pos != std::string_view::npos;
       pos = text.find('\\', pos + 1)) {
    if (pos + 3 < text.size() && text[pos + 1] == 'u' && (text[pos + 2] | 0x20) == 'd' &&
        (text[pos + 3] | 0x20) == 'c') {
      return true;
    }
  }
  return false;
}

// The writer spells each byte that is not UTF-8 as a lone `\udc80`..`\udcff`, which the parser
// refuses; this copy has the byte itself there instead (the parser lets raw bytes through). Pairs
// and every other escape stay as they are, so other lone surrogates are still errors. `replaced`
// gets the copy's offset of each byte put back, to map error offsets to the original.
std::string with_bytes_unescaped(std::string_view text, std::vector<std::size_t>& replaced) {
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      in_string = !in_string;
      continue;
    }
    if (!in_string || c != '\\' || i + 1 >= text.size()) continue;
    if (text[i + 1] != 'u') {
      ++i;  // a short escape; its second character may be a quote or backslash
      continue;
    }
    const int unit = hex4(text, i + 2);
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 7 < text.size() && text[i + 6] == '\\' &&
        text[i + 7] == 'u') {
      const int low = hex4(text, i + 8);
      if (low >= 0xDC00 && low <= 0xDFFF) i += 6;  // a pair: leave its low half alone
    } else if (unit >= 0xDC80 && unit <= 0xDCFF) {
      out.append(text.substr(copied, i - copied));
      replaced.push_back(out.size());
      out.push_back(static_cast<char>(unit & 0xFF));
      copied = i + 6;
    }
    if (unit >= 0) i += 5;
  }
  out.append(text.substr(copied));
  return out;
}

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void write(const Any& value) {
    switch (value.kind()) {
      case Any::Kind::None:
        out_ += "null";
        return;
      case Any::Kind::Bool:
        out_ += value.as_bool() ? "true" : "false";
        return;
      case Any::Kind::Int:
        out_ += std::to_string(value.as_int());
        return;
      case Any::Kind::Float: {
        const double d = value.as_float();
        if (!std::isfinite(d)) throw ValueError("JSON cannot hold the float " + value.repr());
        text::append_float(out_, d);
        return;
      }
      case Any::Kind::String:
        text::append_json_string(out_, value.as_string());
        return;
      case Any::Kind::List: {
        enter(&value.as_list());
        out_.push_back('[');
        bool first = true;
        for (const Any& element : value.as_list()) {
          if (!first) out_ += ", ";
          first = false;
          write(element);
        }
        out_.push_back(']');
        active_.pop_back();
        return;
      }
      case Any::Kind::Map: {
        enter(&value.as_map());
        out_.push_back('{');
        bool first = true;
        for (const auto& [key, element] : value.as_map()) {
          if (!first) out_ += ", ";
          first = false;
          text::append_json_string(out_, key);
          out_ += ": ";
          write(element);
        }
        out_.push_back('}');
        active_.pop_back();
        return;
      }
      case Any::Kind::Object:
        throw TypeError("Object of type " + value.type_name() + " is not JSON serializable");
    }
  }

 private:
  void enter(const void* container) {
    for (const void* active : active_) {
      if (active == container) throw ValueError("Circular reference detected");
    }
    if (active_.size() >= kMaxDepth) throw ValueError("value nesting is too deep for JSON");
    active_.push_back(container);
  }

  std::string& out_;
  std::vector<const void*> active_;
};

}  // namespace

Any parse_json(std::string_view text) {
  std::vector<std::size_t> replaced;
  std::string unescaped;
  std::string_view input = text;
  if (may_hold_byte_escapes(text)) {
    unescaped = with_bytes_unescaped(text, replaced);
    input = unescaped;
  }
  boost::json::parse_options options;
  options.allow_invalid_utf8 = true;
  options.max_depth = kMaxDepth;
  boost::json::basic_parser<Builder> parser(options);
  boost::system::error_code error;
  const std::size_t used = parser.write_some(false, input.data(), input.size(), error);
  if (!error && used < input.size()) error = boost::json::error::extra_data;
  if (error) {
    // Each byte put back replaced a six-character escape before it.
    const auto earlier =
        std::lower_bound(replaced.begin(), replaced.end(), used) - replaced.begin();
    const std::size_t offset = used + 5 * static_cast<std::size_t>(earlier);
    std::string excerpt(text.substr(0, kExcerpt));
    if (text.size() > kExcerpt) excerpt += "...";
    throw ValueError("invalid JSON (" + error.message() + " at offset " + std::to_string(offset) +
                     "): " + text::quoted(excerpt));
  }
  return parser.handler().take();
}

void append_json(std::string& out, const Any& value) {
  Writer(out).write(value);
}

std::string to_json(const Any& value) {
  std::string out;
  append_json(out, value);
  return out;
}

}  // namespace orvo_core
