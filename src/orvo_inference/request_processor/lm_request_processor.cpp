#include "orvo_inference/request_processor/lm_request_processor.hpp"

#include <utility>

#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"

namespace orvo_inference {

namespace {

std::string budget_payload(const std::string& variable, const BudgetReport& report) {
  orvo_core::List dropped(report.dropped.begin(), report.dropped.end());
  orvo_core::Map value;
  value.emplace("variable", variable);
  value.emplace("budget", report.budget);
  value.emplace("tokens", report.tokens);
  value.emplace("pieces", report.pieces);
  value.emplace("truncated",
                report.truncated ? orvo_core::Any(*report.truncated) : orvo_core::Any());
  value.emplace("dropped", std::move(dropped));
  orvo_core::Map payload;
  payload.emplace("data_type", "context_budget");
  payload.emplace("data_value", std::move(value));
  return orvo_core::to_json(payload);
}

}  // namespace

LMRequestProcessor::LMRequestProcessor(PromptTemplate prompt,
                                       std::shared_ptr<BaseLMInvoker> lm_invoker,
                                       std::shared_ptr<BaseOutputParser> output_parser)
    : prompt(std::move(prompt)),
      lm_invoker(std::move(lm_invoker)),
      output_parser(std::move(output_parser)) {}

orvo_core::Awaitable<orvo_core::Any> LMRequestProcessor::process(
    std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any history,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter,
    orvo_core::Any system_multimodal_contents, orvo_core::Any user_multimodal_contents) {
  if (!lm_invoker) throw orvo_core::NotImplementedError();
  const orvo_core::Map no_variables;
  BudgetReport report;
  std::vector<ChatMessage> messages =
      prompt.format(prompt_kwargs ? *prompt_kwargs : no_variables, history,
                    system_multimodal_contents, user_multimodal_contents, report);
  if (event_emitter && report.changed()) {
    std::string payload = budget_payload(prompt.context_budget->variable, report);
    co_await event_emitter->emit(std::move(payload), orvo_core::EventLevel::INFO,
                                 orvo_core::EventType::DATA);
  }
  std::string text = co_await lm_invoker->invoke(std::move(messages), std::move(event_emitter));
  if (!output_parser) co_return orvo_core::Any(std::move(text));
  co_return output_parser->parse(text);
}

orvo_core::Awaitable<orvo_core::Any> LMRequestProcessor::process_variables(
    std::shared_ptr<orvo_core::Map> prompt_kwargs) {
  co_return co_await process(std::move(prompt_kwargs));
}

}  // namespace orvo_inference
