#include "options.hpp"

#include <gtest/gtest.h>

namespace {

using orvo_cli::AskOptions;

AskOptions parse(std::vector<std::string_view> args) {
  return orvo_cli::parse_ask_options(args);
}

TEST(options, defaults_and_every_option) {
  const AskOptions defaults = parse({"--docs", "d", "Why?"});
  EXPECT_EQ(defaults.docs, "d");
  EXPECT_EQ(defaults.question, "Why?");
  EXPECT_TRUE(defaults.url.empty());
  EXPECT_EQ(defaults.top_k, 4U);
  EXPECT_FALSE(defaults.threshold.has_value());

  const AskOptions all = parse({"Why?",        "--docs",        "d",         "--url",
                                "http://h/v1", "--chat-model",  "c",         "--embedding-model",
                                "e",           "--api-key-env", "K",         "--synthesizer",
                                "static-list", "--references",  "lm",        "--threshold",
                                "0.25",        "--batch-size",  "3",         "--top-k",
                                "7",           "--chunk-size",  "500",       "--timeout",
                                "1.5",         "--json",        "--verbose", "--no-color"});
  EXPECT_EQ(all.url, "http://h/v1");
  EXPECT_EQ(all.chat_model, "c");
  EXPECT_EQ(all.embedding_model, "e");
  EXPECT_EQ(all.api_key_env, "K");
  EXPECT_EQ(all.synthesizer, AskOptions::Synthesizer::static_list);
  EXPECT_EQ(all.references, AskOptions::References::lm);
  EXPECT_EQ(all.threshold, 0.25);
  EXPECT_EQ(all.batch_size, 3);
  EXPECT_EQ(all.top_k, 7U);
  EXPECT_EQ(all.chunk_size, 500U);
  EXPECT_EQ(all.timeout.count(), 1500);
  EXPECT_TRUE(all.json && all.verbose && !all.color);
  const AskOptions net = parse({"--docs", "d", "q", "--connect-timeout", "0.0001"});
  EXPECT_EQ(net.connect_timeout.count(), 1) << "rounded up, never to zero";
}

TEST(options, bad_command_lines_say_what_is_wrong) {
  const struct {
    std::vector<std::string_view> args;
    const char* message;
  } cases[] = {
      {{"Why?"}, "--docs PATH is required"},
      {{"--docs", "d"}, "a question is required"},
      {{"--docs", "d", "  "}, "a question is required"},
      {{"--docs"}, "--docs needs a value"},
      {{"--docs", "d", "a", "b"}, "give the question as one argument (quote it)"},
      {{"--docs", "d", "--top-k", "x", "q"}, "--top-k expects a number, got 'x'"},
      {{"--docs", "d", "--top-k", "0", "q"}, "--top-k must be at least 1"},
      {{"--docs", "d", "--synthesizer", "map", "q"},
       "--synthesizer is stuff or static-list, not 'map'"},
      {{"--docs", "d", "--frobnicate", "q"}, "unknown option --frobnicate"},
      {{"--docs", "d", "--timeout", "abc", "q"}, "--timeout expects a number, got 'abc'"},
  };
  for (const auto& c : cases) {
    try {
      (void)parse(c.args);
      ADD_FAILURE() << c.message;
    } catch (const orvo_cli::UsageError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

}  // namespace
