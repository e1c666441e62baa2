#pragma once

#include <string>

#include "orvo_core/async.hpp"
#include "orvo_core/constants.hpp"
#include "orvo_core/object.hpp"

namespace orvo_core {

/// One event: its text, level and type.
struct Event {
  std::string value;
  EventLevel level = EventLevel::INFO;
  EventType type = EventType::STATUS;
};

/// Receives the events of an `EventEmitter`, one at a time and in order.
class EventHandler : public Object {
 public:
  /// Handles one event; the emitter awaits it before passing on the next.
  virtual Awaitable<void> handle(Event event) = 0;
};

}  // namespace orvo_core
