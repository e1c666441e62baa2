// Compares the text form, the quoted form and the reference-event JSON of generated values with
// what python3 itself produces for the same values (see any_oracle.py for the exchange format).

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/any.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

constexpr std::size_t kRandomValues = 10000;
constexpr const char* kDefaultSeed = "20240611";
constexpr std::size_t kReportedMismatches = 5;
// The oracle nests a few levels; anything deeper means the file is garbled.
constexpr std::size_t kMaxDepth = 32;

struct ParseError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string from_hex(std::string_view hex) {
  if (hex.size() % 2 != 0) throw ParseError("odd-length hex field");
  std::string out;
  out.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int hi = hex_digit(hex[i]);
    const int lo = hex_digit(hex[i + 1]);
    if (hi < 0 || lo < 0) throw ParseError("bad hex digit");
    out.push_back(static_cast<char>(hi * 16 + lo));
  }
  return out;
}

template <class T>
T parse_number(std::string_view digits, int base = 10) {
  T value{};
  const char* end = digits.data() + digits.size();
  const auto [ptr, ec] = std::from_chars(digits.data(), end, value, base);
  if (digits.empty() || ec != std::errc() || ptr != end) {
    throw ParseError("bad number '" + std::string(digits) + "'");
  }
  return value;
}

class Tokens {
 public:
  explicit Tokens(std::string_view text) : rest_(text) {}

  std::string_view next() {
    if (rest_.empty()) throw ParseError("value ends early");
    const std::size_t space = rest_.find(' ');
    const std::string_view token = rest_.substr(0, space);
    rest_ = space == std::string_view::npos ? std::string_view() : rest_.substr(space + 1);
    if (token.empty()) throw ParseError("empty token");
    return token;
  }

  [[nodiscard]] bool done() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

Any parse_value(Tokens& tokens, std::size_t depth) {
  if (depth > kMaxDepth) throw ParseError("nesting too deep");
  const std::string_view token = tokens.next();
  const std::string_view body = token.substr(1);
  switch (token.front()) {
    case 'N':
      return Any();
    case 'T':
      return Any(true);
    case 'F':
      return Any(false);
    case 'I':
      return Any(parse_number<std::int64_t>(body));
    case 'D':
      if (body.size() != 16) throw ParseError("float token needs 16 hex digits");
      return Any(std::bit_cast<double>(parse_number<std::uint64_t>(body, 16)));
    case 'S':
      return Any(from_hex(body));
    case 'L': {
      const auto n = parse_number<std::size_t>(body);
      List list;
      for (std::size_t i = 0; i < n; ++i) list.push_back(parse_value(tokens, depth + 1));
      return Any(std::move(list));
    }
    case 'M': {
      const auto n = parse_number<std::size_t>(body);
      Map map;
      for (std::size_t i = 0; i < n; ++i) {
        const std::string_view key = tokens.next();
        if (key.front() != 'S') throw ParseError("map key is not a string token");
        std::string key_bytes = from_hex(key.substr(1));
        map.insert_or_assign(std::move(key_bytes), parse_value(tokens, depth + 1));
      }
      return Any(std::move(map));
    }
    default:
      throw ParseError("unknown token '" + std::string(token) + "'");
  }
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// Bytes with everything outside printable ASCII as \xHH, so a report shows exactly what differs.
std::string escaped(std::string_view bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (b >= 0x20 && b < 0x7F && b != '\\') {
      out.push_back(c);
    } else if (b == '\\') {
      out += "\\\\";
    } else {
      out += "\\x";
      out.push_back(kHex[b >> 4]);
      out.push_back(kHex[b & 0xF]);
    }
  }
  return out;
}

// Some expected texts are megabytes long: show where they part and a little on either side.
std::string describe_difference(std::string_view expected, std::string_view got) {
  std::size_t at = 0;
  while (at < expected.size() && at < got.size() && expected[at] == got[at]) ++at;
  constexpr std::size_t kBefore = 40;
  constexpr std::size_t kAfter = 60;
  const std::size_t from = at > kBefore ? at - kBefore : 0;
  std::ostringstream out;
  out << "first difference at byte " << at << " (expected " << expected.size() << " bytes, got "
      << got.size() << "), from byte " << from << ":\n"
      << "      expected: " << escaped(expected.substr(from, at - from + kAfter)) << "\n"
      << "      got:      " << escaped(got.substr(std::min(from, got.size()), at - from + kAfter));
  return out.str();
}

std::string shell_quoted(std::string_view word) {
  std::string out = "'";
  for (const char c : word) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out.push_back(c);
    }
  }
  out.push_back('\'');
  return out;
}

