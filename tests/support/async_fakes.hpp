#pragma once

// Delays on the event loop, as remote services answer: a coroutine that awaits one really
// suspends, and many invocations interleave on one loop.

#include <chrono>
#include <cstdint>
#include <random>

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "orvo_core/async.hpp"

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

  /// Sleeps for the next delay.
  orvo_core::Awaitable<void> wait() {
    const std::chrono::microseconds delay(micros_(rng_));
    co_await sleep_for(delay);
  }

 private:
  std::mt19937 rng_;
  std::uniform_int_distribution<std::chrono::microseconds::rep> micros_;
};

}  // namespace orvo_test
