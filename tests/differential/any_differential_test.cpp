// Compares the text form, the quoted form and the reference-event JSON of generated values with
// what python3 itself produces for the same values (see any_oracle.py for the exchange format).

#include <sys/wait.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/any.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace {

using orvo_core::Any;

constexpr std::size_t kRandomValues = 10000;
constexpr std::size_t kReportedMismatches = 5;
constexpr std::size_t kMaxDepth = 32;  // The oracle nests a few levels; deeper means garbled.

struct ParseError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

template <class T>
T number(std::string_view digits, int base = 10) {
  T value{};
  const char* end = digits.data() + digits.size();
  const auto [ptr, ec] = std::from_chars(digits.data(), end, value, base);
  if (digits.empty() || ec != std::errc() || ptr != end) {
    throw ParseError("bad number '" + std::string(digits) + "'");
  }
  return value;
}

std::string from_hex(std::string_view hex) {
  if (hex.size() % 2 != 0) throw ParseError("odd-length hex field");
  std::string out;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    out.push_back(static_cast<char>(number<unsigned>(hex.substr(i, 2), 16)));
  }
  return out;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// Builds the value of the tokens from `*next` on, in prefix order.
Any parse_value(const std::vector<std::string_view>& tokens, std::size_t* next,
                std::size_t depth = 0) {
  if (depth > kMaxDepth) throw ParseError("nesting too deep");
  if (*next >= tokens.size() || tokens[*next].empty()) throw ParseError("value ends early");
  const std::string_view token = tokens[(*next)++];
  const std::string_view body = token.substr(1);
  switch (token.front()) {
    case 'N':
      return Any();
    case 'T':
    case 'F':
      return Any(token.front() == 'T');
    case 'I':
      return Any(number<std::int64_t>(body));
    case 'D':
      if (body.size() != 16) throw ParseError("float token needs 16 hex digits");
      return Any(std::bit_cast<double>(number<std::uint64_t>(body, 16)));
    case 'S':
      return Any(from_hex(body));
    case 'L': {
      orvo_core::List list;
      for (auto n = number<std::size_t>(body); n > 0; --n) {
        list.push_back(parse_value(tokens, next, depth + 1));
      }
      return Any(std::move(list));
    }
    case 'M': {
      orvo_core::Map map;
      for (auto n = number<std::size_t>(body); n > 0; --n) {
        const Any key = parse_value(tokens, next, depth + 1);
        if (!key.is_string()) throw ParseError("map key is not a string token");
        map.insert_or_assign(key.as_string(), parse_value(tokens, next, depth + 1));
      }
      return Any(std::move(map));
    }
    default:
      throw ParseError("unknown token '" + std::string(token) + "'");
  }
}

// Bytes with everything outside printable ASCII as \xHH, so a report shows exactly what differs.
std::string escaped(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    constexpr char kHex[] = "0123456789abcdef";
    out += b >= 0x20 && b < 0x7F && b != '\\' ? std::string(1, c)
                                              : std::string{'\\', 'x', kHex[b >> 4], kHex[b & 15]};
  }
  return out;
}

// Some expected texts are megabytes long: show where they part and a little on either side.
std::string describe_difference(std::string_view expected, std::string_view got) {
  const auto at = static_cast<std::size_t>(
      std::mismatch(expected.begin(), expected.end(), got.begin(), got.end()).first -
      expected.begin());
  const std::size_t from = at > 40 ? at - 40 : 0;
  return "first difference at byte " + std::to_string(at) + " (expected " +
         std::to_string(expected.size()) + " bytes, got " + std::to_string(got.size()) +
         "), from byte " + std::to_string(from) +
         ":\n      expected: " + escaped(expected.substr(from, at - from + 60)) +
         "\n      got:      " + escaped(got.substr(std::min(from, got.size()), at - from + 60));
}

// ORVO_DIFFERENTIAL_SEED picks other values than the default ones.
std::string seed() {
  const char* from_env = std::getenv("ORVO_DIFFERENTIAL_SEED");
  const std::string s = from_env != nullptr && *from_env != '\0' ? from_env : "20240611";
  // It goes into a shell command.
  if (s.find_first_not_of("0123456789") != std::string::npos) {
    throw std::invalid_argument("ORVO_DIFFERENTIAL_SEED must be a decimal number, got " + s);
  }
  return s;
}

TEST(any_differential, matches_host_str_repr_and_json) {
  const std::string seed_text = seed();
  std::string script = ORVO_ORACLE_SCRIPT;
  for (std::size_t at = 0; (at = script.find('\'', at)) != std::string::npos; at += 4) {
    script.replace(at, 1, "'\\''");
  }
  const std::string command =
      "python3 '" + script + "' --seed " + seed_text + " --count " + std::to_string(kRandomValues);
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr) << "could not start a shell to run: " << command;
  std::string contents;
  char buffer[1 << 16];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    contents.append(buffer, n);
  const int status = ::pclose(pipe);
  ASSERT_TRUE(WIFEXITED(status)) << "the oracle was killed (wait status " << status
                                 << "): " << command;
  ASSERT_NE(WEXITSTATUS(status), 127)
      << "python3 is not on PATH; this test needs a Python 3.11 python3 to compare against";
  ASSERT_EQ(WEXITSTATUS(status), 0)
      << "the oracle failed (its message is on stderr above): " << command;

  std::vector<std::string_view> lines = split(contents, '\n');
  ASSERT_GE(lines.size(), 2U) << "the oracle wrote nothing";
  ASSERT_TRUE(lines.back().empty()) << "the oracle's output does not end with a newline";
  lines.pop_back();
  const std::string_view end_line = lines.back();
  lines.pop_back();
  ASSERT_EQ(end_line, "END " + std::to_string(lines.size()))
      << "the oracle's output is cut short or garbled";

  const char* const form_names[] = {"str", "repr", "json payload"};
  std::size_t mismatches = 0;
  std::string report;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    const std::vector<std::string_view> fields = split(lines[index], '\t');
    ASSERT_EQ(fields.size(), 4U) << "line " << index + 1 << " does not have four fields";
    Any value;
    std::string expected[3];
    try {
      const std::vector<std::string_view> tokens = split(fields[0], ' ');
      std::size_t next = 0;
      value = parse_value(tokens, &next);
      if (next != tokens.size()) throw ParseError("tokens left over after the value");
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
      error = "\n    threw: " + std::string(e.what());
    }
    for (std::size_t form = 0; form < 3 && error.empty(); ++form) {
      if (got[form] == expected[form]) continue;
      error += std::string("\n    ") + form_names[form] +
               " differs: " + describe_difference(expected[form], got[form]);
    }
    if (!error.empty() && ++mismatches <= kReportedMismatches) {
      report += "value #" + std::to_string(index) + " (" + escaped(fields[0].substr(0, 200)) +
                (fields[0].size() > 200 ? " ..." : "") + ")" + error + "\n";
    }
  }

  EXPECT_EQ(mismatches, 0U) << mismatches << " of " << lines.size()
                            << " values differ from python3 (seed " << seed_text
                            << "); the first ones:\n"
                            << report;
  EXPECT_GE(lines.size(), kRandomValues);
}

}  // namespace
