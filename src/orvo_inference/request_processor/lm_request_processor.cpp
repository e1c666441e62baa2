#include "orvo_inference/request_processor/lm_request_processor.hpp"

#include <utility>

#include "orvo_core/errors.hpp"

namespace orvo_inference {

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
  std::vector<ChatMessage> messages =
      prompt.format(prompt_kwargs ? *prompt_kwargs : no_variables, history,
                    system_multimodal_contents, user_multimodal_contents);
  std::string text = co_await lm_invoker->invoke(std::move(messages), std::move(event_emitter));
  if (!output_parser) co_return orvo_core::Any(std::move(text));
  co_return output_parser->parse(text);
}

orvo_core::Awaitable<orvo_core::Any> LMRequestProcessor::process_variables(
    std::shared_ptr<orvo_core::Map> prompt_kwargs) {
  co_return co_await process(std::move(prompt_kwargs));
}

}  // namespace orvo_inference
