#include "orvo_inference/request_processor/lm_request_processor.hpp"

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_inference/errors.hpp"
#include "orvo_inference/output_parser/json_output_parser.hpp"

namespace {

using orvo_core::Any;
using orvo_inference::ChatMessage;

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
  map->emplace("context", "C");
  return map;
}

TEST(lm_request_processor, formats_invokes_and_parses) {
  const auto invoker = std::make_shared<ScriptedInvoker>("```json\n{\"file_name\": [\"a\"]}\n```");
  orvo_inference::LMRequestProcessor processor(
      orvo_inference::PromptTemplate("Judge {context}", "{response}"), invoker,
      std::make_shared<orvo_inference::JsonOutputParser>());
  const auto emitter = std::make_shared<orvo_core::EventEmitter>();
  const Any result = orvo_core::run_sync(processor.process(prompt_variables(), Any(), emitter));
  EXPECT_EQ(result.str(), "{'file_name': ['a']}");
  ASSERT_EQ(invoker->sent.size(), 2U);
  EXPECT_EQ(invoker->sent[0].content, Any("Judge C"));
  EXPECT_EQ(invoker->sent[1].content, Any("R"));
  EXPECT_EQ(invoker->emitter, emitter);
}

TEST(lm_request_processor, without_a_parser_the_text_is_the_result) {
  const auto invoker = std::make_shared<ScriptedInvoker>("plain");
  orvo_inference::LMRequestProcessor processor(orvo_inference::PromptTemplate("", "{response}"),
                                               invoker);
  EXPECT_EQ(orvo_core::run_sync(processor.process(prompt_variables())), Any("plain"));
  orvo_inference::LMRequestProcessor needs_query(orvo_inference::PromptTemplate("", "{query}"),
                                                 invoker);
  EXPECT_THROW((void)orvo_core::run_sync(needs_query.process(prompt_variables())),
               orvo_core::ValueError);
  orvo_inference::LMRequestProcessor judging(orvo_inference::PromptTemplate("", "{response}"),
                                             invoker,
                                             std::make_shared<orvo_inference::JsonOutputParser>());
  EXPECT_THROW((void)orvo_core::run_sync(judging.process(prompt_variables())),
               orvo_inference::OutputParserError);
}

}  // namespace
