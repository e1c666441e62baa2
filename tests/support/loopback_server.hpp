#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvo_test {

/// A request as the loopback server received it.
struct RecordedRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;  ///< In arrival order.
  std::string body;
  std::size_t connection = 0;  ///< Which accepted connection carried it, counting from 1.

  /// The value of the first header called `name` (in any case), or "" if there is none.
  [[nodiscard]] std::string header(std::string_view name) const;
  /// How many headers are called `name` (in any case).
  [[nodiscard]] std::size_t header_count(std::string_view name) const;
};

/// What the loopback server answers. The defaults give a 200 JSON reply with keep-alive; every
/// member has one, so a designated initializer names just what differs.
struct Reply {
  unsigned status = 200;
  std::string content_type = "application/json";  ///< Left out when empty.
  std::string body{};
  std::vector<std::pair<std::string, std::string>> headers{};  ///< Extra header fields.

  /// When not empty, the body is these pieces instead, each written and flushed on its own with
  /// `piece_delay` between them: chunked, or delimited by closing the connection.
  std::vector<std::string> pieces{};
  std::chrono::milliseconds piece_delay{0};
  bool chunked = true;

  std::chrono::milliseconds header_delay{0};  ///< Pause before anything is sent.
  bool stall = false;  ///< Never answer; the connection stays open until the client closes it.
  /// Announce 100 more bytes than `body`, send `body`, then close.
  bool close_mid_body = false;
  bool keep_alive = true;  ///< false: say "Connection: close" and close after replying.
  /// Close after replying although keep-alive was announced, as a server does with a
  /// connection it considers idle.
  bool close_after = false;
  /// Sent verbatim instead of a formatted reply (status, headers and body are ignored), followed
  /// by `pieces` verbatim; the connection is then kept or closed as `keep_alive` and
  /// `close_after` say.
  std::optional<std::string> raw{};

  /// A complete JSON reply.
  static Reply json(std::string body, unsigned status = 200);
  /// A streamed reply in chunked encoding.
  static Reply stream(std::vector<std::string> pieces, std::chrono::milliseconds delay,
                      std::string content_type = "text/event-stream");
};

/// A scripted HTTP/1.1 server on 127.0.0.1 with a free port, running on its own thread.
///
/// It records every request and answers it with what `handler` returns; a handler that throws
/// gets a 500 with the exception's text as its body. The handler runs on the server's thread.
/// Destroying the server closes every connection, stalled ones included.
class LoopbackServer {
 public:
  using Handler = std::function<Reply(const RecordedRequest&)>;

  /// With `identity` (a PEM file with a certificate chain and its key), it speaks HTTPS, TLS 1.2
  /// at most.
  explicit LoopbackServer(Handler handler, const std::string& identity = "");
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// "http://127.0.0.1:PORT".
  [[nodiscard]] std::string url() const;
  [[nodiscard]] unsigned short port() const;
  /// Connections accepted so far.
  [[nodiscard]] std::size_t accepted_connections() const;
  /// Stalled connections that the client has closed so far.
  [[nodiscard]] std::size_t closed_by_client() const;
  /// The requests received so far, in order.
  [[nodiscard]] std::vector<RecordedRequest> requests() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// A port on 127.0.0.1 that nobody listens on (it was free a moment ago).
unsigned short unused_port();

}  // namespace orvo_test
