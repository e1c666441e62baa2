#include "orvo_generation/response_synthesizer/stuff_response_synthesizer.hpp"

#include <utility>

#include "orvo_core/errors.hpp"

namespace orvo_generation::response_synthesizer {

using orvo_core::Any;

StuffResponseSynthesizer::StuffResponseSynthesizer(
    std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor, bool streamable)
    : BaseResponseSynthesizer(streamable), lm_request_processor(std::move(lm_request_processor)) {}

orvo_core::Awaitable<Any> StuffResponseSynthesizer::synthesize_response(
    Any query, Any state_variables, Any history,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter, Any system_multimodal_contents,
    Any user_multimodal_contents) {
  std::shared_ptr<orvo_core::Map> prompt_kwargs;
  if (state_variables.truthy()) {
    if (!state_variables.is_map()) {
      throw orvo_core::TypeError("`state_variables` must be a dict, got " +
                                 state_variables.type_name());
    }
    prompt_kwargs = state_variables.map_ptr();
  } else {
    prompt_kwargs = std::make_shared<orvo_core::Map>();
  }
  if (query.truthy()) prompt_kwargs->insert_or_assign("query", std::move(query));
  co_return co_await lm_request_processor->process(
      std::move(prompt_kwargs), std::move(history), std::move(event_emitter),
      std::move(system_multimodal_contents), std::move(user_multimodal_contents));
}

}  // namespace orvo_generation::response_synthesizer
