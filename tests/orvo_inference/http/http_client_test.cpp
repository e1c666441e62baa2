// The HTTP client against a scripted server on the loopback interface.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "orvo_core/async.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_inference/errors.hpp"
#include "orvo_inference/http/http_client.hpp"
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

ClientOptions quick_options() {
  ClientOptions options;
  options.connect_timeout = 2s;
  options.read_timeout = 5s;
  return options;
}

Request post(std::string url, std::string body = R"({"q":1})") {
  Request request;
  request.url = std::move(url);
  request.body = std::move(body);
  request.headers.emplace_back("Authorization", "Bearer " + std::string(secret));
  return request;
}

Request get(std::string url) {
  Request request;
  request.method = "GET";
  request.url = std::move(url);
  return request;
}

class CollectingObserver : public BodyObserver {
 public:
  Awaitable<void> on_data(std::string_view piece) override {
    pieces.emplace_back(piece);
    if (fail) throw std::runtime_error("the observer gave up");
    if (pause.count() > 0) {
      const auto executor = co_await boost::asio::this_coro::executor;
      boost::asio::steady_timer timer(executor);
      timer.expires_after(pause);
      co_await timer.async_wait(boost::asio::use_awaitable);
    }
  }
  std::string joined() const {
    std::string all;
    for (const auto& piece : pieces) all += piece;
    return all;
  }
  std::vector<std::string> pieces;
  bool fail = false;
  std::chrono::milliseconds pause{0};  // Works this long on each piece.
};

// What one `send` gave: a response or an error.
struct Outcome {
  std::optional<Response> response;
  std::exception_ptr error;
  std::chrono::milliseconds elapsed{0};
  std::size_t idle_after = 0;  // idle_connections() right after it.
};

std::string kind_of(const std::exception_ptr& error) {
  if (!error) return "none";
  try {
    std::rethrow_exception(error);
  } catch (const orvo_inference::ConnectError&) {
    return "ConnectError";
  } catch (const orvo_inference::TimeoutError&) {
    return "TimeoutError";
  } catch (const orvo_inference::ConnectionClosedError&) {
    return "ConnectionClosedError";
  } catch (const orvo_inference::MalformedReplyError&) {
    return "MalformedReplyError";
  } catch (const orvo_core::ValueError&) {
    return "ValueError";
  } catch (const std::exception& other) {
    return std::string("other: ") + other.what();
  }
}

std::string message_of(const std::exception_ptr& error) {
  if (!error) return "";
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  }
}

Awaitable<Outcome> attempt(std::shared_ptr<HttpClient> client, Request request,
                           std::shared_ptr<BodyObserver> observer) {
  Outcome outcome;
  const auto start = std::chrono::steady_clock::now();
  try {
    outcome.response = co_await client->send(std::move(request), std::move(observer));
  } catch (...) {
    outcome.error = std::current_exception();
  }
  outcome.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  outcome.idle_after = client->idle_connections();
  co_return outcome;
}

// Sends one after the other on one event loop, so that kept connections can be reused.
Awaitable<std::vector<Outcome>> attempt_each(std::shared_ptr<HttpClient> client,
                                             std::vector<Request> requests) {
  std::vector<Outcome> outcomes;
  for (auto& request : requests) {
    Outcome outcome = co_await attempt(client, std::move(request), nullptr);
    outcomes.push_back(std::move(outcome));
  }
  co_return outcomes;
}

Outcome run_one(const std::shared_ptr<HttpClient>& client, Request request,
                std::shared_ptr<BodyObserver> observer = nullptr) {
  return orvo_core::run_sync(attempt(client, std::move(request), std::move(observer)));
}

std::vector<Outcome> run_each(const std::shared_ptr<HttpClient>& client,
                              std::vector<Request> requests) {
  return orvo_core::run_sync(attempt_each(client, std::move(requests)));
}

// ---------------------------------------------------------------------------------------------

