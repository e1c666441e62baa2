#pragma once

#include <vector>

#include "orvo_core/event/event_handler.hpp"

namespace orvo_core {

/// Keeps every event it handles, in order, for programs and tests that look at them afterwards.
class CollectingHandler : public EventHandler {
 public:
  Awaitable<void> handle(Event event) override;

  std::vector<Event> events;  ///< The events handled so far.
};

}  // namespace orvo_core
