#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvo_core/async.hpp"
#include "orvo_core/object.hpp"

namespace orvo_inference::http {

/// One HTTP request. `url` is absolute: http://host[:port]/path or https://host[:port]/path.
struct Request {
  std::string method = "POST";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;  ///< Sent as given.
  std::string body;
};

/// A complete reply.
struct Response {
  unsigned status = 0;
  std::string content_type;
  std::string body;  ///< Empty when the body went to a `BodyObserver`.
};

/// Receives the body of a successful (2xx) reply piece by piece as it arrives, for streamed
/// replies. Each piece stays valid until `on_data` completes.
class BodyObserver {
 public:
  BodyObserver() = default;
  BodyObserver(const BodyObserver&) = delete;
  BodyObserver& operator=(const BodyObserver&) = delete;
  virtual ~BodyObserver();
  /// Called with each new piece, in order; the next read starts when it completes.
  virtual orvo_core::Awaitable<void> on_data(std::string_view piece) = 0;
};

/// Settings of an `HttpClient`.
struct ClientOptions {
  std::chrono::milliseconds connect_timeout{10'000};   ///< Resolving, connecting, TLS handshake.
  std::chrono::milliseconds read_timeout{120'000};     ///< Longest wait for the next bytes.
  bool verify_certificates = true;                     ///< HTTPS peers must present a valid one.
  std::size_t max_body_bytes = std::size_t{64} << 20;  ///< Larger replies are malformed.
  std::size_t max_idle_connections = 8;                ///< Kept open per host for reuse.
};

/// An HTTP/1.1 client over Asio coroutines that keeps connections open for reuse.
///
/// Failures raise the errors of <orvo_inference/errors.hpp>: `ConnectError`, `TimeoutError`,
/// `ConnectionClosedError` and `MalformedReplyError`. An HTTP error status is no failure here: it
/// comes back as a `Response` (with its body) for the caller to interpret. A failed request never
/// leaves its connection in the pool; a kept connection that turns out to have been closed by
/// the server is replaced once, transparently, if nothing of the reply had arrived.
class HttpClient : public orvo_core::Object {
 public:
  /// A client with these options (Boost.Beast, OpenSSL for HTTPS).
  static std::shared_ptr<HttpClient> create(ClientOptions options = {});

  /// Sends `request` on the caller's executor and awaits the whole reply. With an `observer`, the
  /// body of a 2xx reply is handed to it as it arrives instead of being collected.
  virtual orvo_core::Awaitable<Response> send(Request request,
                                              std::shared_ptr<BodyObserver> observer = nullptr) = 0;

  /// The number of idle connections kept, for all hosts.
  [[nodiscard]] virtual std::size_t idle_connections() const = 0;
};

}  // namespace orvo_inference::http
