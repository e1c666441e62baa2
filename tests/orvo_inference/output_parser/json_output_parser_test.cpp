#include "orvo_inference/output_parser/json_output_parser.hpp"

#include <string>

#include <gtest/gtest.h>

#include "support/expect_throw_msg.hpp"

namespace {

// The object is found in fences and prose; anything else is an error quoting the reply, cut short.
TEST(json_output_parser, finds_the_object_or_quotes_the_reply) {
  const orvo_inference::JsonOutputParser parser;
  const std::string object = "{'file_name': ['a.md']}";
  const std::string error = "OutputParserError: expected a JSON object in the model's reply, got ";
  const struct {
    std::string reply;
    std::string result;
  } cases[] = {
      {R"({"file_name": ["a.md"]})", object},
      {"```json\n{\"file_name\": [\"a.md\"]}\n```", object},
      {"Sure! Here it is: {\"file_name\": [\"a.md\"]} Hope that helps.", object},
      {"", error + "''"},
      {"[1, 2]", error + "'[1, 2]'"},
      {"{broken", error + "'{broken'"},
      {"```json\n[]\n```", error},
      {"I think " + std::string(500, 'x'), error + "'I think " + std::string(112, 'x') + "...'"},
  };
  for (const auto& c : cases) {
    std::string parsed;
    const std::string thrown = orvo_test::error_of([&] { parsed = parser.parse(c.reply).str(); });
    EXPECT_EQ(thrown == "none" ? parsed : thrown.substr(0, c.result.size()), c.result) << c.reply;
  }
}

}  // namespace
