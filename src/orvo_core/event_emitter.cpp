#include "orvo_core/event/event_emitter.hpp"

#include "orvo_core/errors.hpp"

namespace orvo_core {

EventEmitter::EventEmitter(std::vector<std::shared_ptr<EventHandler>> handlers,
                           EventLevel minimum_level)
    : handlers(std::move(handlers)), minimum_level(minimum_level) {}

Awaitable<void> EventEmitter::emit(std::string value, EventLevel level, EventType type) {
  if (level < minimum_level) co_return;
  // A snapshot, so that a handler that changes the list does not disturb this event.
  const auto receivers = handlers;
  for (const auto& handler : receivers) {
    Event event{value, level, type};
    co_await handler->handle(std::move(event));
  }
}

std::shared_ptr<EventEmitter> event_emitter_argument(const Map& kwargs) {
  const Any value = get(kwargs, "event_emitter");
  auto emitter = value.as<EventEmitter>();
  // Components call `emit` on it, so anything given that is not an emitter is refused up front.
  if (!emitter && value.truthy()) {
    throw TypeError("`event_emitter` must be an EventEmitter, got " + value.type_name());
  }
  return emitter;
}

}  // namespace orvo_core
