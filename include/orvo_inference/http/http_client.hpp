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
  std::string body;      ///< Empty when the body went to a `BodyObserver`.
  std::string location;  ///< The Location header, for redirects.
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

/// How a request that failed before any of its reply was used is tried again: a 429 or 503
/// reply, or a connection that could not be made (but not a TLS handshake that was refused, for
/// a certificate that failed verification, say). Waits grow exponentially with jitter; a server's
/// `Retry-After` (in seconds) replaces the computed wait.
struct RetryPolicy {
  std::size_t max_retries = 2;  ///< Attempts after the first; 0 turns retries off.
  std::chrono::milliseconds initial_backoff{500};  ///< Wait before the first retry; doubles after.
  /// Longest wait between attempts: a server that asks for a longer one is not retried.
  std::chrono::milliseconds max_backoff{30'000};
};

/// The oldest TLS version a client accepts.
enum class TlsVersion { tls1_2, tls1_3 };

/// Settings of an `HttpClient`. Every duration must be positive, except `total_timeout` and
/// `low_speed_limit`, where zero turns the check off.
struct ClientOptions {
  std::chrono::milliseconds connect_timeout{10'000};  ///< Resolving, connecting, TLS handshake.
  std::chrono::milliseconds read_timeout{120'000};    ///< Idle: longest wait for the next bytes.
  /// The whole call, from the first connection attempt to the last byte, retries included.
  std::chrono::milliseconds total_timeout{600'000};
  /// Bytes per second of reply body below which a reply is abandoned once it has been that slow
  /// for `low_speed_time`.
  std::size_t low_speed_limit = 0;
  std::chrono::milliseconds low_speed_time{30'000};  ///< See `low_speed_limit`.
  RetryPolicy retry{};                               ///< When and how often to try again.
  bool verify_certificates = true;                   ///< HTTPS peers must present a valid one.
  std::string ca_file{};  ///< PEM file of trusted CAs instead of the system's; empty: system.
  std::string ca_dir{};   ///< Folder of hashed CA certificates, in addition to `ca_file`.
  TlsVersion min_tls_version = TlsVersion::tls1_2;     ///< Older servers are refused.
  std::size_t max_body_bytes = std::size_t{64} << 20;  ///< Larger replies are malformed.
  std::size_t max_idle_connections = 8;                ///< Kept open per host for reuse.
};

/// An HTTP/1.1 client over Asio coroutines that keeps connections open for reuse.
///
/// Failures raise the errors of <orvo_inference/errors.hpp>: `ConnectError`, `TimeoutError`,
/// `ConnectionClosedError` and `MalformedReplyError`; a cancelled call ends with the
/// `operation_aborted` system error and is never retried. An HTTP error status is no failure here:
/// it comes back as a `Response` (with its body) for the caller to interpret. A failed request
/// never leaves its connection in the pool; a kept connection that turns out to have been closed by
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
