#pragma once

#include <ostream>

#include "orvo_core/event/event_handler.hpp"

namespace orvo_core {

/// Shows events to a person: response text as it streams, reference events as their text, and
/// (when asked) status messages on a separate stream. Colour is used only on a terminal.
class ConsoleHandler : public EventHandler {
 public:
  /// When to colour the output.
  enum class Color { automatic, always, never };

  /// Writes responses and references to `out` and status messages to `status_out` (both must
  /// outlive the handler); status messages are shown only when `show_status`.
  explicit ConsoleHandler(std::ostream& out, std::ostream& status_out, bool show_status = false,
                          Color color = Color::automatic);

  Awaitable<void> handle(Event event) override;

  /// Ends a response line left open by streamed text, so that what follows starts on its own.
  void finish_line();

 private:
  std::ostream& out_;
  std::ostream& status_out_;
  bool show_status_;
  bool color_out_;
  bool color_status_;
  bool mid_line_ = false;
};

}  // namespace orvo_core