TEST(http_client, returns_complete_replies_whatever_their_status) {
  Reply not_found = Reply::json(R"({"error":"no such model"})", 404);
  Reply overloaded = Reply::json("busy", 503);
  overloaded.content_type = "text/plain";
  Reply chunked = Reply::stream({"ab", "cd", "ef"}, 10ms, "text/plain");
  Reply close_delimited = chunked;
  close_delimited.chunked = false;
  Reply empty = Reply::json("", 204);
  empty.content_type.clear();
  struct Case {
    const char* name;
    Reply reply;
    unsigned status;
    std::string content_type;
    std::string body;
  };
  const std::vector<Case> cases = {
      {"json", Reply::json(R"({"ok":true})"), 200, "application/json", R"({"ok":true})"},
      {"client error", not_found, 404, "application/json", R"({"error":"no such model"})"},
      {"server error", overloaded, 503, "text/plain", "busy"},
      {"chunked", chunked, 200, "text/plain", "abcdef"},
      {"close-delimited", close_delimited, 200, "text/plain", "abcdef"},
      {"no body", empty, 204, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServer server([&](const RecordedRequest&) { return c.reply; });
    const Outcome outcome = run_one(HttpClient::create(quick_options()), post(server.url()));
    ASSERT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
    EXPECT_EQ(outcome.response->status, c.status);
    EXPECT_EQ(outcome.response->content_type, c.content_type);
    EXPECT_EQ(outcome.response->body, c.body);
  }
}

TEST(http_client, sends_method_target_headers_and_body) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::json("{}"); });
  const std::string by_address = "127.0.0.1:" + std::to_string(server.port());

  Request with_type = post(server.url() + "/v1/chat?stream=true", "a=1");
  with_type.headers.emplace_back("content-type", "application/x-www-form-urlencoded");
  with_type.headers.emplace_back("User-Agent", "custom-agent");
  with_type.headers.emplace_back("Content-Length", "999");  // Must not contradict the body.
  Request bare = get(server.url());
  bare.method = "DELETE";
  Request by_name = get("http://localhost:" + std::to_string(server.port()) + "/by-name");

  const auto outcomes = run_each(HttpClient::create(quick_options()),
                                 {post(server.url() + "/v1/embeddings"), with_type,
                                  get(server.url() + "/models"), bare, by_name});
  for (const auto& outcome : outcomes) {
    ASSERT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 5U);

  struct Expect {
    std::string method, target, host, content_type, user_agent, content_length, body;
  };
  const std::vector<Expect> expected = {
      {"POST", "/v1/embeddings", by_address, "application/json", "orvo", "7", R"({"q":1})"},
      {"POST", "/v1/chat?stream=true", by_address, "application/x-www-form-urlencoded",
       "custom-agent", "3", "a=1"},
      {"GET", "/models", by_address, "", "orvo", "", ""},
      {"DELETE", "/", by_address, "", "orvo", "", ""},
      {"GET", "/by-name", "localhost:" + std::to_string(server.port()), "", "orvo", "", ""},
  };
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(i);
    const auto& got = requests[i];
    EXPECT_EQ(got.method, expected[i].method);
    EXPECT_EQ(got.target, expected[i].target);
    EXPECT_EQ(got.header("Host"), expected[i].host);
    EXPECT_EQ(got.header("Content-Type"), expected[i].content_type);
    EXPECT_LE(got.header_count("Content-Type"), 1U);
    EXPECT_EQ(got.header("User-Agent"), expected[i].user_agent);
    EXPECT_EQ(got.header_count("User-Agent"), 1U);
    EXPECT_EQ(got.header("Content-Length"), expected[i].content_length);
    EXPECT_LE(got.header_count("Content-Length"), 1U);
    EXPECT_EQ(got.body, expected[i].body);
  }
  EXPECT_EQ(requests[0].header("Authorization"), "Bearer " + std::string(secret));
}

