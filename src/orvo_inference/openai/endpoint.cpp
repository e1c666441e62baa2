#include "orvo_inference/openai/endpoint.hpp"

#include "orvo_core/text.hpp"
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
  if (response.status >= 300 && response.status < 400 && !response.location.empty()) {
    throw HttpStatusError(
        response.status,
        "the server answered HTTP " + std::to_string(response.status) + " and redirects to " +
            orvo_core::text::escape_controls(response.location) + "; use that address as the URL");
  }
  if (response.status < 200 || response.status >= 300) {
    throw HttpStatusError(response.status, error_message(response.status, response.body));
  }
}

std::string redact(std::string text, const std::string& secret) {
  if (secret.empty()) return text;
  constexpr std::string_view mark = "[redacted]";
  for (auto at = text.find(secret); at != std::string::npos;
       at = text.find(secret, at + mark.size())) {
    text.replace(at, secret.size(), mark);
  }
  return text;
}

}  // namespace orvo_inference::openai
