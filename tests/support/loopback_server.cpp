#include "support/loopback_server.hpp"

#include <charconv>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>

#include "orvo_core/json.hpp"

namespace orvo_test {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;

std::string RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (boost::beast::iequals(key, name)) return value;
  }
  return {};
}

Reply Reply::json(std::string body, unsigned status, const std::string& head) {
  return {.pieces = {"HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Not OK") +
                     "\r\nContent-Type: application/json\r\n" + head +
                     "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body}};
}

Reply Reply::stream(const std::vector<std::string>& pieces, std::chrono::milliseconds delay,
                    const std::string& content_type, bool chunked) {
  // The head goes with the first piece, so that only the gaps between pieces are waited for.
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: " + content_type + "\r\n" +
                     (chunked ? "Transfer-Encoding: chunked" : "Connection: close") + "\r\n\r\n";
  Reply reply{.delay = delay, .close = !chunked};
  for (const auto& piece : pieces) {
    char size[16];
    const std::string_view hex(size, std::to_chars(size, size + 16, piece.size(), 16).ptr);
    reply.pieces.push_back(std::exchange(head, "") +
                           (chunked ? std::string(hex) + "\r\n" + piece + "\r\n" : piece));
  }
  if (chunked) reply.pieces.back() += "0\r\n\r\n";
  return reply;
}

LoopbackServer::LoopbackServer(Handler handler, const std::string& identity)
    : handler_(std::move(handler)),
      acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      port_(acceptor_.local_endpoint().port()) {
  if (!identity.empty()) {
    tls_ = std::make_unique<ssl::context>(ssl::context::tls_server);
    tls_->use_certificate_chain_file(identity);
    tls_->use_private_key_file(identity, ssl::context::pem);
    SSL_CTX_set_max_proto_version(tls_->native_handle(), TLS1_2_VERSION);  // Old, yet common.
  }
  asio::co_spawn(io_, accept_loop(), asio::detached);
  thread_ = std::thread([this] { io_.run(); });
}

// Destroying the event loop destroys the suspended handlers and with them every open socket.
LoopbackServer::~LoopbackServer() {
  io_.stop();
  thread_.join();
}

asio::awaitable<void> LoopbackServer::accept_loop() {
  for (;;) {
    error_code ec;
    auto token = asio::redirect_error(asio::use_awaitable, ec);
    tcp::socket socket = co_await acceptor_.async_accept(token);
    if (ec) co_return;
    const std::size_t index = ++accepted_;
    if (tls_) {  // One handshake at a time is enough for a test.
      ssl::stream<tcp::socket> stream(std::move(socket), *tls_);
      co_await stream.async_handshake(ssl::stream_base::server, token);
      if (!ec) asio::co_spawn(io_, serve(std::move(stream), index), asio::detached);
    } else {
      asio::co_spawn(io_, serve(std::move(socket), index), asio::detached);
    }
  }
}

template <typename Stream>
asio::awaitable<void> LoopbackServer::serve(Stream socket, std::size_t index) {
  boost::beast::flat_buffer buffer;
  error_code ec;
  auto token = asio::redirect_error(asio::use_awaitable, ec);
  for (;;) {
    http::request<http::string_body> message;
    co_await http::async_read(socket, buffer, message, token);
    if (ec) co_return;
    RecordedRequest request{.method = std::string(message.method_string()),
                            .target = std::string(message.target()),
                            .body = std::move(message.body()),
                            .connection = index};
    for (const auto& field : message) {
      request.headers.emplace_back(field.name_string(), field.value());
    }
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request);
    }
    const Reply reply = handler_(request);
    if (reply.stall) {  // Until the client gives up.
      char byte = 0;
      while (!ec) co_await socket.async_read_some(asio::buffer(&byte, 1), token);
      ++closed_;
      co_return;
    }
    for (std::size_t i = 0; !ec && i < reply.pieces.size(); ++i) {
      if (i > 0 && reply.delay.count() > 0) {
        asio::steady_timer timer(io_, reply.delay);
        co_await timer.async_wait(asio::use_awaitable);
      }
      co_await asio::async_write(socket, asio::buffer(reply.pieces[i]), token);
    }
    if (ec || reply.close) co_return;  // Closes the socket.
  }
}

std::string chat_delta(const std::string& text) {
  return R"(data: {"choices": [{"delta": {"content": )" + orvo_core::to_json(orvo_core::Any(text)) +
         "}, \"finish_reason\": null}]}\n\n";
}

Reply embeddings(const RecordedRequest& request,
                 const std::function<std::string(const std::string&)>& vector) {
  const orvo_core::Any body = orvo_core::parse_json(request.body);
  const auto& texts = orvo_core::get(body.as_map(), "input").as_list();
  std::string reply = R"({"data": [)";
  for (std::size_t i = texts.size(); i-- > 0;) {
    reply += R"({"index": )" + std::to_string(i) + R"(, "embedding": )" +
             vector(texts[i].as_string()) + (i != 0 ? "}, " : "}");
  }
  return Reply::json(reply + "]}");
}

}  // namespace orvo_test