TEST(http_client, hands_a_streamed_body_to_the_observer_as_it_arrives) {
  const std::vector<std::string> events = {"data: {\"n\":1}\n\n", "data: {\"n\":2}\n\n",
                                           "data: {\"n\":3}\n\n", "data: [DONE]\n\n"};
  for (const bool chunked : {true, false}) {
    SCOPED_TRACE(chunked ? "chunked" : "close-delimited");
    LoopbackServer server([&](const RecordedRequest&) {
      Reply reply = Reply::stream(events, 40ms);
      reply.chunked = chunked;
      return reply;
    });
    const auto observer = std::make_shared<CollectingObserver>();
    const Outcome outcome =
        run_one(HttpClient::create(quick_options()), post(server.url()), observer);
    ASSERT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
    EXPECT_EQ(outcome.response->status, 200U);
    EXPECT_EQ(outcome.response->content_type, "text/event-stream");
    EXPECT_EQ(outcome.response->body, "");
    EXPECT_GT(observer->pieces.size(), 1U);
    EXPECT_EQ(observer->joined(), events[0] + events[1] + events[2] + events[3]);
  }
}

TEST(http_client, collects_error_replies_instead_of_streaming_them) {
  LoopbackServer server(
      [](const RecordedRequest&) { return Reply::json(R"({"error":"rate limited"})", 429); });
  const auto observer = std::make_shared<CollectingObserver>();
  const Outcome outcome =
      run_one(HttpClient::create(quick_options()), post(server.url()), observer);
  ASSERT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
  EXPECT_EQ(outcome.response->status, 429U);
  EXPECT_EQ(outcome.response->body, R"({"error":"rate limited"})");
  EXPECT_TRUE(observer->pieces.empty());
}

TEST(http_client, an_observer_error_ends_the_request_and_its_connection) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::stream({"a", "b"}, 20ms); });
  const auto observer = std::make_shared<CollectingObserver>();
  observer->fail = true;
  const Outcome outcome =
      run_one(HttpClient::create(quick_options()), post(server.url()), observer);
  EXPECT_EQ(kind_of(outcome.error), "other: the observer gave up");
  EXPECT_EQ(outcome.idle_after, 0U);
  EXPECT_EQ(observer->pieces.size(), 1U);
}

