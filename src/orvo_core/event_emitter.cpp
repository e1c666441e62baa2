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

namespace {

// A value given as the emitter that is none: the type is not checked up front, so the error
// comes where an event would be emitted, and a call that emits nothing succeeds.
class NotAnEmitter final : public EventEmitter {
 public:
  explicit NotAnEmitter(std::string type) : type_(std::move(type)) {}
  Awaitable<void> emit(std::string /*value*/, EventLevel /*level*/, EventType /*type*/) override {
    throw TypeError("'" + type_ + "' object has no attribute 'emit'");
    co_return;
  }
  [[nodiscard]] std::string type_name() const override { return type_; }

 private:
  std::string type_;
};

}  // namespace

std::shared_ptr<EventEmitter> event_emitter_argument(const Map& kwargs) {
  const Any value = get(kwargs, "event_emitter");
  if (auto emitter = value.as<EventEmitter>()) return emitter;
  if (!value.truthy()) return nullptr;
  return std::make_shared<NotAnEmitter>(value.type_name());
}

}  // namespace orvo_core
