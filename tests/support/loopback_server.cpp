#include "support/loopback_server.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

namespace orvo_test {

namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

constexpr std::size_t max_head_bytes = 64 * 1024;
constexpr const char* bad_request =
    "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

bool same_name(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// Parses the head (request line and headers, without the blank line); false if it is not HTTP.
bool parse_head(std::string_view head, RecordedRequest* request) {
  auto line_end = head.find("\r\n");
  const std::string_view request_line = head.substr(0, line_end);
  const auto first_space = request_line.find(' ');
  const auto second_space = request_line.find(' ', first_space + 1);
  if (first_space == std::string_view::npos || second_space == std::string_view::npos) return false;
  request->method = std::string(request_line.substr(0, first_space));
  request->target =
      std::string(request_line.substr(first_space + 1, second_space - first_space - 1));
  while (line_end != std::string_view::npos) {
    const auto start = line_end + 2;
    line_end = head.find("\r\n", start);
    const std::string_view line = head.substr(start, line_end - start);
    if (line.empty()) continue;
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    request->headers.emplace_back(std::string(line.substr(0, colon)),
                                  std::string(trim(line.substr(colon + 1))));
  }
  return true;
}

std::string reason_phrase(unsigned status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

std::string hex(std::size_t value) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  do {
    text.insert(text.begin(), digits[value % 16]);
    value /= 16;
  } while (value != 0);
  return text;
}

asio::awaitable<void> pause(std::chrono::milliseconds duration) {
  asio::steady_timer timer(co_await asio::this_coro::executor);
  if (duration == std::chrono::milliseconds::max()) {
    timer.expires_at(asio::steady_timer::time_point::max());
  } else {
    timer.expires_after(duration);
  }
  error_code ec;
  auto token = asio::redirect_error(asio::use_awaitable, ec);
  co_await timer.async_wait(token);
}

asio::awaitable<bool> write_all(tcp::socket* socket, std::string data) {
  error_code ec;
  auto token = asio::redirect_error(asio::use_awaitable, ec);
  co_await asio::async_write(*socket, asio::buffer(data), token);
  co_return !ec;
}

std::string format_head(const Reply& reply) {
  std::string head =
      "HTTP/1.1 " + std::to_string(reply.status) + " " + reason_phrase(reply.status) + "\r\n";
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
asio::awaitable<bool> answer(tcp::socket* socket, Reply reply, bool client_wants_close) {
  if (reply.header_delay.count() > 0) co_await pause(reply.header_delay);
  if (reply.stall) {
    co_await pause(std::chrono::milliseconds::max());
    co_return false;
  }
  bool open = true;
  if (reply.raw) {
    std::string data = *reply.raw;
    open = co_await write_all(socket, std::move(data));
  } else if (reply.pieces.empty()) {
    std::string data = format_head(reply) + reply.body;
    open = co_await write_all(socket, std::move(data));
  } else {
    std::string head = format_head(reply);
    open = co_await write_all(socket, std::move(head));
    for (std::size_t i = 0; open && i < reply.pieces.size(); ++i) {
      if (i > 0 && reply.piece_delay.count() > 0) co_await pause(reply.piece_delay);
      const std::string& piece = reply.pieces[i];
      if (piece.empty()) continue;  // An empty chunk would end the body.
      std::string data = reply.chunked ? hex(piece.size()) + "\r\n" + piece + "\r\n" : piece;
      open = co_await write_all(socket, std::move(data));
    }
    if (open && reply.chunked) {
      std::string last_chunk = "0\r\n\r\n";
      open = co_await write_all(socket, std::move(last_chunk));
    }
    if (!reply.chunked) open = false;
  }
  co_return open&& reply.keep_alive && !reply.close_after && !reply.close_mid_body &&
      !client_wants_close;
}

}  // namespace

std::string RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (same_name(key, name)) return value;
  }
  return {};
}

