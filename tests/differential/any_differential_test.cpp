// The text form, the quoted form, the reference-event JSON and the JSON of generated values, byte
// for byte against what python3 itself makes of the same values. This is the one test that pins
// those forms to the host's; as JSON is also read back here, it holds floats to the shortest form
// that reads back bit for bit.
//
// any_oracle.py writes one value a line, as a JSON list of five: the value, then its str(), its
// repr(), its reference-event JSON and its JSON ("" where JSON has no form for it). In the value,
// strings carry a leading "s"; the untagged strings "nan", "inf" and "-inf" are the floats JSON
// has no numbers for. The last line is "END <number of values>", so that a cut-short output is
// noticed.

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/any.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace {

using orvo_core::Any;

constexpr std::size_t kRandomValues = 10000;

// The value that the oracle's tagged JSON value stands for; lists and maps change in place.
Any untagged(const Any& value) {
  if (value.is_list()) {
    for (Any& item : value.as_list()) item = untagged(item);
  } else if (value.is_map()) {
    for (auto it = value.as_map().begin(); it != value.as_map().end(); ++it) {
      it.value() = untagged(it->second);
    }
  } else if (value.is_string()) {
    const std::string& text = value.as_string();
    return text.starts_with('s') ? Any(text.substr(1)) : Any(std::strtod(text.c_str(), nullptr));
  }
  return value;
}

// The JSON of a value, or "" where JSON has no form for it.
std::string json_or_empty(const Any& value) {
  try {
    return orvo_core::to_json(value);
  } catch (const orvo_core::ValueError&) {
    return "";
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

  std::istringstream lines(contents);
  std::size_t count = 0;
  std::size_t mismatches = 0;
  const char* const forms[] = {"str", "repr", "reference payload", "json"};
  for (std::string line; std::getline(lines, line) && !line.starts_with("END "); ++count) {
    const Any fields = orvo_core::parse_json(line);
    ASSERT_EQ(fields.as_list().size(), 5U) << "line " << count + 1;
    const Any value = untagged(fields.as_list()[0]);
    const std::string str = value.str();
    const std::string got[] = {str, value.repr(),
                               orvo_generation::reference_formatter::reference_payload(str),
                               json_or_empty(value)};
    for (std::size_t form = 0; form < std::size(got); ++form) {
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
