#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvo_core/event/event_emitter.hpp"
#include "support/async_fakes.hpp"
#include "support/live_counter.hpp"

namespace orvo_test {

/// An emitter that records every event; optionally fails on the n-th call of `emit` (from 0) or
/// waits a random delay in each call. It counts the calls that arrive while an earlier one is
/// still suspended: a caller that awaits each event in turn never makes one.
class RecordingEmitter : public orvo_core::EventEmitter, public LiveCounter<RecordingEmitter> {
 public:
  explicit RecordingEmitter(RandomDelay* delay = nullptr) : delay_(delay) {}

  orvo_core::Awaitable<void> emit(std::string value, orvo_core::EventLevel level,
                                  orvo_core::EventType type) override {
    if (fail_at && *fail_at == calls++) throw std::runtime_error("emit failed");
    if (emitting_) ++overlapping;
    emitting_ = true;
    if (delay_ != nullptr) co_await delay_->wait();
    emitting_ = false;
    orvo_core::Event event{std::move(value), level, type};
    if (on_emit) on_emit(event);
    events.push_back(std::move(event));
  }

  /// The values of the recorded events, in order.
  [[nodiscard]] std::vector<std::string> values() const {
    std::vector<std::string> out;
    for (const auto& event : events) out.push_back(event.value);
    return out;
  }

  std::vector<orvo_core::Event> events;
  std::function<void(const orvo_core::Event&)> on_emit;  ///< Called as each event arrives.
  std::optional<std::size_t> fail_at;
  std::size_t calls = 0;
  std::size_t overlapping = 0;  ///< Calls made while another was in progress.

 private:
  RandomDelay* delay_;
  bool emitting_ = false;
};

}  // namespace orvo_test