std::string seed() {
  const char* from_env = std::getenv("ORVO_DIFFERENTIAL_SEED");
  if (from_env == nullptr || *from_env == '\0') return kDefaultSeed;
  const std::string s(from_env);
  // It goes into a shell command.
  if (s.find_first_not_of("0123456789") != std::string::npos) {
    throw std::invalid_argument("ORVO_DIFFERENTIAL_SEED must be a decimal number, got " + s);
  }
  return s;
}

// A file that lives as long as the test.
class TempFile {
 public:
  TempFile() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "orvo_any_oracle_XXXXXX").string();
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "mkstemp " + pattern);
    ::close(fd);
    path_ = pattern;
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(any_differential, matches_host_str_repr_and_json) {
  const TempFile exchange;
  const std::string seed_text = seed();
  const std::string command = "python3 " + shell_quoted(ORVO_ORACLE_SCRIPT) + " --seed " +
                              seed_text + " --count " + std::to_string(kRandomValues) + " --out " +
                              shell_quoted(exchange.path());
  const int status = std::system(command.c_str());
  ASSERT_NE(status, -1) << "could not start a shell to run: " << command;
  ASSERT_TRUE(WIFEXITED(status)) << "the oracle was killed (wait status " << status
                                 << "): " << command;
  const int exit_code = WEXITSTATUS(status);
  ASSERT_NE(exit_code, 127)
      << "python3 is not on PATH; this test needs a Python 3.11 python3 to compare against";
  ASSERT_EQ(exit_code, 0) << "the oracle failed (its message is on stderr above): " << command;

  std::string contents;
  {
    std::ifstream in(exchange.path(), std::ios::binary);
    ASSERT_TRUE(in) << "cannot read " << exchange.path();
    std::ostringstream buffer;
    buffer << in.rdbuf();
    contents = std::move(buffer).str();
  }

  std::vector<std::string_view> lines = split(contents, '\n');
  ASSERT_GE(lines.size(), 2U) << "the oracle wrote nothing";
  ASSERT_TRUE(lines.back().empty()) << "the oracle's output does not end with a newline";
  lines.pop_back();
  const std::string_view end_line = lines.back();
  lines.pop_back();
  ASSERT_EQ(end_line, "END " + std::to_string(lines.size()))
      << "the oracle's output is cut short or garbled";

  const char* const form_names[] = {"str", "repr", "json payload"};
  std::size_t compared = 0;
  std::size_t mismatches = 0;
  std::string report;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    const std::vector<std::string_view> fields = split(lines[index], '\t');
    ASSERT_EQ(fields.size(), 4U) << "line " << index + 1 << " does not have four fields";
    Any value;
    std::string expected[3];
    try {
      Tokens tokens(fields[0]);
      value = parse_value(tokens, 0);
      if (!tokens.done()) throw ParseError("tokens left over after the value");
      for (std::size_t form = 0; form < 3; ++form) expected[form] = from_hex(fields[form + 1]);
    } catch (const ParseError& e) {
      FAIL() << "cannot parse line " << index + 1 << " of the oracle's output: " << e.what();
    }

    std::string got[3];
    std::string error;
    try {
      got[0] = value.str();
      got[1] = value.repr();
      got[2] = orvo_generation::reference_formatter::reference_payload(got[0]);
    } catch (const std::exception& e) {
      error = e.what();
    }
    ++compared;

    std::vector<std::size_t> differing;
    for (std::size_t form = 0; form < 3; ++form) {
      if (!error.empty() || got[form] != expected[form]) differing.push_back(form);
    }
    if (differing.empty()) continue;
    if (++mismatches > kReportedMismatches) continue;
    std::ostringstream entry;
    entry << "value #" << index << " (" << escaped(fields[0].substr(0, 200))
          << (fields[0].size() > 200 ? " ..." : "") << ")\n    ";
    if (!error.empty()) {
      entry << "threw: " << error << "\n";
    } else {
      entry << "differs in";
      for (const std::size_t form : differing) entry << ' ' << form_names[form] << ';';
      entry << " " << form_names[differing.front()] << ": "
            << describe_difference(expected[differing.front()], got[differing.front()]) << "\n";
    }
    report += entry.str();
  }

  EXPECT_EQ(mismatches, 0U) << mismatches << " of " << compared
                            << " values differ from python3 (seed " << seed_text
                            << "); the first ones:\n"
                            << report;
  EXPECT_GE(compared, kRandomValues);
}

}  // namespace
