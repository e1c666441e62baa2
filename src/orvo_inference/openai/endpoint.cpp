#include "orvo_inference/openai/endpoint.hpp"

#include "orvo_inference/errors.hpp"
#include "orvo_inference/openai/openai_api.hpp"

namespace orvo_inference::openai {

http::Request post_request(std::string_view base_url, std::string_view path,
                           const std::string& api_key, std::string body) {
  http::Request request;
  request.method = "POST";
  while (!base_url.empty() && base_url.back() == '/') base_url.remove_suffix(1);
  request.url = std::string(base_url) + "/" + std::string(path);
  request.headers.emplace_back("Content-Type", "application/json");
  if (!api_key.empty()) request.headers.emplace_back("Authorization", "Bearer " + api_key);
  request.body = std::move(body);
  return request;
}

void check_status(const http::Response& response) {
  if (response.status < 200 || response.status >= 300) {
    throw HttpStatusError(response.status, error_message(response.status, response.body));
  }
}

}  // namespace orvo_inference::openai
