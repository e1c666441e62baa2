#pragma once

#include <memory>
#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/object.hpp"
#include "orvo_inference/schema.hpp"

namespace orvo_inference {

/// One message of a chat request. `content` is a string, or a list of content parts (maps such
/// as {"type": "text", "text": ...} or {"type": "image_url", "image_url": {"url": ...}}).
struct ChatMessage {
  PromptRole role = PromptRole::USER;
  orvo_core::Any content;
};

/// Base of language-model invokers: send chat messages, get the reply text.
class BaseLMInvoker : public orvo_core::Object {
 public:
  /// The model's reply to `messages`. With an emitter, the reply is streamed: each piece of text
  /// is emitted as a RESPONSE event as it arrives, before this completes.
  virtual orvo_core::Awaitable<std::string> invoke(
      std::vector<ChatMessage> messages,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr) = 0;
};

}  // namespace orvo_inference
