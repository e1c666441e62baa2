// In a file of its own: built inside the ask coroutine, g++ 12 at -O1 took that coroutine's frame
// deallocation for a mismatched one (-Wmismatched-new-delete).
#include "escaping_handler.hpp"

#include "orvo_core/text.hpp"

namespace orvo_cli {
namespace {

class EscapingHandler : public orvo_core::EventHandler {
 public:
  explicit EscapingHandler(std::shared_ptr<orvo_core::EventHandler> inner)
      : inner_(std::move(inner)) {}
  orvo_core::Awaitable<void> handle(orvo_core::Event event) override {
    event.value = orvo_core::text::escape_controls(event.value, true);
    co_await inner_->handle(std::move(event));
  }

 private:
  std::shared_ptr<orvo_core::EventHandler> inner_;
};

}  // namespace

std::shared_ptr<orvo_core::EventHandler> escaping_handler(
    std::shared_ptr<orvo_core::EventHandler> inner) {
  return std::make_shared<EscapingHandler>(std::move(inner));
}

}  // namespace orvo_cli
