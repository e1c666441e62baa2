#include "orvo_inference/openai/openai_api.hpp"

#include <chrono>

#include <gtest/gtest.h>

#include "orvo_core/json.hpp"
#include "orvo_inference/errors.hpp"

namespace {

namespace openai = orvo_inference::openai;
using orvo_core::Any;

TEST(openai_api, chat_request_carries_messages_stream_flag_and_parameters) {
  orvo_core::Map parameters;
  parameters.emplace("temperature", 0.0);
  parameters.emplace("stream", "overridden");
  const std::vector<orvo_inference::ChatMessage> messages{
      {orvo_inference::PromptRole::SYSTEM, Any("be brief")},
      {orvo_inference::PromptRole::USER, Any("why?")}};
  EXPECT_EQ(openai::chat_request_body("m1", messages, true, parameters),
            R"({"temperature": 0.0, "stream": true, "model": "m1", "messages": )"
            R"([{"role": "system", "content": "be brief"}, {"role": "user", "content": "why?"}]})");
}

TEST(openai_api, chat_replies_and_deltas) {
  EXPECT_EQ(openai::chat_reply_text(
                R"({"choices": [{"message": {"role": "assistant", "content": "Hi"}}]})"),
            "Hi");
  EXPECT_EQ(openai::chat_delta_text(R"({"choices": [{"delta": {"content": "lo"}}]})"), "lo");
  EXPECT_EQ(openai::chat_delta_text(R"({"choices": [{"delta": {"role": "assistant"}}]})"), "");
  EXPECT_EQ(openai::chat_delta_text(R"({"choices": [], "usage": {}})"), "");
  for (const char* bad :
       {R"({"choices": []})", R"({"choices": [{"message": {"content": null}}]})"}) {
    EXPECT_THROW((void)openai::chat_reply_text(bad), orvo_inference::MalformedReplyError) << bad;
  }
  EXPECT_THROW((void)openai::chat_delta_text(R"({"error": {"message": "overloaded"}})"),
               orvo_inference::HttpStatusError);
}

TEST(openai_api, error_messages_are_the_servers_own) {
  const struct {
    const char* body;
    const char* message;
  } cases[] = {
      {R"({"error": {"message": "model not found", "type": "x"}})",
       "the server answered HTTP 404: model not found"},
      {R"({"message": "nope"})", "the server answered HTTP 404: nope"},
      {"", "the server answered HTTP 404"},
  };
  for (const auto& c : cases) EXPECT_EQ(openai::error_message(404, c.body), c.message);
}

TEST(openai_api, embeddings_replies_that_do_not_fit_are_malformed) {
  for (const char* body : {
           R"({"data": [{"index": 0, "embedding": [1]}]})",
           R"({"data": [{"index": 0, "embedding": [1]}, {"index": 5, "embedding": [2]}]})",
           R"({"data": [{"index": 0, "embedding": [1]}, {"index": 1, "embedding": [2, 3]}]})",
           R"({"data": [{"index": 0, "embedding": [1]}, {"index": 1, "embedding": [-4e38]}]})",
       }) {
    std::vector<float> out;
    EXPECT_THROW((void)openai::append_embeddings(body, 2, out), orvo_inference::MalformedReplyError)
        << body;
  }
}

// The fuzz target model_replies checks that any cut of the bytes gives the same events.
TEST(openai_api, event_stream_parsing_reads_lines_fields_and_comments) {
  openai::EventStreamParser parser;
  std::vector<std::string> events;
  parser.feed(
      ": keep-alive\r\ndata: {\"a\":1}\r\n\r\nevent: x\ndata: one\ndata: two\n\ndata:[DONE]\n\n"
      "data: last\r",
      events);
  parser.finish(events);
  EXPECT_EQ(events, (std::vector<std::string>{"{\"a\":1}", "one\ntwo", "[DONE]", "last"}));
}

// Every byte is scanned once however the stream is cut: 4 MB in 1 KB pieces took 30 s when the
// pending line was scanned again on every piece. Past the limit, the line is malformed.
TEST(openai_api, event_stream_lines_cost_linear_time_and_have_a_limit) {
  const std::string stream = "data: " + std::string(std::size_t{4} << 20, 'x') + "\n\n";
  const auto parse = [&stream](std::size_t limit) {
    openai::EventStreamParser parser(limit);
    std::vector<std::string> events;
    for (std::size_t i = 0; i < stream.size(); i += 1024)
      parser.feed(stream.substr(i, 1024), events);
    return events.size();
  };
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(parse(std::size_t{8} << 20), 1U);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_THROW((void)parse(openai::EventStreamParser::kDefaultMaxLine),
               orvo_inference::MalformedReplyError);
}

}  // namespace
