#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace boost::asio::ssl {
class context;
}

namespace orvo_test {

/// A request as the loopback server received it.
struct RecordedRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers{};  ///< In arrival order.
  std::string body;
  std::size_t connection = 0;  ///< Which accepted connection carried it, counting from 1.

  /// The value of the first header called `name` (in any case), or "" if there is none.
  [[nodiscard]] std::string header(std::string_view name) const;
};

/// What the loopback server sends back: raw bytes, so that a test can send anything a server
/// might, well-formed or not.
struct Reply {
  std::vector<std::string> pieces{};   ///< Written and flushed in turn, `delay` apart.
  std::chrono::milliseconds delay{0};  ///< Between pieces, not before the first.
  bool close = false;                  ///< Close the connection after the last piece.
  bool stall = false;  ///< Never answer; the connection stays open until the client closes it.

  /// A complete reply with a Content-Length; `head` adds header lines ("Name: value\r\n").
  static Reply json(std::string body, unsigned status = 200, const std::string& head = "");
  /// A streamed reply: chunked, or delimited by closing the connection.
  static Reply stream(const std::vector<std::string>& pieces, std::chrono::milliseconds delay,
                      const std::string& content_type = "text/event-stream", bool chunked = true);
};

/// A scripted HTTP/1.1 server on 127.0.0.1 with a free port, running on its own thread.
///
/// It records every request and answers it with what `handler` returns, on the server's thread.
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
  [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  [[nodiscard]] unsigned short port() const { return port_; }
  /// Connections accepted so far, TLS ones whose handshake failed included.
  [[nodiscard]] std::size_t accepted_connections() const { return accepted_; }
  /// Stalled connections that the client has closed so far.
  [[nodiscard]] std::size_t closed_by_client() const { return closed_; }
  /// The requests received so far, in order.
  [[nodiscard]] std::vector<RecordedRequest> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  boost::asio::awaitable<void> accept_loop();
  template <typename Stream>
  boost::asio::awaitable<void> serve(Stream socket, std::size_t index);

  Handler handler_;
  std::unique_ptr<boost::asio::ssl::context> tls_;
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  unsigned short port_;
  std::atomic<std::size_t> accepted_{0};
  std::atomic<std::size_t> closed_{0};
  mutable std::mutex mutex_;
  std::vector<RecordedRequest> requests_;
  std::thread thread_;
};

/// An event of a streamed chat reply that adds `text`.
std::string chat_delta(const std::string& text);

/// The reply to an embeddings request: `vector` gives each input text's vector as JSON. The
/// vectors come in reverse order, as a server may list them.
Reply embeddings(const RecordedRequest& request,
                 const std::function<std::string(const std::string&)>& vector);

}  // namespace orvo_test
