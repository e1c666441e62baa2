#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "orvo_inference/errors.hpp"
#include "orvo_inference/http/http_client.hpp"

namespace orvo_inference::openai {

/// A POST request of a JSON body to {base_url}/{path}, with the API key as a bearer token when
/// there is one.
[[nodiscard]] http::Request post_request(std::string_view base_url, std::string_view path,
                                         const std::string& api_key, std::string body);

/// Raises `HttpStatusError` with the server's message unless the status is 2xx; a redirect names
/// where it points.
void check_status(const http::Response& response);

/// `text` with every occurrence of `secret` replaced.
[[nodiscard]] std::string redact(std::string text, const std::string& secret);

/// Runs `read` (which reads a reply) and raises its errors again without the API key in their
/// messages: servers echo request headers in error bodies.
template <class Read>
auto without_key(const std::string& api_key, Read&& read) -> decltype(read()) {
  try {
    return std::forward<Read>(read)();
  } catch (const HttpStatusError& e) {
    throw HttpStatusError(e.status, redact(e.what(), api_key));
  } catch (const TruncatedReplyError& e) {
    throw TruncatedReplyError(redact(e.what(), api_key));
  } catch (const MalformedReplyError& e) {
    throw MalformedReplyError(redact(e.what(), api_key));
  }
}

}  // namespace orvo_inference::openai
