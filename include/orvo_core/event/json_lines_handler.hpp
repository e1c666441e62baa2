#pragma once

#include <ostream>

#include "orvo_core/event/event_handler.hpp"

namespace orvo_core {

/// Writes each event as one line of JSON, {"type": ..., "level": ..., "value": ...}, and flushes,
/// so that another program can read the events as they happen.
class JsonLinesHandler : public EventHandler {
 public:
  /// Writes to `out`, which must outlive the handler.
  explicit JsonLinesHandler(std::ostream& out);

  Awaitable<void> handle(Event event) override;

 private:
  std::ostream& out_;
};

}  // namespace orvo_core
