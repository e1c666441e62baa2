#include "orvo_core/event/event_emitter.hpp"

namespace orvo_core {

EventEmitter::EventEmitter(std::vector<std::shared_ptr<EventHandler>> handlers, EventLevel minimum_level)
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

}  // namespace orvo_core
