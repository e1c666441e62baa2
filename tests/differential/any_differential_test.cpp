// The text form, the quoted form and the reference-event JSON of generated values, byte for byte
// against what python3 itself makes of the same values. This is the one test that pins those
// forms to the host's.
//
// any_oracle.py writes one value a line, as a JSON list of four: the value, then its str(), its
// repr() and its reference-event JSON. In the value, strings carry a leading "s"; the untagged
// strings "nan", "inf" and "-inf" are the floats JSON has no numbers for. The last line is
// "END <number of values>", so that a cut-short output is noticed.

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/any.hpp"
#include "orvo_core/json.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace {

using orvo_core::Any;

constexpr std::size_t kRandomValues = 10000;

// The value that the oracle's tagged JSON value stands for.
Any untagged(const Any& value) {
  if (value.is_list()) {
    orvo_core::List list;
    for (const Any& item : value.as_list()) list.push_back(untagged(item));
    return Any(std::move(list));
  }
  if (value.is_map()) {
    orvo_core::Map map;
    for (const auto& [key, item] : value.as_map()) map.insert_or_assign(key, untagged(item));
    return Any(std::move(map));
  }
  if (!value.is_string()) return value;
  const std::string& text = value.as_string();
  return text.starts_with('s') ? Any(text.substr(1)) : Any(std::strtod(text.c_str(), nullptr));
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

  std::istringstream lines(contents);
  std::size_t count = 0;
  std::size_t mismatches = 0;
  const char* const forms[] = {"str", "repr", "json payload"};
  for (std::string line; std::getline(lines, line) && !line.starts_with("END "); ++count) {
    const Any fields = orvo_core::parse_json(line);
    ASSERT_EQ(fields.as_list().size(), 4U) << "line " << count + 1;
    const Any value = untagged(fields.as_list()[0]);
    const std::string str = value.str();
    const std::string got[3] = {str, value.repr(),
                                orvo_generation::reference_formatter::reference_payload(str)};
    for (std::size_t form = 0; form < 3; ++form) {
      const std::string& expected = fields.as_list()[form + 1].as_string();
      if (got[form] != expected && ++mismatches <= 5) {
        ADD_FAILURE() << "value #" << count << " (" << line.substr(0, 200) << "): " << forms[form]
                      << " " << difference(expected, got[form]);
      }
    }
  }
  ASSERT_TRUE(contents.ends_with("END " + std::to_string(count) + "\n"))
      << "the output is cut short";
  EXPECT_GE(count, kRandomValues);
  EXPECT_EQ(mismatches, 0U) << "values differ from python3";
}

}  // namespace
