#include "options.hpp"

#include <functional>
#include <tuple>

#include <gtest/gtest.h>

#include "support/expect_throw_msg.hpp"

namespace {

using orvo_cli::AskOptions;

AskOptions parse(std::vector<std::string_view> args,
                 const std::function<const char*(const char*)>& env = {}) {
  return orvo_cli::parse_ask_options(args, AskOptions::Command::ask, env);
}

// One option of each kind (text, choice, count, seconds, flag), --name=value, a question after
// --, and defaults from the environment that options beat; either side may stay offline while the
// other uses a server.
TEST(options, options_reach_their_fields_and_beat_the_environment) {
  const auto env = [](const char* name) -> const char* {
    const std::string_view n = name;
    if (n == "ORVO_BASE_URL") return "http://env/v1";
    if (n == "ORVO_CHAT_MODEL") return "env-chat";
    if (n == "ORVO_EMBEDDING_MODEL") return "env-embed";
    return n == "NO_COLOR" ? "1" : nullptr;
  };
  const AskOptions mixed =
      parse({"--top-k=3", "--docs=d", "--chat-model", "flag-chat", "--synthesizer", "static-list",
             "--timeout", "1.5", "--json", "--", "--what is -x?"},
            env);
  EXPECT_EQ(std::tuple(mixed.question, mixed.docs.string(), mixed.chat_model, mixed.embedding_model,
                       orvo_cli::embedding_endpoint(mixed)),
            std::tuple("--what is -x?", "d", "flag-chat", "env-embed", "http://env/v1"));
  EXPECT_EQ(std::tuple(mixed.top_k, mixed.timeout.count(), mixed.synthesizer, mixed.json,
                       mixed.color, orvo_cli::remote_chat(mixed)),
            std::tuple(3U, 1500, AskOptions::Synthesizer::static_list, true, false, true));
  EXPECT_EQ(parse({"--docs", "d", "q", "--connect-timeout", "0.0001"}).connect_timeout.count(), 1)
      << "rounded up, never to zero";

  const AskOptions embeddings_only = parse({"--docs", "d", "--embedding-url", "http://e/v1", "q"});
  EXPECT_FALSE(orvo_cli::remote_chat(embeddings_only));
  EXPECT_EQ(orvo_cli::embedding_endpoint(embeddings_only), "http://e/v1");
  const AskOptions chat_only =
      parse({"--docs", "d", "--url", "http://h/v1", "--embedding-model", "offline", "q"});
  EXPECT_TRUE(orvo_cli::remote_chat(chat_only));
  EXPECT_EQ(orvo_cli::embedding_endpoint(chat_only), "");
}

TEST(options, bad_command_lines_say_what_is_wrong) {
  const struct {
    std::vector<std::string_view> args;
    const char* message;
  } cases[] = {
      {{"Why?"}, "--docs PATH is required"},
      {{"--docs", "d", "  "}, "a question is required"},
      {{"--docs"}, "--docs needs a value"},
      {{"--docs", "d", "a", "b"}, "give the question as one argument (quote it)"},
      {{"--docs", "d", "--top-k", "x", "q"}, "--top-k expects a number, got 'x'"},
      {{"--docs", "d", "--top-k", "0", "q"}, "--top-k must be at least 1"},
      {{"--docs", "d", "--synthesizer", "map", "q"},
       "--synthesizer is stuff or static-list, not 'map'"},
      {{"--docs", "d", "--frobnicate", "q"}, "unknown option --frobnicate"},
      {{"--docs", "d", "--json=yes", "q"}, "--json takes no value"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(orvo_test::thrown_message<orvo_cli::UsageError>([&] { (void)parse(c.args); }),
              c.message);
  }
}

}  // namespace
