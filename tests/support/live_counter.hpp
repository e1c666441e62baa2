#pragma once

#include <cstdint>

#include "orvo_core/object.hpp"

namespace orvo_test {

/// Counts the live instances of `Tag`, so that a test can check that nothing outlived the work
/// that created it. Not synchronised: the tests that use it run on one thread.
template <class Tag>
class LiveCounter {
 public:
  LiveCounter() noexcept { ++live_; }
  LiveCounter(const LiveCounter& /*other*/) noexcept { ++live_; }
  LiveCounter& operator=(const LiveCounter& /*other*/) noexcept { return *this; }
  ~LiveCounter() { --live_; }

  /// Instances constructed and not yet destroyed.
  [[nodiscard]] static std::int64_t live() noexcept { return live_; }

 private:
  static inline std::int64_t live_ = 0;
};

/// An object to put into a map or a chunk's metadata: it lives as long as some copy of its
/// container does, so its count tells whether anything kept the container.
class LiveToken : public orvo_core::Object, public LiveCounter<LiveToken> {};

}  // namespace orvo_test
