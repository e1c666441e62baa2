// The HTTP client against a scripted server on the loopback interface.
#include <strings.h>

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
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "orvo_core/async.hpp"
#include "orvo_inference/http/http_client.hpp"
#include "support/expect_throw_msg.hpp"
#include "support/loopback_server.hpp"

namespace {

using namespace std::chrono_literals;
using orvo_core::Awaitable;
using orvo_inference::http::BodyObserver;
using orvo_inference::http::ClientOptions;
using orvo_inference::http::HttpClient;
using orvo_inference::http::Request;
using orvo_inference::http::Response;
using orvo_test::LoopbackServer;
using orvo_test::RecordedRequest;
using orvo_test::Reply;

constexpr std::string_view secret = "sk-test-9f8e7d6c5b4a";

const ClientOptions quick{.connect_timeout = 2s, .read_timeout = 5s};

Request post(std::string url, std::string body = R"({"q":1})") {
  return {"POST",
          std::move(url),
          {{"Authorization", "Bearer " + std::string(secret)}},
          std::move(body)};
}

struct Observer : BodyObserver {
  Awaitable<void> on_data(std::string_view piece) override {
    ++pieces;
    all += piece;
    if (fail) throw std::runtime_error("the observer gave up");
    if (pause.count() > 0) {
      boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor, pause);
      co_await timer.async_wait(boost::asio::use_awaitable);
    }
  }
  std::size_t pieces = 0;
  std::string all;
  bool fail = false;
  std::chrono::milliseconds pause{0};  // Works this long on each piece.
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
    const Response response = co_await client->send(std::move(request), std::move(observer));
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

Outcome run_one(const std::shared_ptr<HttpClient>& client, Request request,
                std::shared_ptr<BodyObserver> observer = nullptr) {
  return run_each(client, {std::move(request)}, std::move(observer)).at(0);
}

// More bytes announced than sent, then the connection closes.
Reply cut_short(const std::string& body) {
  return {.pieces = {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + body}, .close = true};
}

// The read timeout (300 ms) bounds each wait, not the whole reply: "streamed" takes 360 ms, and
// the time the slow observer works on each piece is not waiting. Slow replies that keep above the
// low-speed limit pass.
TEST(http_client, returns_or_streams_replies_and_keeps_connections_the_reply_allows) {
  const std::vector<std::string> events = {"data: {\"n\":1}\n\n", "data: {\"n\":2}\n\n",
                                           "data: {\"n\":3}\n\n", "data: [DONE]\n\n"};
  const std::vector<std::string> text = {"ab", "cd", "ef"};
  const std::optional<std::chrono::milliseconds> none;
  const struct {
    const char* name;
    std::optional<std::chrono::milliseconds> observer;  // How long it works on each piece.
    std::string response;
    std::size_t connections;  // For two requests in a row.
    Reply reply;
  } cases[] = {
      {"json", none, R"(200 application/json {"ok":true})", 1, Reply::json(R"({"ok":true})")},
      // An error reply is collected, not streamed.
      {"error", 0ms, R"(404 application/json {"error":"no such model"})", 1,
       Reply::json(R"({"error":"no such model"})", 404)},
      {"chunked", none, "200 text/plain abcdef", 1, Reply::stream(text, 10ms, "text/plain")},
      {"close-delimited", none, "200 text/plain abcdef", 2,
       Reply::stream(text, 0ms, "text/plain", false)},
      {"no body", none, "204 application/json ", 1, Reply::json("", 204)},
      {"connection: close", none, "200 application/json {}", 2,
       Reply::json("{}", 200, "Connection: close\r\n")},
      {"streamed", 0ms, "200 text/event-stream ", 1, Reply::stream(events, 120ms)},
      {"streamed, close-delimited, slow observer", 400ms, "200 text/event-stream ", 2,
       Reply::stream(events, 500ms, "text/event-stream", false)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServer server([&](const RecordedRequest&) { return c.reply; });
    const auto client = HttpClient::create({.connect_timeout = 2s,
                                            .read_timeout = 300ms,
                                            .low_speed_limit = 10,
                                            .low_speed_time = 1s});
    const auto observer = c.observer ? std::make_shared<Observer>() : nullptr;
    if (observer) observer->pause = *c.observer;
    for (const auto& outcome :
         run_each(client, {post(server.url()), post(server.url())}, observer)) {
      EXPECT_EQ(outcome.result, c.response);
      EXPECT_EQ(outcome.idle_after, c.connections == 1 ? 1U : 0U);
    }
    EXPECT_EQ(server.accepted_connections(), c.connections);
    EXPECT_EQ(client->idle_connections(), 0U) << "its event loop is gone, so is the socket";
    if (observer) {
      const bool streamed = c.response.ends_with("event-stream ");
      std::string all;
      for (const auto& event : events) all += event;
      EXPECT_EQ(observer->all, streamed ? all + all : "");
      // Piece by piece as it arrives, not all at the end.
      EXPECT_EQ(observer->pieces > 2, streamed) << observer->pieces;
    }
  }
}

TEST(http_client, sends_method_target_headers_and_body) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::json("{}"); });
  const std::string port = std::to_string(server.port());
  Request typed = post(server.url() + "/v1/chat?stream=true", "a=1");
  typed.headers.insert(typed.headers.end(),
                       {{"content-type", "application/x-www-form-urlencoded"},
                        {"User-Agent", "custom-agent"},
                        {"Content-Length", "999"}});  // Must not contradict the body.
  const auto outcomes = run_each(HttpClient::create(quick),
                                 {post(server.url() + "/v1/embeddings"),
                                  typed,
                                  {"DELETE", "http://localhost:" + port + "/by-name", {}, ""}});
  for (const auto& outcome : outcomes) EXPECT_EQ(outcome.result, "200 application/json {}");
  std::vector<std::string> seen;
  for (const auto& request : server.requests()) {
    std::string line = request.method + " " + request.target;
    for (const char* name : {"Host", "Content-Type", "User-Agent", "Content-Length"}) {
      for (const auto& [key, value] : request.headers) {
        if (strcasecmp(key.c_str(), name) == 0) line += " | " + key + ": " + value;
      }
    }
    seen.push_back(line + " | " + request.body);
  }
  const std::string host = " | Host: 127.0.0.1:" + port;
  EXPECT_EQ(seen, (std::vector<std::string>{
                      "POST /v1/embeddings" + host +
                          " | Content-Type: application/json | User-Agent: orvo"
                          " | Content-Length: 7 | {\"q\":1}",
                      "POST /v1/chat?stream=true" + host +
                          " | content-type: application/x-www-form-urlencoded"
                          " | User-Agent: custom-agent | Content-Length: 3 | a=1",
                      "DELETE /by-name | Host: localhost:" + port + " | User-Agent: orvo | "}));
  EXPECT_EQ(server.requests()[0].header("Authorization"), "Bearer " + std::string(secret));
}

