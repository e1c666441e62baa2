#include "orvo_inference/request_processor/lm_request_processor.hpp"

#include <gtest/gtest.h>

#include "orvo_inference/output_parser/json_output_parser.hpp"
#include "support/recording_emitter.hpp"

namespace {

using orvo_core::Any;
using orvo_inference::ChatMessage;
using orvo_inference::LMRequestProcessor;
using orvo_inference::PromptTemplate;

// Replies with a fixed text and records what it was sent.
struct ScriptedInvoker : orvo_inference::BaseLMInvoker {
  explicit ScriptedInvoker(std::string text) : reply(std::move(text)) {}
  orvo_core::Awaitable<std::string> invoke(
      std::vector<ChatMessage> messages,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter) override {
    sent = std::move(messages);
    emitter = std::move(event_emitter);
    co_return reply;
  }
  std::string reply;
  std::vector<ChatMessage> sent;
  std::shared_ptr<orvo_core::EventEmitter> emitter;
};

std::shared_ptr<orvo_core::Map> prompt_variables() {
  return std::make_shared<orvo_core::Map>(
      orvo_core::Map{{"response", "R"}, {"context", "aaaa\n\nbbbbbbbb\n\ncccc"}});
}

// Without a parser the reply's text is the result. A context budget caps the context the model
// is sent, not the caller's variable, and says what it left out.
TEST(lm_request_processor, formats_invokes_and_parses) {
  const std::string reply = "```json\n{\"file_name\": [\"a\"]}\n```";
  const auto invoker = std::make_shared<ScriptedInvoker>(reply);
  LMRequestProcessor judging(PromptTemplate("Judge {context}", "{response}"), invoker,
                             std::make_shared<orvo_inference::JsonOutputParser>());
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  EXPECT_EQ(orvo_core::run_sync(judging.process(prompt_variables(), Any(), emitter)).str(),
            "{'file_name': ['a']}");
  ASSERT_EQ(invoker->sent.size(), 2U);
  EXPECT_EQ(invoker->sent[0].content, Any("Judge aaaa\n\nbbbbbbbb\n\ncccc"));
  EXPECT_EQ(invoker->sent[1].content, Any("R"));
  EXPECT_EQ(invoker->emitter, emitter);

  LMRequestProcessor plain(PromptTemplate("{context}", "{response}"), invoker);
  plain.prompt.context_budget = orvo_inference::ContextBudget(4);
  const auto variables = prompt_variables();
  EXPECT_EQ(orvo_core::run_sync(plain.process(variables, Any(), emitter)), Any(reply));
  EXPECT_EQ(invoker->sent[0].content, Any("aaaa\n\nbbbbbbbb"));
  EXPECT_EQ(orvo_core::get(*variables, "context"), Any("aaaa\n\nbbbbbbbb\n\ncccc"));
  EXPECT_EQ(emitter->values(),
            std::vector<std::string>{
                R"({"data_type": "context_budget", "data_value": {"variable": "context", )"
                R"("budget": 4, "tokens": 4, "pieces": 3, "truncated": null, "dropped": [2]}})"});
}

}  // namespace
