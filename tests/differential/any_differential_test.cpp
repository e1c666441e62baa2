// The text form, the quoted form and the reference-event JSON of generated values, byte for byte
// against what python3 itself makes of the same values. This is the one test that pins those
// forms to the host's.
//
// any_oracle.py writes one value a line, as four tab-separated fields: the value's tokens, then
// the hex of the UTF-8 (surrogateescape) bytes of its str(), its repr() and its reference-event
// JSON. Tokens are separated by single spaces, in prefix order: N (None), T and F (booleans),
// I<decimal> (int), D<16 hex digits> (float, IEEE-754 bits), S<hex> (str, as its bytes: bytes
// that are not UTF-8 stand for the surrogateescape code points), L<n> (list, then its n elements)
// and M<n> (dict, then n key and value pairs, keys being S tokens). The last line is
// "END <number of values>", so that a cut-short output is noticed.

#include <sys/wait.h>

#include <algorithm>
#include <bit>
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

std::string from_hex(std::string_view hex) {
  std::string out;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
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

// The value of the tokens from `next` on.
Any parse_value(const std::vector<std::string_view>& tokens, std::size_t& next) {
  if (next >= tokens.size() || tokens[next].empty()) throw std::runtime_error("value ends early");
  const std::string_view token = tokens[next++];
  const std::string_view body = token.substr(1);
  switch (token.front()) {
    case 'N':
      return Any();
    case 'T':
    case 'F':
      return Any(token.front() == 'T');
    case 'I':
      return Any(std::int64_t{std::stoll(std::string(body))});
    case 'D':
      return Any(std::bit_cast<double>(std::uint64_t{std::stoull(std::string(body), nullptr, 16)}));
    case 'S':
      return Any(from_hex(body));
    case 'L': {
      orvo_core::List list;
      for (auto n = std::stoul(std::string(body)); n > 0; --n)
        list.push_back(parse_value(tokens, next));
      return Any(std::move(list));
    }
    case 'M': {
      orvo_core::Map map;
      for (auto n = std::stoul(std::string(body)); n > 0; --n) {
        const Any key = parse_value(tokens, next);
        map.insert_or_assign(key.as_string(), parse_value(tokens, next));
      }
      return Any(std::move(map));
    }
    default:
      throw std::runtime_error("unknown token '" + std::string(token) + "'");
  }
}

// The first 200 bytes from where two texts part, in their quoted form.
std::string difference(const std::string& expected, const std::string& got) {
  const auto at = static_cast<std::size_t>(
      std::mismatch(expected.begin(), expected.end(), got.begin(), got.end()).first -
      expected.begin());
  return "differs at byte " + std::to_string(at) + ": expected " +
         Any(expected.substr(at, 200)).repr() + ", got " + Any(got.substr(at, 200)).repr();
}

TEST(any_differential, matches_host_str_repr_and_json) {
  // Through the environment, the shell takes the path as it is, quotes and all.
  ::setenv("ORVO_ORACLE_SCRIPT", ORVO_ORACLE_SCRIPT, 1);
  const std::string command =
      "python3 \"$ORVO_ORACLE_SCRIPT\" 20240611 " + std::to_string(kRandomValues);
  FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr) << "could not start a shell to run: " << command;
  std::string contents;
  char buffer[1 << 16];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    contents.append(buffer, n);
  const int status = ::pclose(pipe);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the oracle failed (its message is on stderr above; 127: no python3 on PATH): " << command;

  std::vector<std::string_view> lines = split(contents, '\n');
  ASSERT_GE(lines.size(), 2U) << "the oracle wrote nothing";
  lines.pop_back();  // after the last newline
  ASSERT_EQ(lines.back(), "END " + std::to_string(lines.size() - 1)) << "the output is cut short";
  lines.pop_back();
  EXPECT_GE(lines.size(), kRandomValues);

  const char* const forms[] = {"str", "repr", "json payload"};
  std::size_t mismatches = 0;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    const std::vector<std::string_view> fields = split(lines[index], '\t');
    ASSERT_EQ(fields.size(), 4U) << "line " << index + 1;
    const std::vector<std::string_view> tokens = split(fields[0], ' ');
    std::size_t next = 0;
    const Any value = parse_value(tokens, next);
    ASSERT_EQ(next, tokens.size()) << "line " << index + 1;
    const std::string str = value.str();
    const std::string got[3] = {str, value.repr(),
                                orvo_generation::reference_formatter::reference_payload(str)};
    for (std::size_t form = 0; form < 3; ++form) {
      const std::string expected = from_hex(fields[form + 1]);
      if (got[form] != expected && ++mismatches <= 5) {
        ADD_FAILURE() << "value #" << index << " (" << fields[0].substr(0, 200)
                      << "): " << forms[form] << " " << difference(expected, got[form]);
      }
    }
  }
  EXPECT_EQ(mismatches, 0U) << "values differ from python3";
}

}  // namespace
