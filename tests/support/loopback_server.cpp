#include "support/loopback_server.hpp"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>

namespace orvo_test {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;

constexpr std::string_view bad_request =
    "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

std::string hex(std::size_t value) {
  char digits[16];
  return {digits, std::to_chars(digits, digits + sizeof digits, value, 16).ptr};
}

asio::awaitable<void> pause(std::chrono::milliseconds duration) {
  asio::steady_timer timer(co_await asio::this_coro::executor, duration);
  co_await timer.async_wait(asio::use_awaitable);
}

template <typename Stream>
asio::awaitable<bool> write_all(Stream* socket, std::string_view data) {
  error_code ec;
  auto token = asio::redirect_error(asio::use_awaitable, ec);
  co_await asio::async_write(*socket, asio::buffer(data), token);
  co_return !ec;
}

std::string format_head(const Reply& reply) {
  std::string head = "HTTP/1.1 " + std::to_string(reply.status) +
                     (reply.status == 200 ? " OK\r\n" : " Not OK\r\n");
  if (!reply.content_type.empty()) head += "Content-Type: " + reply.content_type + "\r\n";
  for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
  if (reply.pieces.empty()) {
    const std::size_t announced = reply.body.size() + (reply.close_mid_body ? 100 : 0);
    head += "Content-Length: " + std::to_string(announced) + "\r\n";
  } else if (reply.chunked) {
    head += "Transfer-Encoding: chunked\r\n";
  }
  if (!reply.keep_alive || (!reply.pieces.empty() && !reply.chunked)) {
    head += "Connection: close\r\n";
  }
  return head + "\r\n";
}

// Sends the reply; false when the connection must close afterwards.
template <typename Stream>
asio::awaitable<bool> answer(Stream* socket, Reply reply) {
  if (reply.header_delay.count() > 0) co_await pause(reply.header_delay);
  const std::string head = reply.raw ? *reply.raw : format_head(reply) + reply.body;
  bool open = co_await write_all(socket, head);
  const bool framed = reply.chunked && !reply.raw;
  for (std::size_t i = 0; open && i < reply.pieces.size(); ++i) {
    if (i > 0 && reply.piece_delay.count() > 0) co_await pause(reply.piece_delay);
    const std::string& piece = reply.pieces[i];
    if (piece.empty()) continue;  // An empty chunk would end the body.
    const std::string data = framed ? hex(piece.size()) + "\r\n" + piece + "\r\n" : piece;
    open = co_await write_all(socket, data);
  }
  if (!reply.raw && !reply.pieces.empty()) {
    if (open && reply.chunked) open = co_await write_all(socket, "0\r\n\r\n");
    if (!reply.chunked) open = false;
  }
  co_return open&& reply.keep_alive && !reply.close_after && !reply.close_mid_body;
}

}  // namespace

std::string RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (boost::beast::iequals(key, name)) return value;
  }
  return {};
}

std::size_t RecordedRequest::header_count(std::string_view name) const {
  return static_cast<std::size_t>(
      std::count_if(headers.begin(), headers.end(),
                    [&](const auto& entry) { return boost::beast::iequals(entry.first, name); }));
}

Reply Reply::json(std::string body, unsigned status) {
  Reply reply;
  reply.status = status;
  reply.body = std::move(body);
  return reply;
}

Reply Reply::stream(std::vector<std::string> pieces, std::chrono::milliseconds delay,
                    std::string content_type) {
  Reply reply;
  reply.content_type = std::move(content_type);
  reply.pieces = std::move(pieces);
  reply.piece_delay = delay;
  return reply;
}

struct LoopbackServer::State {
  State(Handler handler, const std::string& identity) : handler(std::move(handler)) {
    if (identity.empty()) return;
    tls.emplace(ssl::context::tls_server);
    tls->use_certificate_chain_file(identity);
    tls->use_private_key_file(identity, ssl::context::pem);
    SSL_CTX_set_max_proto_version(tls->native_handle(), TLS1_2_VERSION);  // Old, yet common.
  }

  asio::awaitable<void> accept_loop() {
    for (;;) {
      error_code ec;
      auto token = asio::redirect_error(asio::use_awaitable, ec);
      tcp::socket socket = co_await acceptor.async_accept(token);
      if (ec) co_return;
      if (tls) {  // One handshake at a time is enough for a test.
        ssl::stream<tcp::socket> stream(std::move(socket), *tls);
        co_await stream.async_handshake(ssl::stream_base::server, token);
        if (!ec) asio::co_spawn(io, serve(std::move(stream), ++accepted), asio::detached);
      } else {
        asio::co_spawn(io, serve(std::move(socket), ++accepted), asio::detached);
      }
    }
  }

  template <typename Stream>
  asio::awaitable<void> serve(Stream socket, std::size_t index) {
    boost::beast::flat_buffer buffer;
    for (;;) {
      http::request<http::string_body> message;
      error_code ec;
      auto token = asio::redirect_error(asio::use_awaitable, ec);
      co_await http::async_read(socket, buffer, message, token);
      if (ec == http::error::end_of_stream) co_return;
      if (ec) {  // Not HTTP (a TLS hello, say): answer as a plain server would.
        co_await write_all(&socket, bad_request);
        co_return;
      }
      RecordedRequest request{std::string(message.method_string()),
                              std::string(message.target()),
                              {},
                              std::move(message.body()),
                              index};
      for (const auto& field : message) {
        request.headers.emplace_back(field.name_string(), field.value());
      }
      {
        const std::lock_guard lock(mutex);
        requests.push_back(request);
      }
      Reply reply;
      try {
        reply = handler(request);
      } catch (const std::exception& error) {
        reply = Reply::json(error.what(), 500);
      }
      if (reply.stall) {  // Until the client gives up.
        char byte = 0;
        while (!ec) co_await socket.async_read_some(asio::buffer(&byte, 1), token);
        ++closed;
        co_return;
      }
      if (!co_await answer(&socket, std::move(reply))) co_return;  // Closes the socket.
    }
  }

  Handler handler;
  std::optional<ssl::context> tls;
  asio::io_context io;
  tcp::acceptor acceptor{io, tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
  const unsigned short port = acceptor.local_endpoint().port();
  std::atomic<std::size_t> accepted{0};
  std::atomic<std::size_t> closed{0};
  mutable std::mutex mutex;
  std::vector<RecordedRequest> requests;
  std::thread thread;
};

LoopbackServer::LoopbackServer(Handler handler, const std::string& identity)
    : state_(std::make_unique<State>(std::move(handler), identity)) {
  asio::co_spawn(state_->io, state_->accept_loop(), asio::detached);
  state_->thread = std::thread([state = state_.get()] { state->io.run(); });
}

// Destroying the state destroys the suspended handlers and with them every open socket.
LoopbackServer::~LoopbackServer() {
  state_->io.stop();
  state_->thread.join();
}

std::string LoopbackServer::url() const {
  return "http://127.0.0.1:" + std::to_string(port());
}

unsigned short LoopbackServer::port() const {
  return state_->port;
}

std::size_t LoopbackServer::accepted_connections() const {
  return state_->accepted.load();
}

std::size_t LoopbackServer::closed_by_client() const {
  return state_->closed.load();
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  const std::lock_guard lock(state_->mutex);
  return state_->requests;
}

unsigned short unused_port() {
  asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  return acceptor.local_endpoint().port();
}

}  // namespace orvo_test