std::size_t RecordedRequest::header_count(std::string_view name) const {
  return static_cast<std::size_t>(
      std::count_if(headers.begin(), headers.end(),
                    [&](const auto& entry) { return same_name(entry.first, name); }));
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
  explicit State(Handler handler) : handler(std::move(handler)) {}

  asio::awaitable<void> accept_loop() {
    for (;;) {
      error_code ec;
      auto token = asio::redirect_error(asio::use_awaitable, ec);
      tcp::socket socket = co_await acceptor->async_accept(token);
      if (ec) co_return;
      const std::size_t index = ++accepted;
      asio::co_spawn(*io, serve(std::move(socket), index), asio::detached);
    }
  }

  asio::awaitable<void> serve(tcp::socket socket, std::size_t index) {
    std::string data;
    for (;;) {
      // Read the head.
      std::size_t head_end = std::string::npos;
      while ((head_end = data.find("\r\n\r\n")) == std::string::npos) {
        if (!data.empty() && (data.front() < 'A' || data.front() > 'Z')) {
          // Not HTTP (a TLS hello, say): answer as a plain server would.
          std::string refusal = bad_request;
          co_await write_all(&socket, std::move(refusal));
          co_return;
        }
        if (data.size() > max_head_bytes) co_return;
        char chunk[4096];
        error_code ec;
        auto token = asio::redirect_error(asio::use_awaitable, ec);
        const std::size_t n = co_await socket.async_read_some(asio::buffer(chunk), token);
        if (ec) co_return;
        data.append(chunk, n);
      }

      RecordedRequest request;
      request.connection = index;
      if (!parse_head(std::string_view(data).substr(0, head_end), &request)) {
        std::string refusal = bad_request;
        co_await write_all(&socket, std::move(refusal));
        co_return;
      }
      const std::string length_text = request.header("Content-Length");
      const std::size_t length = length_text.empty() ? 0 : std::stoul(length_text);
      const std::size_t total = head_end + 4 + length;
      while (data.size() < total) {
        char chunk[4096];
        error_code ec;
        auto token = asio::redirect_error(asio::use_awaitable, ec);
        const std::size_t n = co_await socket.async_read_some(asio::buffer(chunk), token);
        if (ec) co_return;
        data.append(chunk, n);
      }
      request.body = data.substr(head_end + 4, length);
      data.erase(0, total);
      {
        const std::lock_guard lock(mutex);
        requests.push_back(request);
      }

      Reply reply;
      try {
        reply = handler(request);
      } catch (const std::exception& error) {
        reply = Reply::json(error.what(), 500);
        reply.content_type = "text/plain";
      }
      const bool client_wants_close = same_name(request.header("Connection"), "close");
      const bool keep = co_await answer(&socket, std::move(reply), client_wants_close);
      if (!keep) {
        error_code ignored;
        socket.shutdown(tcp::socket::shutdown_both, ignored);
        socket.close(ignored);
        co_return;
      }
    }
  }

  Handler handler;
  std::optional<asio::io_context> io;
  std::optional<tcp::acceptor> acceptor;
  unsigned short port = 0;
  std::atomic<std::size_t> accepted{0};
  mutable std::mutex mutex;
  std::vector<RecordedRequest> requests;
  std::thread thread;
};

LoopbackServer::LoopbackServer(Handler handler)
    : state_(std::make_unique<State>(std::move(handler))) {
  State& state = *state_;
  state.io.emplace();
  const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), 0);
  state.acceptor.emplace(*state.io, endpoint);
  state.port = state.acceptor->local_endpoint().port();
  asio::co_spawn(*state.io, state.accept_loop(), asio::detached);
  state.thread = std::thread([&state] { state.io->run(); });
}

LoopbackServer::~LoopbackServer() {
  stop();
}

void LoopbackServer::stop() {
  State& state = *state_;
  if (!state.io) return;
  state.io->stop();
  if (state.thread.joinable()) state.thread.join();
  // Destroying the loop destroys the suspended handlers and with them every open socket.
  state.acceptor.reset();
  state.io.reset();
}

std::string LoopbackServer::url() const {
  return "http://127.0.0.1:" + std::to_string(state_->port);
}

unsigned short LoopbackServer::port() const {
  return state_->port;
}

std::size_t LoopbackServer::accepted_connections() const {
  return state_->accepted.load();
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
