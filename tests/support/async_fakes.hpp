#pragma once

// Collaborators that answer later, on a timer, as remote services do: a coroutine that awaits
// them really suspends, and many invocations interleave on one event loop.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "orvo_core/async.hpp"
#include "orvo_core/embeddings.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "support/live_counter.hpp"

namespace orvo_test {

/// Completes after `delay` on the awaiting coroutine's executor. A zero delay still suspends:
/// the timer's completion goes through the event loop.
inline orvo_core::Awaitable<void> sleep_for(std::chrono::microseconds delay) {
  const auto executor = co_await boost::asio::this_coro::executor;
  boost::asio::steady_timer timer(executor, delay);
  co_await timer.async_wait(boost::asio::use_awaitable);
}

/// Delays drawn uniformly from [0, max] by a seeded generator.
class RandomDelay {
 public:
  RandomDelay(std::uint32_t seed, std::chrono::microseconds max)
      : rng_(seed), micros_(0, max.count()) {}

  [[nodiscard]] std::chrono::microseconds next() {
    return std::chrono::microseconds(micros_(rng_));
  }

  /// Sleeps for the next delay.
  orvo_core::Awaitable<void> wait() {
    const std::chrono::microseconds delay = next();
    co_await sleep_for(delay);
  }

 private:
  std::mt19937 rng_;
  std::uniform_int_distribution<std::chrono::microseconds::rep> micros_;
};

/// A request processor that answers after a delay. The script decides the reply from the prompt
/// variables as they are once the delay is over; the reply's tokens then stream to the emitter,
/// each after a delay of its own, and the result is returned or the reply's error raised.
class AsyncLMRequestProcessor : public orvo_inference::LMRequestProcessor,
                                public LiveCounter<AsyncLMRequestProcessor> {
 public:
  struct Reply {
    std::vector<std::string> tokens;  ///< Streamed as INFO RESPONSE events, in order.
    orvo_core::Any result;
    std::exception_ptr error;  ///< When set, raised once `error_after` tokens are out.
    std::size_t error_after = 0;
  };
  using Script = std::function<Reply(const orvo_core::Map& prompt_kwargs)>;

  AsyncLMRequestProcessor(RandomDelay& delay, Script script)
      : delay_(&delay), script_(std::move(script)) {}

  orvo_core::Awaitable<orvo_core::Any> process(
      std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any /*history*/,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter,
      orvo_core::Any /*system_multimodal_contents*/,
      orvo_core::Any /*user_multimodal_contents*/) override {
    co_await delay_->wait();
    Reply reply = script_(*prompt_kwargs);
    for (std::size_t i = 0; i < reply.tokens.size(); ++i) {
      if (reply.error && i == reply.error_after) std::rethrow_exception(reply.error);
      if (!event_emitter) continue;
      co_await delay_->wait();
      co_await event_emitter->emit(std::move(reply.tokens[i]), orvo_core::EventLevel::INFO,
                                   orvo_core::EventType::RESPONSE);
    }
    if (reply.error) std::rethrow_exception(reply.error);
    co_return std::move(reply.result);
  }

 private:
  RandomDelay* delay_;
  Script script_;
};

/// An embedding invoker that answers after a delay. The script sees the texts only once the
/// delay is over, so views that do not stay valid for the whole call are read after the fact
/// (which AddressSanitizer reports). A single text is embedded as a batch of one.
class AsyncEMInvoker : public orvo_inference::BaseEMInvoker, public LiveCounter<AsyncEMInvoker> {
 public:
  using Script =
      std::function<orvo_core::Embeddings(const std::vector<std::string_view>& texts, bool single)>;

  AsyncEMInvoker(RandomDelay& delay, Script script) : delay_(&delay), script_(std::move(script)) {}

  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override {
    co_await delay_->wait();
    const std::vector<std::string_view> texts(1, text);
    const orvo_core::Embeddings rows = script_(texts, true);
    if (rows.size() != 1) throw std::logic_error("the script must embed a single text as one row");
    co_return orvo_core::Embedding(rows[0].begin(), rows[0].end());
  }

  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override {
    co_await delay_->wait();
    co_return script_(texts, false);
  }

 private:
  RandomDelay* delay_;
  Script script_;
};

/// An emitter that records its events, optionally after a delay in each `emit`. It also counts
/// the calls that arrive while an earlier one is still suspended: a caller that awaits each
/// event in turn never makes one.
class DelayedRecordingEmitter : public orvo_core::EventEmitter,
                                public LiveCounter<DelayedRecordingEmitter> {
 public:
  /// Without a delay, `emit` completes without suspending.
  explicit DelayedRecordingEmitter(RandomDelay* delay = nullptr) : delay_(delay) {}

  orvo_core::Awaitable<void> emit(std::string value, orvo_core::EventLevel level,
                                  orvo_core::EventType type) override {
    if (emitting_) ++overlapping;
    emitting_ = true;
    if (delay_ != nullptr) co_await delay_->wait();
    orvo_core::Event event{std::move(value), level, type};
    events.push_back(std::move(event));
    emitting_ = false;
  }

  std::vector<orvo_core::Event> events;
  std::size_t overlapping = 0;  ///< Calls made while another was in progress.

 private:
  RandomDelay* delay_;
  bool emitting_ = false;
};

}  // namespace orvo_test
