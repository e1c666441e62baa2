#include "orvo_inference/output_parser/json_output_parser.hpp"

#include <string>

#include <gtest/gtest.h>

#include "orvo_inference/errors.hpp"
#include "support/expect_throw_msg.hpp"

namespace {

// A fenced one goes through lm_request_processor's test.
TEST(json_output_parser, finds_the_object_alone_and_in_prose) {
  const orvo_inference::JsonOutputParser parser;
  for (const char* reply : {
           R"({"file_name": ["a.md"]})",
           "Sure! Here it is: {\"file_name\": [\"a.md\"]} Hope that helps.",
       }) {
    EXPECT_EQ(parser.parse(reply).str(), "{'file_name': ['a.md']}") << reply;
  }
}

// The error quotes the reply, cut short.
TEST(json_output_parser, anything_else_is_an_error_quoting_the_reply) {
  const orvo_inference::JsonOutputParser parser;
  for (const char* reply : {"", "no json here", "[1, 2]", "{broken", "```json\n[]\n```"}) {
    EXPECT_THROW((void)parser.parse(reply), orvo_inference::OutputParserError) << reply;
  }
  EXPECT_EQ(orvo_test::thrown_message<orvo_inference::OutputParserError>(
                [&parser] { (void)parser.parse("I think " + std::string(500, 'x')); }),
            "expected a JSON object in the model's reply, got 'I think " + std::string(112, 'x') +
                "...'");
}

}  // namespace
