#include "orvo_generation/response_synthesizer/response_synthesizer.hpp"

#include "orvo_core/errors.hpp"
#include "orvo_core/text.hpp"

namespace orvo_generation::response_synthesizer {

using orvo_core::Any;

BaseResponseSynthesizer::BaseResponseSynthesizer(bool streamable) : streamable(streamable) {}

orvo_core::Awaitable<Any> BaseResponseSynthesizer::_run(orvo_core::Kwargs kwargs) {
  Any query = orvo_core::get(kwargs, "query");
  // "variables" is the argument's former name; a present "state_variables" wins even when absent.
  const Any* state_variables_entry = orvo_core::find(kwargs, "state_variables");
  Any state_variables = state_variables_entry != nullptr ? *state_variables_entry
                                                         : orvo_core::get(kwargs, "variables");
  Any history = orvo_core::get(kwargs, "history");
  std::shared_ptr<orvo_core::EventEmitter> event_emitter =
      streamable ? orvo_core::event_emitter_argument(kwargs) : nullptr;
  Any system_multimodal_contents = orvo_core::get(kwargs, "system_multimodal_contents");
  Any user_multimodal_contents = orvo_core::get(kwargs, "user_multimodal_contents");
  co_return co_await synthesize_response(
      std::move(query), std::move(state_variables), std::move(history), std::move(event_emitter),
      std::move(system_multimodal_contents), std::move(user_multimodal_contents));
}

orvo_core::Awaitable<Any> BaseResponseSynthesizer::synthesize_response(
    Any /*query*/, Any /*state_variables*/, Any /*history*/,
    std::shared_ptr<orvo_core::EventEmitter> /*event_emitter*/, Any /*system_multimodal_contents*/,
    Any /*user_multimodal_contents*/) {
  throw orvo_core::NotImplementedError();
  co_return Any();
}

std::string BaseResponseSynthesizer::_format_input_event(const orvo_core::Map& input_dict) const {
  return "[Start " + orvo_core::text::quoted(type_name()) +
         "] Processing query: " + orvo_core::get(input_dict, "query").repr();
}

std::string BaseResponseSynthesizer::_format_output_event(const Any& output) const {
  return "[Finished " + orvo_core::text::quoted(type_name()) +
         "] Successfully synthesized response:\n" + output.repr();
}

}  // namespace orvo_generation::response_synthesizer
