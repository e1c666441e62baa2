#pragma once

#include <memory>
#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/constants.hpp"
#include "orvo_core/event/event_handler.hpp"
#include "orvo_core/object.hpp"

namespace orvo_core {

/// The sink of events that a host gives to a component invocation. The default `emit` passes
/// each event at or above `minimum_level` to every handler in turn; derive and override `emit` to
/// do something else.
class EventEmitter : public Object {
 public:
  /// An emitter with these handlers that drops events below `minimum_level`.
  explicit EventEmitter(std::vector<std::shared_ptr<EventHandler>> handlers = {},
                        EventLevel minimum_level = EventLevel::TRACE);

  /// Emits one event; completes when every handler has handled it.
  virtual Awaitable<void> emit(std::string value, EventLevel level, EventType type);

  std::vector<std::shared_ptr<EventHandler>> handlers;  ///< Called in this order.
  EventLevel minimum_level;                             ///< Events below this are dropped.
};

/// The emitter that an invocation's keyword arguments give under "event_emitter": null when the
/// key is missing or its value counts as false; any other value that is not an emitter stands
/// for one whose `emit` raises `TypeError`, so the error comes only where an event is emitted.
[[nodiscard]] std::shared_ptr<EventEmitter> event_emitter_argument(const Map& kwargs);

}  // namespace orvo_core
