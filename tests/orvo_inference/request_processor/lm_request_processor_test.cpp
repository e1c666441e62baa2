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
class ScriptedInvoker : public orvo_inference::BaseLMInvoker {
 public:
  explicit ScriptedInvoker(std::string reply) : reply_(std::move(reply)) {}
  orvo_core::Awaitable<std::string> invoke(
      std::vector<ChatMessage> messages,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter) override {
    sent = std::move(messages);
    emitter = std::move(event_emitter);
    co_return reply_;
  }
  std::vector<ChatMessage> sent;
  std::shared_ptr<orvo_core::EventEmitter> emitter;

 private:
  std::string reply_;
};

std::shared_ptr<orvo_core::Map> prompt_variables() {
  auto map = std::make_shared<orvo_core::Map>();
  map->emplace("response", "R");
  map->emplace("context", "aaaa\n\nbbbbbbbb\n\ncccc");
  return map;
}

// Without a parser the reply's text is the result.
TEST(lm_request_processor, formats_invokes_and_parses) {
  const std::string reply = "```json\n{\"file_name\": [\"a\"]}\n```";
  const auto invoker = std::make_shared<ScriptedInvoker>(reply);
  LMRequestProcessor judging(PromptTemplate("Judge {context}", "{response}"), invoker,
                             std::make_shared<orvo_inference::JsonOutputParser>());
  const auto emitter = std::make_shared<orvo_core::EventEmitter>();
  EXPECT_EQ(orvo_core::run_sync(judging.process(prompt_variables(), Any(), emitter)).str(),
            "{'file_name': ['a']}");
  ASSERT_EQ(invoker->sent.size(), 2U);
  EXPECT_EQ(invoker->sent[0].content, Any("Judge aaaa\n\nbbbbbbbb\n\ncccc"));
  EXPECT_EQ(invoker->sent[1].content, Any("R"));
  EXPECT_EQ(invoker->emitter, emitter);
  LMRequestProcessor plain(PromptTemplate("", "{response}"), invoker);
  EXPECT_EQ(orvo_core::run_sync(plain.process(prompt_variables())), Any(reply));
}

TEST(lm_request_processor, a_context_budget_caps_the_context_and_says_what_it_left_out) {
  const auto invoker = std::make_shared<ScriptedInvoker>("ok");
  LMRequestProcessor processor(PromptTemplate("{context}", ""), invoker);
  processor.prompt.context_budget = orvo_inference::ContextBudget(4);
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  const auto variables = prompt_variables();
  (void)orvo_core::run_sync(processor.process(variables, Any(), emitter));
  EXPECT_EQ(invoker->sent[0].content, Any("aaaa\n\nbbbbbbbb"));
  EXPECT_EQ(orvo_core::get(*variables, "context"), Any("aaaa\n\nbbbbbbbb\n\ncccc"));
  EXPECT_EQ(emitter->values(),
            std::vector<std::string>{
                R"({"data_type": "context_budget", "data_value": {"variable": "context", )"
                R"("budget": 4, "tokens": 4, "pieces": 3, "truncated": null, "dropped": [2]}})"});
}

}  // namespace
