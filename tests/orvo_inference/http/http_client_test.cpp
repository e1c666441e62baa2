// The HTTP client against a scripted server on the loopback interface.
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "orvo_core/async.hpp"
#include "orvo_inference/http/http_client.hpp"
#include "support/async_fakes.hpp"
#include "support/expect_throw_msg.hpp"
#include "support/loopback_server.hpp"

namespace {

using namespace std::chrono_literals;
using orvo_core::Awaitable;
using orvo_inference::http::BodyObserver;
using orvo_inference::http::ClientOptions;
using orvo_inference::http::HttpClient;
using orvo_inference::http::Request;
using orvo_test::LoopbackServer;
using orvo_test::RecordedRequest;
using orvo_test::Reply;

constexpr std::string_view secret = "sk-test-9f8e7d6c5b4a";

// With the key, then the `more` headers.
Request post(std::string url, std::string body = R"({"q":1})",
             decltype(Request::headers) more = {}) {
  more.insert(more.begin(), {"Authorization", "Bearer " + std::string(secret)});
  return {.url = std::move(url), .headers = std::move(more), .body = std::move(body)};
}

// How a call's body is taken: collected by the client, or by an observer that keeps each piece,
// works a while on each or gives up at the first.
enum class Watch { none, collect, slow, give_up };

struct Observer : BodyObserver {
  explicit Observer(Watch how) : watch(how) {}
  Awaitable<void> on_data(std::string_view piece) override {
    all += std::string(piece) + "|";
    if (watch == Watch::give_up) throw std::runtime_error("the observer gave up");
    co_await orvo_test::sleep_for(watch == Watch::slow ? 400ms : 0ms);
  }
  std::string all;  // Each piece ends in '|'.
  Watch watch;
};

// What one `send` gave.
struct Outcome {
  // "<status> <content type> <body>", or "<unqualified error type>: <message>".
  std::string result;
  std::chrono::milliseconds elapsed{0};
  std::size_t idle_after = 0;  // idle_connections() right after it.
};

Awaitable<Outcome> attempt(std::shared_ptr<HttpClient> client, Request request,
                           std::shared_ptr<BodyObserver> observer) {
  Outcome outcome;
  const auto start = std::chrono::steady_clock::now();
  try {
    const auto response = co_await client->send(std::move(request), std::move(observer));
    outcome.result =
        std::to_string(response.status) + " " + response.content_type + " " + response.body;
  } catch (const std::exception& e) {
    outcome.result = orvo_test::describe(e);
  }
  outcome.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  outcome.idle_after = client->idle_connections();
  co_return outcome;
}

// One after the other on one event loop, so that kept connections can be reused.
std::vector<Outcome> run_each(const std::shared_ptr<HttpClient>& client,
                              const std::vector<Request>& requests,
                              const std::shared_ptr<BodyObserver>& observer = nullptr) {
  return orvo_core::run_sync([&]() -> Awaitable<std::vector<Outcome>> {
    std::vector<Outcome> outcomes;
    for (const auto& request : requests) {
      outcomes.push_back(co_await attempt(client, request, observer));
    }
    co_return outcomes;
  }());
}

// The replies a server gives in turn.
template <class... Replies>
std::vector<Reply> in_turn(Replies... replies) {
  return {replies...};
}

// One call after another on one client. A kept connection that the server has closed is tried
// again once on a fresh one; one that failed is never used again. Defaults go only where the
// caller gave none, and the Content-Length fits the body; a URL or header that is unsafe or
// unclear is refused before connecting, and its error never shows the key.
TEST(http_client, calls_in_turn_go_out_as_given_and_reuse_only_healthy_connections) {
  LoopbackServer server([](const RecordedRequest& request) {
    if (request.target == "/hang-up") return Reply{.close = true};  // No reply at all.
    if (request.target == "/cut") {  // More bytes announced than sent, then it closes.
      return Reply{.pieces = {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n"}, .close = true};
    }
    Reply reply = Reply::json(std::to_string(request.connection));
    reply.stall = request.target == "/stall";
    reply.close = request.target == "/drop";  // Announces keep-alive, then closes.
    return reply;
  });
  const std::string port = std::to_string(server.port());
  const std::string url = server.url();
  const Request typed = post(url + "/v1/chat?stream=true", "a=1",
                             {{"content-type", "application/x-www-form-urlencoded"},
                              {"User-Agent", "custom-agent"},
                              {"Content-Length", "999"}});  // Must not contradict the body.
  const std::string bad = "ValueError: ";
  const struct {
    Request request;
    std::string result;  // Its start; a reply's body is the number of its connection.
    std::size_t idle;
  } steps[] = {
      {post(url + "/drop"), "200 application/json 1", 1},
      {post(url + "/ok"), "200 application/json 2", 1},
      {post(url + "/stall"), "TimeoutError: ", 0},
      {post(url + "/ok"), "200 application/json 3", 1},
      {post(url + "/cut"), "ConnectionClosedError: ", 0},  // Part of the reply came: not retried.
      {post(url + "/ok"), "200 application/json 4", 1},
      {post(url + "/hang-up"), "ConnectionClosedError: ", 0},  // Kept, then once on a fresh one.
      {post(url + "/v1/embeddings"), "200 application/json 6", 1},
      {typed, "200 application/json 6", 1},
      {post(url, "", {{"X-Key", std::string(secret) + "\r\nInjected: yes"}}), bad, 1},
      {post(url, "", {{"Bad Name", "x"}}), bad, 1},
      {{"GET /x HTTP/1.1\r\n", url, {}, ""}, bad, 1},
      {post("ftp://127.0.0.1:" + port + "/"), bad, 1},
      {post("http://"), bad, 1},
      {post("http://127.0.0.1:65536/"), bad, 1},
      {post("http://user:" + std::string(secret) + "@127.0.0.1:" + port + "/"), bad, 1},
      {post(url + "/a b"), bad, 1},
      {{"DELETE", "http://localhost:" + port + "/by-name", {}, ""}, "200 application/json 7", 2},
  };
  std::vector<Request> requests;
  for (const auto& step : steps) requests.push_back(step.request);
  const auto outcomes =
      run_each(HttpClient::create({.connect_timeout = 2s, .read_timeout = 200ms}), requests);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    SCOPED_TRACE(requests[i].url);
    EXPECT_TRUE(outcomes[i].result.starts_with(steps[i].result)) << outcomes[i].result;
    EXPECT_EQ(outcomes[i].result.find(secret), std::string::npos);
    EXPECT_EQ(outcomes[i].idle_after, steps[i].idle);
  }
  EXPECT_EQ(server.accepted_connections(), 7U);
  // The last three as the server read them. A header given twice, a default beside the caller's
  // own, would show in the count.
  const auto received = server.requests();
  ASSERT_EQ(received.size(), 11U);
  std::vector<std::string> seen;
  for (auto request = received.end() - 3; request != received.end(); ++request) {
    seen.push_back(request->method + " " + request->target + " | " + request->header("Host") +
                   " | " + request->header("Content-Type") + " | " + request->header("User-Agent") +
                   " | " + request->header("Content-Length") + " | " +
                   std::to_string(request->headers.size()) + " | " + request->body);
  }
  const std::string host = "127.0.0.1:" + port;
  EXPECT_EQ(seen,
            (std::vector<std::string>{
                "POST /v1/embeddings | " + host + " | application/json | orvo | 7 | 5 | {\"q\":1}",
                "POST /v1/chat?stream=true | " + host +
                    " | application/x-www-form-urlencoded | custom-agent | 3 | 5 | a=1",
                "DELETE /by-name | localhost:" + port + " |  | orvo |  | 2 | "}));
}

// One row per kind of fault. A reply that allows it leaves its connection idle for the next
// call; a stream goes to the observer piece by piece as it arrives, other replies are collected.
// The read timeout bounds each wait, not the whole reply, and the time a slow observer works on a
// piece is not waiting; replies above the low-speed limit pass. An error
// names the host it was talking to and never the key, and leaves no connection behind; a
// connection that fails before anything is sent is tried three times, a busy server as often as
// the policy says, and nothing else twice. Certificates come from
// tests/support/make_certificates.cmake; the TLS server speaks TLS 1.2 at most.
TEST(http_client, each_call_ends_in_a_reply_or_its_own_error) {
  // Static, to be the default of Case::options.
  static const ClientOptions settings{.connect_timeout = 2s,
                                      .read_timeout = 200ms,
                                      .low_speed_limit = 10,
                                      .low_speed_time = 1s,
                                      .retry = {.initial_backoff = 50ms},
                                      .max_body_bytes = 1000};
  ClientOptions total = settings;
  total.total_timeout = 600ms;
  ClientOptions slow = settings;
  slow.low_speed_limit = 500;
  slow.low_speed_time = 600ms;
  const std::string dir = ORVO_TEST_CERTIFICATES;
  ClientOptions quick_connect = settings;
  quick_connect.connect_timeout = 200ms;
  ClientOptions by_file = settings;
  by_file.ca_file = dir + "/ca.pem";
  ClientOptions by_folder = settings;
  by_folder.ca_dir = dir + "/trusted";
  ClientOptions tls1_3 = by_file;
  tls1_3.min_tls_version = orvo_inference::http::TlsVersion::tls1_3;
  const std::vector<std::string> pieces = {"1st piece.", "2nd piece.", "3rd piece.", "4th piece."};
  // A server that keeps sending a little keeps the idle timer from running out: the total and
  // low-speed limits end such a call long before the server would stop.
  const Reply trickle = Reply::stream(std::vector<std::string>(50, ": still here\n\n"), 100ms);
  const Reply interim{
      .pieces = {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early\r\nLink: x\r\n\r\n"
                 "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"}};
  const Reply bad_chunk{.pieces = {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"},
                        .close = true};
  // Listens but never accepts: the TCP handshake completes, the TLS one never does.
  boost::asio::io_context io;
  const boost::asio::ip::tcp::acceptor silent(
      io, boost::asio::ip::tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
  const std::string silent_port = std::to_string(silent.local_endpoint().port());
  struct Case {
    const char* name;
    std::vector<Reply> replies;  // In turn, the last one repeating; none: nobody answers on PORT.
    std::string expected;        // A part of the result.
    std::size_t idle = 0;        // Connections kept after it.
    Watch watch = Watch::none;
    std::size_t requests = 1;  // That the server reads.
    ClientOptions options = settings;
    std::chrono::milliseconds at_least{0};
    std::string url = "http://127.0.0.1:PORT/v1/chat";
    std::string certificate = "";  // The server speaks HTTPS with it.
  };
  const std::vector<Case> cases = {
      {"chunked", in_turn(Reply::stream({"ab", "cd", "ef"}, 10ms, "text/plain")),
       "200 text/plain abcdef", 1},
      {"streamed until closed, slow observer",
       in_turn(Reply::stream(pieces, 500ms, "text/plain", false)),
       "200 text/plain  <1st piece.|2nd piece.|3rd piece.|4th piece.|>", 0, Watch::slow, 1,
       settings, 1500ms},
      {"refused", in_turn(), "ConnectError: cannot connect to 127.0.0.1:", 0, Watch::none, 0,
       settings, 75ms},
      {"TLS handshake never ends", in_turn(),
       "TimeoutError: cannot connect to 127.0.0.1:" + silent_port + " within 200 ms", 0,
       Watch::none, 0, quick_connect, 600ms, "https://127.0.0.1:" + silent_port + "/"},
      {"bad chunk", in_turn(bad_chunk), "MalformedReplyError: ", 0, Watch::collect},
      {"stream over the limit",
       in_turn(Reply::stream({std::string(600, 'x'), std::string(600, 'y')}, 0ms)),
       "MalformedReplyError: ", 0, Watch::collect},
      {"total limit", in_turn(trickle), "TimeoutError: ", 0, Watch::collect, 1, total, 600ms},
      {"low-speed limit", in_turn(trickle), "TimeoutError: ", 0, Watch::collect, 1, slow, 600ms},
      {"observer gives up", in_turn(Reply::stream({"a", "b"}, 20ms)),
       "runtime_error: the observer gave up", 0, Watch::give_up},
      {"Retry-After is honoured",
       in_turn(Reply::json("", 429, "Retry-After: 1\r\n"), Reply::json("ok")),
       "200 application/json ok", 1, Watch::none, 2, settings, 1s},
      {"busy, retried twice, then given up", in_turn(Reply::json("busy", 503)),
       "503 application/json busy", 1, Watch::none, 3},
      {"interim (1xx) replies skipped", in_turn(interim), "200  ok", 1},
      {"trusted by folder", in_turn(Reply::json("ok")), "200 application/json ok", 1, Watch::none,
       1, by_folder, 0ms, "https://localhost:PORT/", "good"},
      {"unknown issuer", in_turn(Reply::json("ok")),
       "failed: unable to get local issuer certificate", 0, Watch::none, 0, by_file, 0ms,
       "https://127.0.0.1:PORT/", "stranger"},
      {"other host", in_turn(Reply::json("ok")), "failed: hostname mismatch", 0, Watch::none, 0,
       by_file, 0ms, "https://localhost:PORT/", "other-host"},
      {"TLS below the minimum", in_turn(Reply::json("ok")), "protocol version", 0, Watch::none, 0,
       tls1_3, 0ms, "https://127.0.0.1:PORT/", "good"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::size_t seen = 0;
    std::optional<LoopbackServer> server;
    if (!c.replies.empty()) {
      server.emplace(
          [&](const RecordedRequest&) { return c.replies[std::min(c.replies.size(), ++seen) - 1]; },
          c.certificate.empty() ? "" : dir + "/" + c.certificate + ".pem");
    }
    std::string url = c.url;  // Nobody listens on a closed server's port.
    if (const auto at = url.find("PORT"); at != std::string::npos) {
      url.replace(at, 4, std::to_string(server ? server->port() : LoopbackServer(nullptr).port()));
    }
    const auto observer = c.watch == Watch::none ? nullptr : std::make_shared<Observer>(c.watch);
    const auto client = HttpClient::create(c.options);
    const Outcome outcome =
        run_each(client, {post(url + "?key=" + std::string(secret))}, observer).at(0);
    // With what the observer was given, piece by piece.
    const std::string result = outcome.result + (observer ? " <" + observer->all + ">" : "");
    EXPECT_NE(result.find(c.expected), std::string::npos) << result;
    EXPECT_EQ(result.find(secret), std::string::npos) << result;
    EXPECT_GE(outcome.elapsed, c.at_least);
    EXPECT_LT(outcome.elapsed, c.at_least + 1400ms);  // Well before the server would go on.
    EXPECT_EQ(outcome.idle_after, c.idle);
    EXPECT_EQ(client->idle_connections(), 0U) << "its event loop is gone, so is the socket";
    if (server) {
      EXPECT_EQ(server->requests().size(), c.requests);
      EXPECT_EQ(server->accepted_connections(), 1U);
    }
    if (outcome.result.find("Error: ") != std::string::npos) {
      const std::size_t host = url.find("//") + 2;
      const std::string endpoint = url.substr(host, url.find('/', host) - host);
      EXPECT_NE(outcome.result.find(endpoint), std::string::npos) << outcome.result;
    }
  }
}

TEST(http_client, keeps_at_most_max_idle_connections_per_host) {
  // All four are under way together.
  const Reply late{.pieces = {"", Reply::json("{}").pieces[0]}, .delay = 50ms};
  LoopbackServer server([&late](const RecordedRequest&) { return late; });
  // On two threads; with none kept, every connection closes.
  for (const std::size_t max_idle : {0U, 2U}) {
    const auto client = HttpClient::create(
        {.connect_timeout = 2s, .read_timeout = 5s, .max_idle_connections = max_idle});
    boost::asio::io_context io;
    std::vector<Outcome> outcomes(4);
    for (auto& outcome : outcomes) {
      boost::asio::co_spawn(
          io, attempt(client, post(server.url()), nullptr),
          [&outcome](const std::exception_ptr&, Outcome got) { outcome = std::move(got); });
    }
    std::thread helper([&io] { io.run(); });
    io.run();
    helper.join();
    std::size_t most = 0;
    for (const auto& outcome : outcomes) {
      EXPECT_EQ(outcome.result, "200 application/json {}");
      most = std::max(most, outcome.idle_after);
    }
    EXPECT_EQ(most, max_idle) << "the last to finish sees the others returned";
  }
}

// Cancelled while waiting to retry or while waiting for a reply: the call ends at once, is not
// tried again and closes its connection.
TEST(http_client, a_cancelled_call_ends_at_once_and_is_not_retried) {
  for (const Reply& reply : {Reply::json("", 503, "Retry-After: 5\r\n"), Reply{.stall = true}}) {
    LoopbackServer server([&reply](const RecordedRequest&) { return reply; });
    const auto client = HttpClient::create({.read_timeout = 5s, .retry = {.max_backoff = 10s}});
    boost::asio::io_context io;
    boost::asio::cancellation_signal cancel;
    Outcome outcome;
    auto done = [&outcome](const std::exception_ptr&, Outcome got) { outcome = std::move(got); };
    boost::asio::co_spawn(io, attempt(client, post(server.url()), nullptr),
                          boost::asio::bind_cancellation_slot(cancel.slot(), done));
    boost::asio::steady_timer later(io, 300ms);
    later.async_wait([&cancel](boost::system::error_code) {
      cancel.emit(boost::asio::cancellation_type::terminal);
    });
    io.run();
    EXPECT_TRUE(outcome.result.starts_with("system_error: Operation canceled")) << outcome.result;
    EXPECT_LT(outcome.elapsed, 1300ms) << "within a second of the signal";
    EXPECT_EQ(server.requests().size(), 1U);
    for (int i = 0; i < 100 && server.closed_by_client() < (reply.stall ? 1U : 0U); ++i)
      std::this_thread::sleep_for(10ms);
    EXPECT_EQ(server.closed_by_client(), reply.stall ? 1U : 0U);
  }
}

}  // namespace
