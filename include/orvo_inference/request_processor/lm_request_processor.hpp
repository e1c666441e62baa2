#pragma once

#include <memory>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/object.hpp"

namespace orvo_inference {

/// Turns a map of prompt variables into a language-model request, runs it and returns the
/// model's parsed output. Concrete processors decide the prompt, the model and the parser.
class LMRequestProcessor : public orvo_core::Object {
 public:
  /// Runs one request. `prompt_kwargs` is the caller's own map (the processor may read it after
  /// the call has suspended, so it is shared, not copied); `history` is absent or a list of
  /// [role, content] turns; `event_emitter` receives whatever the processor streams; the
  /// multimodal contents are absent or lists. The result is the parsed output.
  virtual orvo_core::Awaitable<orvo_core::Any> process(
      std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {},
      orvo_core::Any user_multimodal_contents = {}) = 0;
};

}  // namespace orvo_inference
