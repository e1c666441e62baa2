#include "orvo_core/schema/component.hpp"

#include <exception>

#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/text.hpp"

namespace orvo_core {

Awaitable<Any> Component::run(Kwargs kwargs) {
  const std::shared_ptr<EventEmitter> emitter = get(kwargs, "event_emitter").as<EventEmitter>();
  std::string start_message;
  std::exception_ptr hook_error;
  try {
    start_message = _format_input_event(kwargs);
  } catch (...) {
    hook_error = std::current_exception();
  }
  if (emitter && !hook_error) {
    co_await emitter->emit(std::move(start_message), EventLevel::INFO, EventType::STATUS);
  }
  Any result = co_await _run(std::move(kwargs));
  if (hook_error) std::rethrow_exception(hook_error);
  if (emitter) {
    std::string finish_message = _format_output_event(result);
    co_await emitter->emit(std::move(finish_message), EventLevel::INFO, EventType::STATUS);
  }
  co_return std::move(result);
}

std::string Component::_format_input_event(const Map& /*input_dict*/) const {
  return "[Start " + text::quoted(type_name()) + "] Processing input.";
}

std::string Component::_format_output_event(const Any& output) const {
  return "[Finished " + text::quoted(type_name()) + "] Completed:\n" + output.repr();
}

}  // namespace orvo_core
