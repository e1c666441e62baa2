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
using orvo_inference::PromptRole;
using orvo_test::chat_delta;
using orvo_test::LoopbackServer;
using orvo_test::Reply;
using Clock = std::chrono::steady_clock;

std::string chat_reply(const std::string& text) {
  return R"({"choices": [{"index": 0, "message": {"role": "assistant", "content": )" +
         orvo_core::to_json(Any(text)) + "}}]}";
}

// With an emitter each delta is emitted as it arrives, and a server that ignores streaming still
// answers: even a large reply, which arrives in many pieces, is collected rather than scanned as
// events; without one the reply is asked for whole. The caller's parameters go along, but the call
// decides whether the reply streams. Servers echo the request; their text must not show the key
// nor drive a terminal either.
TEST(openai_lm_invoker, each_reply_ends_in_its_text_or_its_own_error) {
  const std::string large = "Whole" + std::string(std::size_t{3} << 19, '.');  // 1.5 MB
  const struct {
    Reply reply;
    std::string result;  // The text, or the start of the error.
    std::vector<std::string> emitted{};
    bool stream = true;  // Called with an emitter.
  } cases[] = {
      {Reply::stream({"data: {\"choices\": [{\"delta\": {\"role\": \"assistant\"}}]}\n\n",
                      chat_delta("The"), chat_delta(" moon"), chat_delta("."),
                      "data: {\"choices\": [], \"usage\": {}}\n\ndata: [DONE]\n\n"},
                     60ms),
       "The moon.",
       {"The", " moon", "."}},
      {Reply::json(chat_reply("The moon.")), "The moon.", {}, false},
      {Reply::json(chat_reply(large)), large, {large}},
      {Reply::json(R"({"choices": []})"),
       "MalformedReplyError: the chat reply has no choices[0].message.content"},
      {Reply::stream({"data: {\"error\": {\"message\": \"overloaded\"}}\n\n"}, 0ms),
       "HttpStatusError: the server answered HTTP 200: overloaded"},
      {Reply::json(R"({"error": {"message": "model m1 not found", "type": "x"}})", 404),
       "HttpStatusError: the server answered HTTP 404: model m1 not found"},
      {Reply::json(R"({"message": "nope"})", 404),
       "HttpStatusError: the server answered HTTP 404: nope"},
      {Reply::json(R"({"error": "bad key Bearer sk-secret \u001b]0;pwned\u0007"})", 401),
       "HttpStatusError: the server answered HTTP 401: bad key Bearer [redacted] "
       "\\x1b]0;pwned\\x07"},
      {Reply::json("", 301, "Location: https://api.example/v1?k=sk-secret\r\n"),
       "HttpStatusError: the server answered HTTP 301 and redirects to "
       "https://api.example/v1?k=[redacted];"},
      {Reply::stream({chat_delta("Half")}, 0ms, "text/event-stream", false),
       "TruncatedReplyError: the reply stream ended before the server said it was complete",
       {"Half"}},
  };
  const std::vector<orvo_inference::ChatMessage> messages{{PromptRole::SYSTEM, Any("be brief")},
                                                          {PromptRole::USER, Any("why?")}};
  for (const auto& c : cases) {
    LoopbackServer server([&c](const auto&) { return c.reply; });
    orvo_inference::OpenAILMInvoker invoker("m1", server.url() + "/v1/", "sk-secret",
                                            {{"temperature", 0.0}, {"stream", "overridden"}});
    const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
    Clock::time_point first_event;
    emitter->on_emit = [&first_event](const orvo_core::Event&) {
      if (first_event == Clock::time_point{}) first_event = Clock::now();
    };
    std::string text;
    const std::string error = orvo_test::error_of([&] {
      text = orvo_core::run_sync(invoker.invoke(messages, c.stream ? emitter : nullptr));
    });
    const std::string result = error == "none" ? text : error;
    SCOPED_TRACE(c.result.substr(0, 80));
    EXPECT_TRUE(result.starts_with(c.result)) << result.substr(0, 200);
    EXPECT_EQ(result.find("sk-secret"), std::string::npos) << result;
    EXPECT_TRUE(emitter->values() == c.emitted);
    for (const auto& event : emitter->events) EXPECT_EQ(event.type, orvo_core::EventType::RESPONSE);
    if (c.reply.delay > 0ms) {
      EXPECT_GT(Clock::now() - first_event, 100ms) << "each as it arrived";
    }
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.target + " [" + request.header("Authorization") + "] " + request.body,
              R"(/v1/chat/completions [Bearer sk-secret] {"temperature": 0.0, "stream": )" +
                  std::string(c.stream ? "true" : "false") +
                  R"(, "model": "m1", "messages": [{"role": "system", "content": "be brief"}, )"
                  R"({"role": "user", "content": "why?"}]})");
  }
}

}  // namespace
