#include "orvo_core/event/collecting_handler.hpp"

namespace orvo_core {

Awaitable<void> CollectingHandler::handle(Event event) {
  events.push_back(std::move(event));
  co_return;
}

}  // namespace orvo_core
