#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "support/async_fakes.hpp"

namespace orvo_test {

/// A request processor that answers through `respond` and records every call; optionally after
/// a delay, and streaming the answer word by word to the emitter first, as a chat model does.
class FakeLMRequestProcessor : public orvo_inference::LMRequestProcessor {
 public:
  /// One call's arguments.
  struct Call {
    std::shared_ptr<orvo_core::Map> prompt_kwargs;  ///< The map object itself.
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
    calls.push_back(Call{prompt_kwargs, std::move(history), event_emitter,
                         std::move(system_multimodal_contents),
                         std::move(user_multimodal_contents)});
    const std::size_t index = calls.size() - 1;
    peak_in_flight = std::max(peak_in_flight, ++in_flight);
    {
      // A call cancelled during its delay leaves the count too.
      const std::unique_ptr<std::size_t, void (*)(std::size_t*)> waiting(
          &in_flight, [](std::size_t* count) { --*count; });
      if (delay != nullptr) co_await delay->wait();
    }
    // Late, so that a failing call is still in flight while others start.
    if (fail_at == index) throw std::runtime_error("process failed");
    orvo_core::Any answer = respond ? respond(*prompt_kwargs, index) : orvo_core::Any();
    const std::string text = stream_words && event_emitter ? answer.as_string() : "";
    for (std::size_t begin = 0; begin < text.size();) {
      const std::size_t end = std::min(text.find(' ', begin + 1), text.size());
      std::string word = text.substr(begin, end - begin);
      if (delay != nullptr) co_await delay->wait();
      co_await event_emitter->emit(std::move(word), orvo_core::EventLevel::INFO,
                                   orvo_core::EventType::RESPONSE);
      begin = end;
    }
    co_return answer;
  }

  /// The answer to call `index` for these prompt variables, as they are once the delay is over.
  std::function<orvo_core::Any(const orvo_core::Map&, std::size_t index)> respond;
  std::vector<Call> calls;
  std::optional<std::size_t> fail_at;  ///< Call index (from 0) that throws after its delay.
  RandomDelay* delay = nullptr;        ///< Awaited before the answer and before each word.
  bool stream_words = false;           ///< Streams a text answer as RESPONSE events.
  std::size_t in_flight = 0;           ///< Calls waiting for their delay.
  std::size_t peak_in_flight = 0;
};

}  // namespace orvo_test
