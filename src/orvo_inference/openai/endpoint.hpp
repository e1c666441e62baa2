#pragma once

#include <string>
#include <string_view>

#include "orvo_inference/http/http_client.hpp"

namespace orvo_inference::openai {

/// A POST request of a JSON body to {base_url}/{path}, with the API key as a bearer token when
/// there is one.
[[nodiscard]] http::Request post_request(std::string_view base_url, std::string_view path,
                                         const std::string& api_key, std::string body);

/// Raises `HttpStatusError` with the server's message unless the status is 2xx.
void check_status(const http::Response& response);

}  // namespace orvo_inference::openai
