#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "orvo_inference/http/http_client.hpp"

namespace orvo_inference {

/// Invokes an embedding model on an OpenAI-compatible server (POST {base_url}/embeddings),
/// `batch_size` texts per request, one request after the other. Vectors come back in input order
/// whatever order the server lists them in. Errors as for `OpenAILMInvoker`.
class OpenAIEMInvoker : public BaseEMInvoker {
 public:
  /// `base_url` is the API root, e.g. "http://127.0.0.1:8080/v1"; a `batch_size` of zero is a
  /// `ValueError`.
  OpenAIEMInvoker(std::string model, std::string base_url, std::string api_key = {},
                  std::size_t batch_size = 64, std::shared_ptr<http::HttpClient> client = nullptr);

  /// As above, with a client of its own made with these options (timeouts, retries, TLS).
  OpenAIEMInvoker(std::string model, std::string base_url, std::string api_key,
                  std::size_t batch_size, const http::ClientOptions& options);

  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override;
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override;

  std::string model;       ///< The model name sent with each request.
  std::string base_url;    ///< The API root.
  std::size_t batch_size;  ///< Texts per request.

 private:
  std::string api_key_;
  std::shared_ptr<http::HttpClient> client_;
};

}  // namespace orvo_inference
