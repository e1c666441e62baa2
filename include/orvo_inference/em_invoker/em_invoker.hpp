#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orvo_core/async.hpp"
#include "orvo_core/embeddings.hpp"
#include "orvo_core/object.hpp"

namespace orvo_inference {

/// Base of embedding-model invokers.
class BaseEMInvoker : public orvo_core::Object {
 public:
  /// The embedding of one text.
  virtual orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) = 0;

  /// The embeddings of several texts, one row per text and in the same order. The texts are
  /// views: they stay valid until the returned awaitable completes, and an invoker that needs
  /// them longer copies them.
  virtual orvo_core::Awaitable<orvo_core::Embeddings> invoke(
      std::vector<std::string_view> texts) = 0;
};

}  // namespace orvo_inference
