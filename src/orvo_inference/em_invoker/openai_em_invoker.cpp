#include "orvo_inference/em_invoker/openai_em_invoker.hpp"

#include <algorithm>
#include <span>
#include <utility>

#include "orvo_core/errors.hpp"
#include "orvo_inference/errors.hpp"
#include "orvo_inference/openai/endpoint.hpp"
#include "orvo_inference/openai/openai_api.hpp"

namespace orvo_inference {

OpenAIEMInvoker::OpenAIEMInvoker(std::string model, std::string base_url, std::string api_key,
                                 std::size_t batch_size, std::shared_ptr<http::HttpClient> client)
    : model(std::move(model)),
      base_url(std::move(base_url)),
      batch_size(batch_size),
      api_key_(std::move(api_key)),
      client_(client ? std::move(client) : http::HttpClient::create()) {
  if (this->batch_size == 0) throw orvo_core::ValueError("`batch_size` must be at least 1");
}

OpenAIEMInvoker::OpenAIEMInvoker(std::string model, std::string base_url, std::string api_key,
                                 std::size_t batch_size, const http::ClientOptions& options)
    : OpenAIEMInvoker(std::move(model), std::move(base_url), std::move(api_key), batch_size,
                      http::HttpClient::create(options)) {}

orvo_core::Awaitable<orvo_core::Embedding> OpenAIEMInvoker::invoke(std::string text) {
  std::vector<std::string_view> texts;
  texts.emplace_back(text);
  const orvo_core::Embeddings rows = co_await invoke(std::move(texts));
  const auto row = rows[0];
  co_return orvo_core::Embedding(row.begin(), row.end());
}

orvo_core::Awaitable<orvo_core::Embeddings> OpenAIEMInvoker::invoke(
    std::vector<std::string_view> texts) {
  std::vector<float> data;
  std::size_t dim = 0;
  const std::size_t step = std::max<std::size_t>(batch_size, 1);
  for (std::size_t start = 0; start < texts.size(); start += step) {
    const std::size_t count = std::min(step, texts.size() - start);
    const std::span<const std::string_view> batch(texts.data() + start, count);
    http::Request request = openai::post_request(base_url, "embeddings", api_key_,
                                                 openai::embeddings_request_body(model, batch));
    const http::Response response = co_await client_->send(std::move(request));
    const std::size_t batch_dim = openai::without_key(api_key_, [&] {
      openai::check_status(response);
      return openai::append_embeddings(response.body, count, data);
    });
    if (start != 0 && batch_dim != dim) {
      throw MalformedReplyError("the embedding length changed between batches, from " +
                                std::to_string(dim) + " to " + std::to_string(batch_dim));
    }
    dim = batch_dim;
  }
  co_return orvo_core::Embeddings(std::move(data), texts.size(), dim);
}

}  // namespace orvo_inference