TEST(http_client, reuses_a_connection_only_when_the_reply_allows_it) {
  Reply closing = Reply::json("{}");
  closing.keep_alive = false;
  Reply close_delimited = Reply::stream({"x", "y"}, 0ms);
  close_delimited.chunked = false;
  struct Case {
    const char* name;
    Reply reply;
    std::size_t connections;
    std::size_t idle;
  };
  const std::vector<Case> cases = {
      {"keep-alive", Reply::json("{}"), 1, 1},
      {"keep-alive, chunked", Reply::stream({"x", "y"}, 0ms), 1, 1},
      {"connection: close", closing, 3, 0},
      {"close-delimited body", close_delimited, 3, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServer server([&](const RecordedRequest&) { return c.reply; });
    const auto outcomes = run_each(HttpClient::create(quick_options()),
                                   {post(server.url()), post(server.url()), post(server.url())});
    for (const auto& outcome : outcomes) {
      EXPECT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
      EXPECT_EQ(outcome.idle_after, c.idle);
    }
    EXPECT_EQ(server.accepted_connections(), c.connections);
    EXPECT_EQ(server.requests().size(), 3U);
  }
}

TEST(http_client, replaces_a_kept_connection_that_the_server_closed) {
  LoopbackServer server([](const RecordedRequest& request) {
    Reply reply = Reply::json(R"({"n":)" + std::to_string(request.connection) + "}");
    reply.close_after = true;  // Announces keep-alive, then drops the connection.
    return reply;
  });
  const auto outcomes =
      run_each(HttpClient::create(quick_options()), {post(server.url()), post(server.url())});
  ASSERT_EQ(outcomes.size(), 2U);
  for (const auto& outcome : outcomes) {
    ASSERT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
  }
  EXPECT_EQ(outcomes[1].response->body, R"({"n":2})");
  EXPECT_EQ(server.accepted_connections(), 2U);
  EXPECT_EQ(server.requests().size(), 2U);
}

TEST(http_client, retries_on_a_fresh_connection_only_once) {
  LoopbackServer server([](const RecordedRequest& request) {
    if (request.target == "/first") return Reply::json("{}");
    Reply hang_up;  // Closes without a byte of reply, on kept and fresh connections alike.
    hang_up.raw = "";
    hang_up.keep_alive = false;
    return hang_up;
  });
  const auto outcomes = run_each(HttpClient::create(quick_options()),
                                 {post(server.url() + "/first"), post(server.url() + "/second")});
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_EQ(kind_of(outcomes[0].error), "none");
  EXPECT_EQ(kind_of(outcomes[1].error), "ConnectionClosedError");
  EXPECT_EQ(outcomes[1].idle_after, 0U);
  EXPECT_EQ(server.accepted_connections(), 2U);
  EXPECT_EQ(server.requests().size(), 3U);  // The first, and the second twice.
}

TEST(http_client, failures_raise_their_own_error_without_credentials) {
  ClientOptions options = quick_options();
  options.read_timeout = 200ms;
  options.max_body_bytes = 1000;

  Reply stall;
  stall.stall = true;
  Reply late;
  late.header_delay = 1500ms;
  Reply mid_body = Reply::json(R"({"partial":)");
  mid_body.close_mid_body = true;
  Reply stream_stops = Reply::stream({"data: 1\n\n", "data: 2\n\n"}, 1500ms);
  Reply hang_up;
  hang_up.raw = "";
  hang_up.keep_alive = false;
  Reply garbage;
  garbage.raw = "HTTP/1.1 abc nonsense\r\n\r\n";
  garbage.keep_alive = false;
  Reply bad_chunk;
  bad_chunk.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n";
  bad_chunk.keep_alive = false;
  Reply oversized = Reply::json(std::string(1001, 'x'));
  Reply oversized_stream = Reply::stream({std::string(600, 'x'), std::string(600, 'y')}, 0ms);

  struct Case {
    const char* name;
    std::optional<Reply> reply;  // None: the URL's port has no server.
    std::string kind;
    bool observed = false;
    std::string scheme = "http";
  };
  const std::vector<Case> cases = {
      {"refused", std::nullopt, "ConnectError"},
      {"TLS to a plain server", Reply::json("{}"), "ConnectError", false, "https"},
      {"stall", stall, "TimeoutError"},
      {"headers too late", late, "TimeoutError"},
      {"stream pauses too long", stream_stops, "TimeoutError", true},
      {"closed mid-body", mid_body, "ConnectionClosedError"},
      {"closed mid-body, streamed", mid_body, "ConnectionClosedError", true},
      {"closed without reply", hang_up, "ConnectionClosedError"},
      {"not HTTP", garbage, "MalformedReplyError"},
      {"bad chunk", bad_chunk, "MalformedReplyError", true},
      {"body over the limit", oversized, "MalformedReplyError"},
      {"stream over the limit", oversized_stream, "MalformedReplyError", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<LoopbackServer> server;
    unsigned short port = 0;
    if (c.reply) {
      server.emplace([&](const RecordedRequest&) { return *c.reply; });
      port = server->port();
    } else {
      port = orvo_test::unused_port();
    }
    const std::string endpoint = "127.0.0.1:" + std::to_string(port);
    Request request = post(c.scheme + "://" + endpoint + "/v1/chat?key=" + std::string(secret));
    const auto observer = c.observed ? std::make_shared<CollectingObserver>() : nullptr;
    const Outcome outcome = run_one(HttpClient::create(options), request, observer);

    EXPECT_EQ(kind_of(outcome.error), c.kind) << message_of(outcome.error);
    const std::string message = message_of(outcome.error);
    EXPECT_NE(message.find(endpoint), std::string::npos) << message;
    EXPECT_EQ(message.find(secret), std::string::npos) << message;
    EXPECT_EQ(outcome.idle_after, 0U);
    if (c.kind == "TimeoutError") {
      EXPECT_GE(outcome.elapsed, options.read_timeout);
      EXPECT_LT(outcome.elapsed, 1400ms);  // Well before the server would have gone on.
    }
    // A fresh connection is never retried.
    if (server && c.scheme == "http") {
      EXPECT_EQ(server->requests().size(), 1U);
    }
  }
}

TEST(http_client, the_read_timeout_bounds_each_wait_not_the_whole_reply) {
  ClientOptions options = quick_options();
  options.read_timeout = 300ms;
  struct Case {
    const char* name;
    std::vector<std::string> pieces;
    std::chrono::milliseconds server_pause;
    std::chrono::milliseconds observer_pause;  // Time spent in the observer is not waiting.
  };
  // Either way the whole reply takes longer than the read timeout.
  const std::vector<Case> cases = {
      {"slow server", {"1", "2", "3", "4", "5", "6", "7"}, 100ms, 0ms},
      // The next piece comes after the observer is done, so the client really waits for it.
      {"slow observer", {"1", "2", "3"}, 500ms, 400ms},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServer server(
        [&](const RecordedRequest&) { return Reply::stream(c.pieces, c.server_pause); });
    const auto observer = std::make_shared<CollectingObserver>();
    observer->pause = c.observer_pause;
    const Outcome outcome = run_one(HttpClient::create(options), post(server.url()), observer);
    ASSERT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
    std::string all;
    for (const auto& piece : c.pieces) all += piece;
    EXPECT_EQ(observer->joined(), all);
  }
}

TEST(http_client, works_again_after_failures) {
  ClientOptions options = quick_options();
  options.read_timeout = 200ms;
  LoopbackServer server([](const RecordedRequest& request) {
    Reply reply = Reply::json(R"({"ok":true})");
    if (request.target == "/stall") reply.stall = true;
    if (request.target == "/cut") reply.close_mid_body = true;
    return reply;
  });
  const auto outcomes = run_each(
      HttpClient::create(options),
      {post(server.url() + "/ok"), post(server.url() + "/stall"), post(server.url() + "/ok"),
       post(server.url() + "/cut"), post(server.url() + "/ok")});
  ASSERT_EQ(outcomes.size(), 5U);
  const std::vector<std::string> kinds = {"none", "TimeoutError", "none", "ConnectionClosedError",
                                          "none"};
  const std::vector<std::size_t> idle = {1, 0, 1, 0, 1};
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(kind_of(outcomes[i].error), kinds[i]) << message_of(outcomes[i].error);
    EXPECT_EQ(outcomes[i].idle_after, idle[i]);
  }
  // The connections that failed are not used again: one for /ok then /stall, one for /ok then
  // /cut, one for the last /ok.
  EXPECT_EQ(server.accepted_connections(), 3U);
  EXPECT_EQ(server.requests().size(), 5U);
}

// Sends `count` copies at once on an event loop run by `threads` threads.
std::vector<Outcome> run_together(const std::shared_ptr<HttpClient>& client, const Request& request,
                                  std::size_t count, std::size_t threads) {
  boost::asio::io_context io;
  std::vector<Outcome> outcomes(count);
  for (std::size_t i = 0; i < count; ++i) {
    auto store = [&outcomes, i](const std::exception_ptr&, Outcome outcome) {
      outcomes[i] = std::move(outcome);
    };
    boost::asio::co_spawn(io, attempt(client, request, nullptr), store);
  }
  std::vector<std::thread> helpers;
  for (std::size_t i = 1; i < threads; ++i) helpers.emplace_back([&io] { io.run(); });
  io.run();
  for (auto& helper : helpers) helper.join();
  return outcomes;
}

TEST(http_client, keeps_at_most_max_idle_connections_per_host) {
  LoopbackServer server([](const RecordedRequest&) {
    Reply reply = Reply::json("{}");
    reply.header_delay = 50ms;  // All are under way together.
    return reply;
  });
  struct Case {
    std::size_t max_idle;
    std::size_t threads;
  };
  for (const Case c : {Case{0, 1}, Case{2, 1}, Case{8, 1}, Case{8, 2}}) {
    SCOPED_TRACE(testing::Message() << c.max_idle << " kept, " << c.threads << " threads");
    ClientOptions options = quick_options();
    options.max_idle_connections = c.max_idle;
    const auto outcomes =
        run_together(HttpClient::create(options), post(server.url()), 4, c.threads);
    std::size_t most = 0;
    for (const auto& outcome : outcomes) {
      EXPECT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
      most = std::max(most, outcome.idle_after);
    }
    // The last to finish sees the others returned.
    EXPECT_EQ(most, std::min<std::size_t>(c.max_idle, 4));
  }
}

TEST(http_client, drops_kept_connections_when_their_event_loop_ends) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::json("{}"); });
  const auto client = HttpClient::create(quick_options());
  for (int round = 0; round < 2; ++round) {
    const Outcome outcome = run_one(client, post(server.url()));
    EXPECT_EQ(kind_of(outcome.error), "none") << message_of(outcome.error);
    EXPECT_EQ(outcome.idle_after, 1U);
    EXPECT_EQ(client->idle_connections(), 0U);  // Its loop is gone, so is the socket.
  }
  EXPECT_EQ(server.accepted_connections(), 2U);
}