TEST(http_client, an_observer_error_ends_the_request_and_its_connection) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::stream({"a", "b"}, 20ms); });
  const auto observer = std::make_shared<Observer>();
  observer->fail = true;
  const Outcome outcome = run_one(HttpClient::create(quick), post(server.url()), observer);
  EXPECT_EQ(outcome.result, "runtime_error: the observer gave up");
  EXPECT_EQ(outcome.idle_after, 0U);
  EXPECT_EQ(observer->pieces, 1U);
}

TEST(http_client, retries_a_closed_kept_connection_once_and_never_reuses_a_failed_one) {
  LoopbackServer server([](const RecordedRequest& request) {
    if (request.target == "/hang-up") return Reply{.close = true};  // No reply at all.
    if (request.target == "/cut") return cut_short("");
    Reply reply = Reply::json(std::to_string(request.connection));
    reply.stall = request.target == "/stall";
    reply.close = request.target == "/drop";  // Announces keep-alive, then closes.
    return reply;
  });
  const struct {
    const char* target;
    const char* result;  // Its start; a reply's body is the number of its connection.
    std::size_t idle;
  } steps[] = {
      {"/drop", "200 application/json 1", 1},
      {"/ok", "200 application/json 2", 1},
      {"/stall", "TimeoutError: ", 0},
      {"/ok", "200 application/json 3", 1},
      {"/cut", "ConnectionClosedError: ", 0},  // Part of the reply came: not retried.
      {"/ok", "200 application/json 4", 1},
      {"/hang-up", "ConnectionClosedError: ", 0},  // Kept, then once on a fresh connection.
  };
  std::vector<Request> requests;
  for (const auto& step : steps) requests.push_back(post(server.url() + step.target));
  const auto outcomes =
      run_each(HttpClient::create({.connect_timeout = 2s, .read_timeout = 200ms}), requests);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    SCOPED_TRACE(steps[i].target);
    EXPECT_TRUE(outcomes[i].result.starts_with(steps[i].result)) << outcomes[i].result;
    EXPECT_EQ(outcomes[i].idle_after, steps[i].idle);
  }
  EXPECT_EQ(server.accepted_connections(), 5U);
  EXPECT_EQ(server.requests().size(), 8U);
}

