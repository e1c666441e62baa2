#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "support/async_fakes.hpp"

namespace orvo_test {

/// An embedding invoker that looks texts up in a table and records every call. With a delay,
/// it reads the texts only once the delay is over, so views that do not stay valid for the
/// whole call are read after the fact (which AddressSanitizer reports).
class FakeEMInvoker : public orvo_inference::BaseEMInvoker {
 public:
  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override {
    if (delay != nullptr) co_await delay->wait();
    record({text});
    co_return embed(text);
  }

  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override {
    if (delay != nullptr) co_await delay->wait();
    record(std::vector<std::string>(texts.begin(), texts.end()));
    std::vector<orvo_core::Embedding> rows;
    for (const auto text : texts) rows.push_back(embed(text));
    // Misbehave on request: one row too many.
    if (extra_row) rows.push_back(rows.back());
    co_return orvo_core::Embeddings::from_rows(rows);
  }

  std::map<std::string, orvo_core::Embedding, std::less<>> table;  ///< Text to vector.
  std::vector<std::vector<std::string>> calls;                     ///< The texts of each call.
  std::optional<std::size_t> fail_at;  ///< Call index (from 0) that throws.
  bool extra_row = false;              ///< Whether a batch's last row comes twice.
  RandomDelay* delay = nullptr;        ///< Awaited before each answer.

 private:
  void record(std::vector<std::string> call) {
    if (fail_at && *fail_at == calls.size()) throw std::runtime_error("invoke failed");
    calls.push_back(std::move(call));
  }
  orvo_core::Embedding embed(std::string_view text) const {
    const auto it = table.find(text);
    if (it == table.end()) throw std::out_of_range("no embedding for '" + std::string(text) + "'");
    return it->second;
  }
};

}  // namespace orvo_test