TEST(http_client, rejects_bad_urls_and_headers_before_connecting) {
  LoopbackServer server([](const RecordedRequest&) { return Reply::json("{}"); });
  const std::string port = std::to_string(server.port());
  Request bad_value = post(server.url());
  bad_value.headers.emplace_back("X-Key", std::string(secret) + "\r\nInjected: yes");
  Request bad_name = post(server.url());
  bad_name.headers.emplace_back("Bad Name", "x");
  Request bad_method = post(server.url());
  bad_method.method = "GET /x HTTP/1.1\r\n";

  std::vector<Request> requests = {bad_value, bad_name, bad_method};
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
  const auto outcomes = run_each(HttpClient::create(quick_options()), requests);
  ASSERT_EQ(outcomes.size(), requests.size());
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    SCOPED_TRACE(requests[i].url);
    EXPECT_EQ(kind_of(outcomes[i].error), "ValueError");
    EXPECT_EQ(message_of(outcomes[i].error).find(secret), std::string::npos);
  }
  EXPECT_EQ(server.accepted_connections(), 0U);
}

TEST(http_client, connect_failures_name_the_host) {
  // Listens but never accepts: the TCP handshake completes, the TLS one never does.
  boost::asio::io_context io;
  const boost::asio::ip::tcp::acceptor silent(
      io, boost::asio::ip::tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
  const std::string silent_port = std::to_string(silent.local_endpoint().port());
  const std::string free_port = std::to_string(orvo_test::unused_port());
  struct Case {
    std::string url;
    std::chrono::milliseconds connect_timeout;
    std::string kind;
    std::string names;
  };
  const std::vector<Case> cases = {
      {"https://127.0.0.1:" + silent_port + "/", 200ms, "TimeoutError",
       "127.0.0.1:" + silent_port + " within 200 ms"},
      {"http://[::1]:" + free_port + "/", 5s, "ConnectError", "[::1]:" + free_port},
      // The .invalid domain never resolves.
      {"http://nonexistent.invalid/", 5s, "ConnectError", "nonexistent.invalid:80"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    ClientOptions options = quick_options();
    options.connect_timeout = c.connect_timeout;
    const Outcome outcome = run_one(HttpClient::create(options), post(c.url));
    EXPECT_EQ(kind_of(outcome.error), c.kind) << message_of(outcome.error);
    EXPECT_NE(message_of(outcome.error).find(c.names), std::string::npos)
        << message_of(outcome.error);
    EXPECT_LT(outcome.elapsed, c.connect_timeout + 1s);
  }
}

}  // namespace
