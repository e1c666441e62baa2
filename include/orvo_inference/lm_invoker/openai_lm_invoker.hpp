#pragma once

#include <memory>
#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_inference/http/http_client.hpp"
#include "orvo_inference/lm_invoker/lm_invoker.hpp"

namespace orvo_inference {

/// Invokes a chat model on an OpenAI-compatible server (POST {base_url}/chat/completions).
///
/// With an event emitter the reply is requested as a stream and each text delta is emitted as a
/// RESPONSE event as it arrives; a stream that stops before the server said it was complete is a
/// `TruncatedReplyError`. Errors: `HttpStatusError` (with the server's message), `ConnectError`,
/// `TimeoutError`, `ConnectionClosedError`, `MalformedReplyError`, `TruncatedReplyError`. The API
/// key is sent only in the Authorization header, and removed from any text of the reply that an
/// error quotes.
class OpenAILMInvoker : public BaseLMInvoker {
 public:
  /// `base_url` is the API root, e.g. "http://127.0.0.1:8080/v1"; an empty `api_key` sends no
  /// Authorization header; `parameters` (temperature, max_tokens, ...) go into every request;
  /// without a client a default one is made.
  OpenAILMInvoker(std::string model, std::string base_url, std::string api_key = {},
                  orvo_core::Map parameters = {},
                  std::shared_ptr<http::HttpClient> client = nullptr);

  /// As above, with a client of its own made with these options (timeouts, retries, TLS).
  OpenAILMInvoker(std::string model, std::string base_url, std::string api_key,
                  orvo_core::Map parameters, const http::ClientOptions& options);

  orvo_core::Awaitable<std::string> invoke(
      std::vector<ChatMessage> messages,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr) override;

  std::string model;          ///< The model name sent with each request.
  std::string base_url;       ///< The API root.
  orvo_core::Map parameters;  ///< Extra request members.

 private:
  std::string api_key_;
  std::shared_ptr<http::HttpClient> client_;
};

}  // namespace orvo_inference
