#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "orvo_inference/request_processor/lm_request_processor.hpp"

namespace orvo_test {

/// A request processor that answers through `respond` and records every call.
class FakeLMRequestProcessor : public orvo_inference::LMRequestProcessor {
 public:
  /// One call, with the prompt map as it was when the call was made.
  struct Call {
    std::shared_ptr<orvo_core::Map> prompt_kwargs;  ///< The map object itself.
    orvo_core::Map snapshot;                        ///< Its entries at the time of the call.
    orvo_core::Any history;
    std::shared_ptr<orvo_core::EventEmitter> event_emitter;
    orvo_core::Any system_multimodal_contents;
    orvo_core::Any user_multimodal_contents;
  };

  orvo_core::Awaitable<orvo_core::Any> process(
      std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {},
      orvo_core::Any user_multimodal_contents = {}) override {
    if (fail_at && *fail_at == calls.size()) throw std::runtime_error("process failed");
    orvo_core::Map snapshot = *prompt_kwargs;
    calls.push_back(Call{std::move(prompt_kwargs), std::move(snapshot), std::move(history),
                         std::move(event_emitter), std::move(system_multimodal_contents),
                         std::move(user_multimodal_contents)});
    co_return respond ? respond(calls.back().snapshot, calls.size() - 1) : orvo_core::Any();
  }

  /// The answer to call `index` for these prompt variables.
  std::function<orvo_core::Any(const orvo_core::Map&, std::size_t index)> respond;
  std::vector<Call> calls;
  std::optional<std::size_t> fail_at;  ///< Call index (from 0) that throws.
};

}  // namespace orvo_test
