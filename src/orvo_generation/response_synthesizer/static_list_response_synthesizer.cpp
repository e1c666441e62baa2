#include "orvo_generation/response_synthesizer/static_list_response_synthesizer.hpp"

#include <utility>

#include "orvo_core/constants.hpp"
#include "orvo_core/errors.hpp"

namespace orvo_generation::response_synthesizer {

using orvo_core::Any;

namespace {

constexpr const char* kContextListError =
    "The input state variables for response synthesizer must include a `context_list` key of "
    "type `list[str]`.";

// The strings under "context_list", checked element by element.
const orvo_core::List& context_list(const Any& state_variables) {
  if (!state_variables.is_map()) throw orvo_core::ValueError(kContextListError);
  const Any* value = orvo_core::find(state_variables.as_map(), "context_list");
  if (value == nullptr || !value->is_list()) throw orvo_core::ValueError(kContextListError);
  for (const Any& element : value->as_list()) {
    if (!element.is_string()) throw orvo_core::ValueError(kContextListError);
  }
  return value->as_list();
}

}  // namespace

StaticListResponseSynthesizer::StaticListResponseSynthesizer(std::string response_prefix,
                                                             std::string fallback_response,
                                                             std::string delimiter, bool streamable)
    : BaseResponseSynthesizer(streamable),
      preceding_line(std::move(response_prefix)),
      fallback_response(std::move(fallback_response)),
      delimiter(std::move(delimiter)) {}

orvo_core::Awaitable<Any> StaticListResponseSynthesizer::synthesize_response(
    Any /*query*/, Any state_variables, Any /*history*/,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter, Any /*system_multimodal_contents*/,
    Any /*user_multimodal_contents*/) {
  const orvo_core::List& items = context_list(state_variables);
  std::string response;
  if (items.empty()) {
    response = fallback_response;
  } else {
    response = preceding_line;
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (i != 0) response += delimiter;
      response += std::to_string(i + 1);
      response += ". ";
      response += items[i].as_string();
    }
  }
  if (event_emitter) {
    std::string value = response;
    co_await event_emitter->emit(std::move(value), orvo_core::EventLevel::INFO,
                                 orvo_core::EventType::RESPONSE);
  }
  co_return Any(std::move(response));
}

}  // namespace orvo_generation::response_synthesizer
