#pragma once

#include <memory>

#include "orvo_core/event/event_handler.hpp"

namespace orvo_cli {

/// Wraps `inner` so that it sees event text with control characters escaped: model and document
/// text must not be able to drive the terminal.
[[nodiscard]] std::shared_ptr<orvo_core::EventHandler> escaping_handler(
    std::shared_ptr<orvo_core::EventHandler> inner);

}  // namespace orvo_cli
