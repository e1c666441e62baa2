#include "orvo_inference/lm_invoker/openai_lm_invoker.hpp"

#include <chrono>

#include <gtest/gtest.h>

#include "orvo_core/json.hpp"
#include "support/expect_throw_msg.hpp"
#include "support/loopback_server.hpp"
#include "support/recording_emitter.hpp"

namespace {

using namespace std::chrono_literals;
using orvo_core::Any;
using orvo_test::LoopbackServer;
using orvo_test::Reply;
using Clock = std::chrono::steady_clock;

const std::vector<orvo_inference::ChatMessage> kMessages{
    {orvo_inference::PromptRole::USER, Any("Why tides?")}};

std::string chat_reply(const std::string& text) {
  return R"({"choices": [{"index": 0, "message": {"role": "assistant", "content": )" +
         orvo_core::to_json(Any(text)) + "}}]}";
}

std::string delta(const std::string& text) {
  return "data: {\"choices\": [{\"delta\": {\"content\": " + orvo_core::to_json(Any(text)) +
         "}, \"finish_reason\": null}]}\n\n";
}

orvo_inference::OpenAILMInvoker invoker_for(const LoopbackServer& server, std::string key = "") {
  return {"m1", server.url() + "/v1/", std::move(key), orvo_core::Map{},
          orvo_inference::http::HttpClient::create({.read_timeout = 2s})};
}

// Without an emitter the reply comes whole; with one, each delta is emitted as it arrives.
TEST(openai_lm_invoker, replies_whole_or_streams_each_delta_as_it_arrives) {
  LoopbackServer server([](const orvo_test::RecordedRequest& request) {
    if (request.body.find(R"("stream": true)") == std::string::npos) {
      return Reply::json(chat_reply("The moon."));
    }
    return Reply::stream({"data: {\"choices\": [{\"delta\": {\"role\": \"assistant\"}}]}\n\n",
                          delta("The"), delta(" moon"), delta("."), "data: [DONE]\n\n"},
                         60ms);
  });
  auto with_key = invoker_for(server, "sk-test");
  EXPECT_EQ(orvo_core::run_sync(with_key.invoke(kMessages)), "The moon.");

  auto keyless = invoker_for(server);
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Clock::time_point first_event;
  emitter->on_emit = [&first_event](const orvo_core::Event&) {
    if (first_event == Clock::time_point{}) first_event = Clock::now();
  };
  EXPECT_EQ(orvo_core::run_sync(keyless.invoke(kMessages, emitter)), "The moon.");
  EXPECT_GT(Clock::now() - first_event, 100ms) << "tokens came as they arrived";
  EXPECT_EQ(emitter->values(), (std::vector<std::string>{"The", " moon", "."}));
  for (const auto& event : emitter->events) EXPECT_EQ(event.type, orvo_core::EventType::RESPONSE);

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].target, "/v1/chat/completions");
  EXPECT_EQ(requests[0].header("Authorization"), "Bearer sk-test");
  EXPECT_EQ(requests[1].header("Authorization"), "");
}

// Even a large one, which arrives in many pieces and is collected rather than scanned as events.
TEST(openai_lm_invoker, a_server_that_ignores_streaming_still_answers) {
  const std::string text = "Whole" + std::string(std::size_t{3} << 19, '.');  // 1.5 MB
  LoopbackServer server([&text](const auto&) { return Reply::json(chat_reply(text)); });
  auto invoker = invoker_for(server);
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  EXPECT_TRUE(orvo_core::run_sync(invoker.invoke(kMessages, emitter)) == text);
  EXPECT_TRUE(emitter->values() == std::vector<std::string>{text});
}

// Servers echo the request; their text must not show the key nor drive a terminal either.
TEST(openai_lm_invoker, failures_have_their_own_errors_and_never_show_the_key) {
  const struct {
    Reply reply;
    std::string error;  // A part of it.
  } cases[] = {
      {Reply::json(R"({"error": {"message": "model m1 not found"}})", 404),
       "HttpStatusError: the server answered HTTP 404: model m1 not found"},
      {Reply::json(R"({"error": "bad key Bearer sk-secret \u001b]0;pwned\u0007"})", 401),
       "HttpStatusError: the server answered HTTP 401: bad key Bearer [redacted] "
       "\\x1b]0;pwned\\x07"},
      {Reply::json("", 301, "Location: https://api.example/v1?k=sk-secret\r\n"),
       "HttpStatusError: the server answered HTTP 301 and redirects to "
       "https://api.example/v1?k=[redacted];"},
      {Reply::stream({delta("Half")}, 0ms, "text/event-stream", false),
       "TruncatedReplyError: the reply stream ended before the server said it was complete"},
  };
  for (const auto& c : cases) {
    LoopbackServer server([&c](const auto&) { return c.reply; });
    auto invoker = invoker_for(server, "sk-secret");
    const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
    const std::string error =
        orvo_test::error_of([&] { (void)orvo_core::run_sync(invoker.invoke(kMessages, emitter)); });
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    EXPECT_EQ(error.find("sk-secret"), std::string::npos) << error;
  }
}

}  // namespace