// Each error names the host it was talking to; connections that fail before anything is sent
// are tried three times, others never again.
TEST(http_client, failures_raise_their_own_error_without_credentials) {
  // Static, to be the default of Case::options.
  static const ClientOptions settings{.connect_timeout = 2s,
                                      .read_timeout = 200ms,
                                      .retry = {.initial_backoff = 50ms},
                                      .max_body_bytes = 1000};
  // A server that keeps sending a little keeps the idle timer from running out: the total and
  // low-speed limits end such a call long before the server would stop.
  const Reply trickle = Reply::stream(std::vector<std::string>(50, ": still here\n\n"), 100ms);
  ClientOptions total = settings;
  total.total_timeout = 600ms;
  ClientOptions slow = settings;
  slow.low_speed_limit = 500;
  slow.low_speed_time = 600ms;
  // Listens but never accepts: the TCP handshake completes, the TLS one never does.
  boost::asio::io_context io;
  const boost::asio::ip::tcp::acceptor silent(
      io, boost::asio::ip::tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
  const std::string silent_port = std::to_string(silent.local_endpoint().port());
  const std::string free_port = std::to_string(orvo_test::unused_port());
  struct Case {
    const char* name;
    std::optional<Reply> reply;  // None: nobody answers on PORT.
    std::string error;           // Its start.
    bool observed = false;
    std::string url = "http://127.0.0.1:PORT/v1/chat";
    ClientOptions options = settings;
    std::chrono::milliseconds at_least{0};
  };
  const std::vector<Case> cases = {
      {"refused", std::nullopt, "ConnectError: cannot connect to 127.0.0.1:", false,
       "http://127.0.0.1:PORT/v1/chat", settings, 75ms},
      {"IPv6 refused", std::nullopt, "ConnectError: cannot connect to [::1]:" + free_port, false,
       "http://[::1]:" + free_port + "/", settings, 75ms},
      // The .invalid domain never resolves.
      {"unknown host", std::nullopt, "ConnectError: cannot connect to nonexistent.invalid:80",
       false, "http://nonexistent.invalid/", settings, 75ms},
      {"TLS handshake never ends",
       std::nullopt,
       "TimeoutError: cannot connect to 127.0.0.1:" + silent_port + " within 200 ms",
       false,
       "https://127.0.0.1:" + silent_port + "/",
       {.connect_timeout = 200ms, .retry = {.initial_backoff = 50ms}},
       75ms},
      {"TLS to a plain server", Reply::json("{}"), "ConnectError: ", false,
       "https://127.0.0.1:PORT/"},
      {"stream pauses too long", Reply::stream({"data: 1\n\n", "data: 2\n\n"}, 1500ms),
       "TimeoutError: ", true},
      {"closed mid-body", cut_short(R"({"partial":)"), "ConnectionClosedError: "},
      {"closed mid-body, streamed", cut_short(R"({"partial":)"), "ConnectionClosedError: ", true},
      {"closed without reply", Reply{.close = true}, "ConnectionClosedError: "},
      {"not HTTP", Reply{.pieces = {"HTTP/1.1 abc nonsense\r\n\r\n"}, .close = true},
       "MalformedReplyError: "},
      {"bad chunk",
       Reply{.pieces = {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"},
             .close = true},
       "MalformedReplyError: ", true},
      {"body over the limit", Reply::json(std::string(1001, 'x')), "MalformedReplyError: "},
      {"stream over the limit", Reply::stream({std::string(600, 'x'), std::string(600, 'y')}, 0ms),
       "MalformedReplyError: ", true},
      {"total limit", trickle, "TimeoutError: ", true, "http://127.0.0.1:PORT/", total, 600ms},
      {"low-speed limit", trickle, "TimeoutError: ", true, "http://127.0.0.1:PORT/", slow, 600ms},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<LoopbackServer> server;
    if (c.reply) server.emplace([&](const RecordedRequest&) { return *c.reply; });
    std::string url = c.url;
    if (const auto at = url.find("PORT"); at != std::string::npos) {
      url.replace(at, 4, std::to_string(server ? server->port() : orvo_test::unused_port()));
    }
    const std::size_t host = url.find("//") + 2;
    const std::string endpoint = url.substr(host, url.find('/', host) - host);
    const Outcome outcome =
        run_one(HttpClient::create(c.options), post(url + "?key=" + std::string(secret)),
                c.observed ? std::make_shared<Observer>() : nullptr);
    EXPECT_TRUE(outcome.result.starts_with(c.error)) << outcome.result;
    EXPECT_NE(outcome.result.find(endpoint), std::string::npos) << outcome.result;
    EXPECT_EQ(outcome.result.find(secret), std::string::npos) << outcome.result;
    EXPECT_EQ(outcome.idle_after, 0U);
    EXPECT_GE(outcome.elapsed, std::max(c.at_least, c.error.starts_with("Timeout") ? 200ms : 0ms));
    EXPECT_LT(outcome.elapsed, 1400ms);  // Well before the server would have gone on.
    if (server && url.starts_with("http:")) {
      EXPECT_EQ(server->requests().size(), 1U) << "a fresh connection is never retried";
    }
  }
}

TEST(http_client, keeps_at_most_max_idle_connections_per_host) {
  // All four are under way together.
  Reply late = Reply::json("{}");
  late.pieces.insert(late.pieces.begin(), "");
  late.delay = 50ms;
  LoopbackServer server([&late](const RecordedRequest&) { return late; });
  for (const auto& [max_idle, threads] :
       std::vector<std::pair<std::size_t, std::size_t>>{{0, 1}, {2, 1}, {8, 1}, {8, 2}}) {
    SCOPED_TRACE(testing::Message() << max_idle << " kept, " << threads << " threads");
    const auto client = HttpClient::create(
        {.connect_timeout = 2s, .read_timeout = 5s, .max_idle_connections = max_idle});
    boost::asio::io_context io;
    std::vector<Outcome> outcomes(4);
    for (auto& outcome : outcomes) {
      boost::asio::co_spawn(
          io, attempt(client, post(server.url()), nullptr),
          [&outcome](const std::exception_ptr&, Outcome got) { outcome = std::move(got); });
    }
    std::vector<std::thread> helpers;
    for (std::size_t i = 1; i < threads; ++i) helpers.emplace_back([&io] { io.run(); });
    io.run();
    for (auto& helper : helpers) helper.join();
    std::size_t most = 0;
    for (const auto& outcome : outcomes) {
      EXPECT_EQ(outcome.result, "200 application/json {}");
      most = std::max(most, outcome.idle_after);
    }
    EXPECT_EQ(most, std::min<std::size_t>(max_idle, 4))
        << "the last to finish sees the others returned";
  }
}

TEST(http_client, rejects_bad_urls_and_headers_before_connecting) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::json("{}"); });
  const std::string port = std::to_string(server.port());
  std::vector<Request> requests(3, post(server.url()));
  requests[0].headers.emplace_back("X-Key", std::string(secret) + "\r\nInjected: yes");
  requests[1].headers.emplace_back("Bad Name", "x");
  requests[2].method = "GET /x HTTP/1.1\r\n";
  const std::vector<std::string> urls = {
      "127.0.0.1:" + port + "/v1",
      "ftp://127.0.0.1:" + port + "/",
      "http://",
      "http:///v1",
      "http://127.0.0.1:0/",
      "http://127.0.0.1:65536/",
      "http://127.0.0.1:8a/",
      "http://user:" + std::string(secret) + "@127.0.0.1:" + port + "/",
      "http://[::1/",
      "http://::1:" + port + "/",
      "http://127.0.0.1:" + port + "/a b"};
  for (const auto& url : urls) requests.push_back(post(url));
  const auto outcomes = run_each(HttpClient::create(quick), requests);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    SCOPED_TRACE(requests[i].url);
    EXPECT_TRUE(outcomes[i].result.starts_with("ValueError: ")) << outcomes[i].result;
    EXPECT_EQ(outcomes[i].result.find(secret), std::string::npos);
  }
  EXPECT_EQ(server.accepted_connections(), 0U);
}

