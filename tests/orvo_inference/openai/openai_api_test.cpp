#include "orvo_inference/openai/openai_api.hpp"

#include <chrono>

#include <gtest/gtest.h>

#include "orvo_inference/errors.hpp"

namespace {

namespace openai = orvo_inference::openai;

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