TEST(http_client, retries_busy_and_unreachable_servers_as_the_policy_says) {
  const auto busy = [](unsigned status, std::string wait) {
    return Reply::json("", status, "Retry-After: " + wait + "\r\n");
  };
  const Reply interim{
      .pieces = {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early\r\nLink: x\r\n\r\n"
                 "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"}};
  const struct {
    std::vector<Reply> replies;  // In turn; the last one repeats.
    std::string outcome;         // Its result, after this many requests.
    std::chrono::milliseconds at_least;
  } cases[] = {
      {{busy(503, ""), busy(429, "0"), Reply::json("ok")}, "200 application/json ok 3", 0ms},
      // Retry-After is honoured.
      {{busy(429, "1"), Reply::json("ok")}, "200 application/json ok 2", 1s},
      {{Reply::json("busy", 503)},
       "503 application/json busy 3",
       0ms},                                                  // Two retries, then given up.
      {{busy(503, "3600")}, "503 application/json  1", 0ms},  // Asks for a wait beyond the longest.
      {{interim}, "200  ok 1", 0ms},                          // Interim (1xx) replies are skipped.
  };
  for (const auto& c : cases) {
    std::size_t seen = 0;
    LoopbackServer server(
        [&](const RecordedRequest&) { return c.replies[std::min(c.replies.size(), ++seen) - 1]; });
    const Outcome outcome =
        run_one(HttpClient::create({.retry = {.initial_backoff = 50ms}}), post(server.url()));
    EXPECT_EQ(outcome.result + " " + std::to_string(server.requests().size()), c.outcome);
    EXPECT_GE(outcome.elapsed, c.at_least);
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

// Certificates from tests/support/make_certificates.cmake; the server speaks TLS 1.2 at most.
TEST(http_client, verifies_tls_peers_and_says_why_one_is_refused) {
  const std::string dir = ORVO_TEST_CERTIFICATES;
  const ClientOptions by_file{.ca_file = dir + "/ca.pem"};
  ClientOptions tls1_3 = by_file;
  tls1_3.min_tls_version = orvo_inference::http::TlsVersion::tls1_3;
  const struct {
    std::string certificate;
    std::string host;
    ClientOptions options;
    std::string error;
  } cases[] = {
      {"good", "127.0.0.1", by_file, "200 application/json ok"},
      {"good", "localhost", {.ca_dir = dir + "/trusted"}, "200 application/json ok"},
      {"stranger", "127.0.0.1", by_file, "failed: unable to get local issuer certificate"},
      {"expired", "127.0.0.1", by_file, "failed: certificate has expired"},
      {"other-host", "localhost", by_file, "failed: hostname mismatch"},
      {"good", "127.0.0.1", tls1_3, "protocol version"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.certificate + " for " + c.host);
    LoopbackServer server([](const RecordedRequest&) { return Reply::json("ok"); },
                          dir + "/" + c.certificate + ".pem");
    const Outcome outcome =
        run_one(HttpClient::create(c.options),
                post("https://" + c.host + ":" + std::to_string(server.port()) + "/"));
    EXPECT_NE(outcome.result.find(c.error), std::string::npos) << outcome.result;
    EXPECT_LT(outcome.elapsed, 500ms);  // A refused handshake is not retried.
  }
}

}  // namespace
