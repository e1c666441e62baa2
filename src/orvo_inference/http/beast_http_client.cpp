#include "orvo_inference/http/http_client.hpp"

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/experimental/concurrent_channel.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/system/system_error.hpp>

#include "orvo_core/errors.hpp"
#include "orvo_inference/errors.hpp"

namespace orvo_inference::http {

BodyObserver::~BodyObserver() = default;

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace bhttp = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;
using OutgoingMessage = bhttp::request<bhttp::string_body>;
using ReplyParser = bhttp::response_parser<bhttp::string_body>;
using orvo_core::Awaitable;

// ---------------------------------------------------------------------------------------------
// URLs

struct Url {
  bool https = false;
  std::string host;         // Without the brackets of an IPv6 literal.
  std::string port;         // Digits only.
  std::string target;       // Origin form: path and query.
  std::string host_header;  // As the Host header wants it: the port only when not the default.
  std::string endpoint;     // host:port for messages and pool keys.
  std::string pool_key;     // Scheme, host and port.
};

[[noreturn]] void invalid_url(const std::string& reason) {
  // The URL itself stays out: its query may carry a key.
  throw orvo_core::ValueError("invalid URL: " + reason);
}

bool is_ip_literal(const std::string& host) {
  error_code ec;
  (void)asio::ip::make_address(host, ec);
  return !ec;
}

Url parse_url(const std::string& text) {
  Url url;
  const auto scheme_end = text.find("://");
  if (scheme_end == std::string::npos) invalid_url("it must start with http:// or https://");
  std::string scheme = text.substr(0, scheme_end);
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (scheme == "https") {
    url.https = true;
  } else if (scheme != "http") {
    invalid_url("unsupported scheme '" + scheme.substr(0, 16) + "', use http or https");
  }

  const std::string_view rest = std::string_view(text).substr(scheme_end + 3);
  const auto authority_end = rest.find_first_of("/?#");
  const std::string_view authority = rest.substr(0, authority_end);
  std::string target(authority_end == std::string_view::npos ? std::string_view()
                                                             : rest.substr(authority_end));
  if (const auto hash = target.find('#'); hash != std::string::npos) target.resize(hash);
  if (target.empty() || target.front() != '/') target.insert(0, 1, '/');
  for (const char c : target) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
      invalid_url("the path contains a space or a control character");
    }
  }

  if (authority.find('@') != std::string_view::npos)
    invalid_url("user information is not supported");
  if (authority.empty()) invalid_url("missing host");
  std::string_view port_text;
  bool bracketed = false;
  if (authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) invalid_url("unterminated IPv6 address");
    url.host = std::string(authority.substr(1, close - 1));
    error_code ec;
    (void)asio::ip::make_address_v6(url.host, ec);
    if (ec) invalid_url("bad IPv6 address");
    const std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') invalid_url("unexpected text after the IPv6 address");
      port_text = after.substr(1);
    }
    bracketed = true;
  } else {
    const auto colon = authority.find(':');
    url.host = std::string(authority.substr(0, colon));
    if (colon != std::string_view::npos) port_text = authority.substr(colon + 1);
    if (port_text.find(':') != std::string_view::npos) {
      invalid_url("an IPv6 address must be in brackets");
    }
  }
  if (url.host.empty()) invalid_url("missing host");
  for (const char c : url.host) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '\\') {
      invalid_url("bad character in the host name");
    }
  }

  const std::string default_port = url.https ? "443" : "80";
  if (port_text.empty()) {
    url.port = default_port;
  } else {
    unsigned long value = 0;
    for (const char c : port_text) {
      if (c < '0' || c > '9' || port_text.size() > 5) invalid_url("bad port");
      value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    if (value == 0 || value > 65535) invalid_url("bad port");
    url.port = std::to_string(value);
  }

  const std::string host_part = bracketed ? "[" + url.host + "]" : url.host;
  url.host_header = url.port == default_port ? host_part : host_part + ":" + url.port;
  url.endpoint = host_part + ":" + url.port;
  url.pool_key = (url.https ? "https://" : "http://") + url.endpoint;
  url.target = std::move(target);
  return url;
}

// ---------------------------------------------------------------------------------------------
// Requests

bool is_token(std::string_view text) {
  if (text.empty()) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return std::isalnum(u) != 0 ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

bool is_field_value(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return (u < 0x20 && c != '\t') || u == 0x7f;
  });
}

OutgoingMessage build_message(Request& request, const Url& url) {
  if (!is_token(request.method)) throw orvo_core::ValueError("invalid HTTP method");
  OutgoingMessage message;
  if (const auto verb = bhttp::string_to_verb(request.method); verb != bhttp::verb::unknown) {
    message.method(verb);
  } else {
    message.method_string(request.method);
  }
  message.target(url.target);
  message.version(11);
  for (const auto& [name, value] : request.headers) {
    if (!is_token(name)) throw orvo_core::ValueError("invalid HTTP header name");
    // The name is safe to show; the value may be a credential.
    if (!is_field_value(value)) {
      throw orvo_core::ValueError("HTTP header '" + name +
                                  "' has a control character in its value");
    }
    message.insert(name, value);
  }
  // The framing is ours to decide: a caller's length could contradict the body.
  message.erase(bhttp::field::content_length);
  message.erase(bhttp::field::transfer_encoding);
  if (message.find(bhttp::field::host) == message.end()) {
    message.set(bhttp::field::host, url.host_header);
  }
  if (message.find(bhttp::field::user_agent) == message.end()) {
    message.set(bhttp::field::user_agent, "orvo");
  }
  if (!request.body.empty() && message.find(bhttp::field::content_type) == message.end()) {
    message.set(bhttp::field::content_type, "application/json");
  }
  message.body() = std::move(request.body);
  message.prepare_payload();
  return message;
}

// ---------------------------------------------------------------------------------------------
// Connections

// A TLS handshake that either side refused (a certificate that failed verification, no common
// version) fails again: no retry.
class HandshakeRefusedError : public ConnectError {
 public:
  using ConnectError::ConnectError;
};

// A cancelled call ends at once as cancelled: it must not look like a failure worth a retry.
error_code checked(const error_code& ec) {
  if (ec == asio::error::operation_aborted) throw boost::system::system_error(ec);
  return ec;
}

class Connection {
 public:
  Connection(const asio::any_io_executor& executor, ssl::context* tls_context, std::string key,
             asio::execution_context* context)
      : key(std::move(key)), context(context) {
    if (tls_context != nullptr) {
      tls_.emplace(executor, *tls_context);
    } else {
      plain_.emplace(executor);
    }
  }

  beast::tcp_stream& tcp() { return tls_ ? beast::get_lowest_layer(*tls_) : *plain_; }
  ssl::stream<beast::tcp_stream>::native_handle_type tls_handle() { return tls_->native_handle(); }
  bool is_tls() const { return tls_.has_value(); }
  // OpenSSL's own name check, so that a mismatch is reported as one.
  bool set_verification(bool verify, const std::string& host) {
    if (!verify) {
      tls_->set_verify_mode(ssl::verify_none);
      return true;
    }
    tls_->set_verify_mode(ssl::verify_peer);
    X509_VERIFY_PARAM* param = SSL_get0_param(tls_handle());
    return is_ip_literal(host) ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1
                               : SSL_set1_host(tls_handle(), host.c_str()) == 1;
  }

  Awaitable<error_code> connect(std::vector<tcp::endpoint> endpoints) {
    error_code ec;
    auto token = asio::redirect_error(asio::use_awaitable, ec);
    co_await tcp().async_connect(endpoints, token);
    co_return checked(ec);
  }

  Awaitable<error_code> handshake() {
    error_code ec;
    auto token = asio::redirect_error(asio::use_awaitable, ec);
    co_await tls_->async_handshake(ssl::stream_base::client, token);
    co_return checked(ec);
  }

  Awaitable<error_code> write(const OutgoingMessage* message) {
    error_code ec;
    auto token = asio::redirect_error(asio::use_awaitable, ec);
    if (tls_) {
      co_await bhttp::async_write(*tls_, *message, token);
    } else {
      co_await bhttp::async_write(*plain_, *message, token);
    }
    co_return checked(ec);
  }

  Awaitable<error_code> read_header(ReplyParser* parser) {
    error_code ec;
    auto token = asio::redirect_error(asio::use_awaitable, ec);
    if (tls_) {
      co_await bhttp::async_read_header(*tls_, buffer, *parser, token);
    } else {
      co_await bhttp::async_read_header(*plain_, buffer, *parser, token);
    }
    co_return checked(ec);
  }

  Awaitable<error_code> read_some(ReplyParser* parser) {
    error_code ec;
    auto token = asio::redirect_error(asio::use_awaitable, ec);
    if (tls_) {
      co_await bhttp::async_read_some(*tls_, buffer, *parser, token);
    } else {
      co_await bhttp::async_read_some(*plain_, buffer, *parser, token);
    }
    co_return checked(ec);
  }

  const std::string key;
  // The event loop whose services own the socket; it may only be used there.
  asio::execution_context* const context;
  beast::flat_buffer buffer;

 private:
  std::optional<beast::tcp_stream> plain_;
  std::optional<beast::ssl_stream<beast::tcp_stream>> tls_;
};

class Pool {
 public:
  explicit Pool(std::size_t max_per_host) : max_per_host_(max_per_host) {}

  std::unique_ptr<Connection> take(const std::string& key, asio::execution_context* context) {
    const std::lock_guard lock(mutex_);
    // Most recently used first: the least likely to have been closed by the server.
    for (auto it = idle_.rbegin(); it != idle_.rend(); ++it) {
      if ((*it)->key == key && (*it)->context == context) {
        auto connection = std::move(*it);
        idle_.erase(std::next(it).base());
        return connection;
      }
    }
    return nullptr;
  }

  void put(std::unique_ptr<Connection> connection) {
    const std::lock_guard lock(mutex_);
    const auto same_host = std::count_if(
        idle_.begin(), idle_.end(), [&](const auto& kept) { return kept->key == connection->key; });
    if (static_cast<std::size_t>(same_host) < max_per_host_) idle_.push_back(std::move(connection));
    // Otherwise it closes here.
  }

  // The loop is going away and its sockets with it.
  void drop(asio::execution_context* context) {
    std::vector<std::unique_ptr<Connection>> dropped;
    {
      const std::lock_guard lock(mutex_);
      const auto first = std::stable_partition(
          idle_.begin(), idle_.end(), [&](const auto& kept) { return kept->context != context; });
      std::move(first, idle_.end(), std::back_inserter(dropped));
      idle_.erase(first, idle_.end());
    }
  }

  std::size_t size() const {
    const std::lock_guard lock(mutex_);
    return idle_.size();
  }

 private:
  const std::size_t max_per_host_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<Connection>> idle_;
};

// Closes the kept connections of an event loop when it shuts down: after that their sockets
// would refer to destroyed services (run_sync makes a fresh loop per call).
class PoolWatch : public asio::execution_context::service {
 public:
  inline static asio::execution_context::id id;

  explicit PoolWatch(asio::execution_context& context)
      : asio::execution_context::service(context) {}

  void watch(const std::shared_ptr<Pool>& pool) {
    const std::lock_guard lock(mutex_);
    std::erase_if(pools_, [](const std::weak_ptr<Pool>& kept) { return kept.expired(); });
    const bool known =
        std::any_of(pools_.begin(), pools_.end(), [&](const std::weak_ptr<Pool>& kept) {
          return !kept.owner_before(pool) && !pool.owner_before(kept);
        });
    if (!known) pools_.push_back(pool);
  }

 private:
  void shutdown() override {
    std::vector<std::weak_ptr<Pool>> pools;
    {
      const std::lock_guard lock(mutex_);
      pools.swap(pools_);
    }
    for (const auto& weak : pools) {
      if (const auto pool = weak.lock()) pool->drop(&context());
    }
  }

  std::mutex mutex_;
  std::vector<std::weak_ptr<Pool>> pools_;
};

// ---------------------------------------------------------------------------------------------
// Name resolution with a deadline: getaddrinfo cannot be interrupted, so whichever of the
// answer and the timer comes first wins and a late answer is dropped.

using Resolved =
    asio::experimental::concurrent_channel<void(error_code, std::vector<tcp::endpoint>)>;

struct Resolution {
  explicit Resolution(const asio::any_io_executor& executor)
      : resolver(executor), timer(executor), outcome(executor, 2) {}
  tcp::resolver resolver;
  asio::steady_timer timer;
  Resolved outcome;
};

Awaitable<std::vector<tcp::endpoint>> resolve(Url url, asio::any_io_executor executor,
                                              Clock::time_point deadline, error_code* error) {
  error_code ec;
  if (const auto address = asio::ip::make_address(url.host, ec); !ec) {
    std::vector<tcp::endpoint> endpoints;
    endpoints.emplace_back(address, static_cast<unsigned short>(std::stoul(url.port)));
    co_return endpoints;
  }
  auto state = std::make_shared<Resolution>(executor);
  auto on_resolved = [state](error_code result, const tcp::resolver::results_type& results) {
    std::vector<tcp::endpoint> endpoints;
    for (const auto& entry : results) endpoints.push_back(entry.endpoint());
    state->outcome.try_send(result, std::move(endpoints));
  };
  auto on_deadline = [state](error_code result) {
    if (result != asio::error::operation_aborted) {
      state->outcome.try_send(error_code(beast::error::timeout), std::vector<tcp::endpoint>());
    }
  };
  state->timer.expires_at(deadline);
  state->timer.async_wait(on_deadline);
  state->resolver.async_resolve(url.host, url.port, tcp::resolver::numeric_service, on_resolved);
  auto token = asio::redirect_error(asio::use_awaitable, ec);
  std::vector<tcp::endpoint> endpoints = co_await state->outcome.async_receive(token);
  state->timer.cancel();
  state->resolver.cancel();
  (void)checked(ec);
  if (!ec && endpoints.empty()) ec = asio::error::host_not_found;
  *error = ec;
  co_return endpoints;
}

// ---------------------------------------------------------------------------------------------
// Failures

const boost::system::error_category& beast_http_category() {
  static const boost::system::error_category& category =
      bhttp::make_error_code(bhttp::error::end_of_stream).category();
  return category;
}

// The connection went away before it sent anything: for a kept connection, a sign that the
// server had closed it while it was idle.
bool closed_early(const error_code& ec) {
  return ec == bhttp::error::end_of_stream || ec == asio::error::eof ||
         ec == asio::error::connection_reset || ec == asio::error::broken_pipe ||
         ec == asio::error::connection_aborted || ec == ssl::error::stream_truncated;
}

std::string ms(std::chrono::milliseconds duration) {
  return std::to_string(duration.count()) + " ms";
}

// Which limit ended a wait.
enum class Limit { idle, total, low_speed };

// Abandons a reply whose body arrives slower than the limit over a whole window.
class SpeedCheck {
 public:
  SpeedCheck(const ClientOptions& options, Clock::time_point now)
      : window_(options.low_speed_time),
        needed_(static_cast<double>(options.low_speed_limit) *
                std::chrono::duration<double>(options.low_speed_time).count()),
        start_(now) {}

  // Counts bytes that arrived by `now`; false once a whole window went by below the limit.
  bool count(std::size_t bytes, Clock::time_point now) {
    if (needed_ <= 0) return true;
    bytes_ += static_cast<double>(bytes);
    if (now - start_ < window_) return true;
    if (bytes_ < needed_) return false;
    start_ = now;
    bytes_ = 0;
    return true;
  }

  // Waiting past this without a byte fails the check anyway.
  [[nodiscard]] Clock::time_point fails_at() const {
    return needed_ > 0 && bytes_ < needed_ ? start_ + window_ : Clock::time_point::max();
  }

 private:
  std::chrono::milliseconds window_;
  double needed_;
  Clock::time_point start_;
  double bytes_ = 0;
};

// One attempt at sending a request and reading its reply on one connection.
struct Attempt {
  Response response;
  error_code ec;
  Limit limit = Limit::idle;  // Which one ran out, for a timeout.
  bool replied = false;       // Some of the reply arrived.
  bool reusable = false;      // Complete, keep-alive, nothing left over.
  std::optional<std::chrono::milliseconds> retry_after;
};

// Retry-After in seconds; the date form is left to the computed backoff.
std::optional<std::chrono::milliseconds> retry_after(std::string_view value) {
  if (value.empty() || value.size() > 9 ||
      !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  return std::chrono::seconds(std::stol(std::string(value)));
}

std::chrono::milliseconds jittered(std::chrono::milliseconds wait) {
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::uniform_int_distribution<std::int64_t> half(wait.count() / 2, wait.count());
  return std::chrono::milliseconds(half(random));
}

void check(const ClientOptions& options) {
  const auto positive = [](std::chrono::milliseconds d, const char* name) {
    if (d.count() <= 0) throw orvo_core::ValueError(std::string(name) + " must be positive");
  };
  positive(options.connect_timeout, "`connect_timeout`");
  positive(options.read_timeout, "`read_timeout`");
  positive(options.low_speed_time, "`low_speed_time`");
  positive(options.retry.initial_backoff, "`retry.initial_backoff`");
  if (options.total_timeout.count() < 0) {
    throw orvo_core::ValueError("`total_timeout` must not be negative");
  }
  if (options.retry.max_backoff < options.retry.initial_backoff) {
    throw orvo_core::ValueError("`retry.max_backoff` must not be below `retry.initial_backoff`");
  }
}

class BeastHttpClient final : public HttpClient,
                              public std::enable_shared_from_this<BeastHttpClient> {
 public:
  explicit BeastHttpClient(ClientOptions options)
      : options_((check(options), std::move(options))),
        pool_(std::make_shared<Pool>(options_.max_idle_connections)),
        tls_context_(ssl::context::tls_client) {
    tls_context_.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                             ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                             ssl::context::no_tlsv1_1);
    SSL_CTX_set_min_proto_version(
        tls_context_.native_handle(),
        options_.min_tls_version == TlsVersion::tls1_3 ? TLS1_3_VERSION : TLS1_2_VERSION);
    if (!options_.ca_file.empty() || !options_.ca_dir.empty()) {
      const char* file = options_.ca_file.empty() ? nullptr : options_.ca_file.c_str();
      const char* dir = options_.ca_dir.empty() ? nullptr : options_.ca_dir.c_str();
      if (SSL_CTX_load_verify_locations(tls_context_.native_handle(), file, dir) != 1) {
        throw orvo_core::ValueError("cannot load CA certificates from '" +
                                    (file != nullptr ? options_.ca_file : options_.ca_dir) + "'");
      }
    } else {
      error_code ignored;  // Without system roots every verified handshake fails, and says so.
      tls_context_.set_default_verify_paths(ignored);
    }
    tls_context_.set_verify_mode(options_.verify_certificates ? ssl::verify_peer
                                                              : ssl::verify_none);
  }

  Awaitable<Response> send(Request request, std::shared_ptr<BodyObserver> observer) override {
    const auto self = shared_from_this();
    const Url url = parse_url(request.url);
    const bool head = request.method == "HEAD";
    const OutgoingMessage message = build_message(request, url);
    const asio::any_io_executor executor = co_await asio::this_coro::executor;
    asio::execution_context* const context = &asio::query(executor, asio::execution::context);
    asio::use_service<PoolWatch>(*context).watch(pool_);
    const Clock::time_point total_end = options_.total_timeout.count() > 0
                                            ? Clock::now() + options_.total_timeout
                                            : Clock::time_point::max();

    for (std::size_t retries = 0;; ++retries) {
      std::unique_ptr<Connection> connection = pool_->take(url.pool_key, context);
      const bool reused = connection != nullptr;
      std::exception_ptr unreachable;
      try {
        if (!connection) connection = co_await connect(url, executor, context, total_end);
      } catch (const HandshakeRefusedError& refused) {
        throw ConnectError(refused.what());  // Callers see the public type.
      } catch (const ConnectError&) {
        unreachable = std::current_exception();
      } catch (const TimeoutError&) {
        unreachable = std::current_exception();
      }
      if (unreachable) {
        // Nothing was sent: safe to try again.
        const auto wait = retry_wait(retries, std::nullopt, total_end);
        if (!wait) std::rethrow_exception(unreachable);
        co_await sleep(executor, *wait);
        continue;
      }

      Attempt attempt =
          co_await exchange(connection.get(), &message, observer.get(), head, total_end);
      if (attempt.ec && reused && !attempt.replied && closed_early(attempt.ec)) {
        connection.reset();
        connection = co_await connect(url, executor, context, total_end);
        attempt = co_await exchange(connection.get(), &message, observer.get(), head, total_end);
      }
      if (attempt.ec) {
        connection.reset();
        fail(attempt, url);
      }
      if (attempt.reusable) pool_->put(std::move(connection));
      const unsigned status = attempt.response.status;
      // These replies were collected, not streamed: nothing of them reached the observer.
      const auto wait = status == 429 || status == 503
                            ? retry_wait(retries, attempt.retry_after, total_end)
                            : std::nullopt;
      if (!wait) co_return std::move(attempt.response);
      co_await sleep(executor, *wait);
    }
  }

  [[nodiscard]] std::size_t idle_connections() const override { return pool_->size(); }

 private:
  // How long to wait before retry number `retries` + 1, or none when it is not to be made.
  std::optional<std::chrono::milliseconds> retry_wait(
      std::size_t retries, std::optional<std::chrono::milliseconds> asked,
      Clock::time_point total_end) const {
    const RetryPolicy& policy = options_.retry;
    if (retries >= policy.max_retries) return std::nullopt;
    std::chrono::milliseconds wait = asked.value_or(policy.max_backoff);
    if (!asked) {
      auto backoff = policy.initial_backoff;
      for (std::size_t i = 0; i < retries && backoff < policy.max_backoff; ++i) backoff *= 2;
      wait = jittered(std::min(backoff, policy.max_backoff));
    }
    if (wait > policy.max_backoff || total_end - Clock::now() <= wait) return std::nullopt;
    return wait;
  }

  // A cancelled wait throws operation_aborted, so a cancelled call is never tried again.
  static Awaitable<void> sleep(asio::any_io_executor executor, std::chrono::milliseconds wait) {
    asio::steady_timer timer(executor, wait);
    co_await timer.async_wait(asio::use_awaitable);
  }

  Awaitable<std::unique_ptr<Connection>> connect(Url url, asio::any_io_executor executor,
                                                 asio::execution_context* context,
                                                 Clock::time_point total_end) {
    const auto deadline = std::min(Clock::now() + options_.connect_timeout, total_end);
    error_code ec;
    std::vector<tcp::endpoint> endpoints = co_await resolve(url, executor, deadline, &ec);
    if (ec) fail_connect(ec, url, nullptr);

    auto connection = std::make_unique<Connection>(executor, url.https ? &tls_context_ : nullptr,
                                                   url.pool_key, context);
    connection->tcp().expires_at(deadline);
    ec = co_await connection->connect(std::move(endpoints));
    if (ec) fail_connect(ec, url, nullptr);
    if (connection->is_tls()) {
      // SNI is for names only; the macro form of this call casts in the old style.
      if ((!is_ip_literal(url.host) &&
           SSL_ctrl(connection->tls_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                    TLSEXT_NAMETYPE_host_name, const_cast<char*>(url.host.c_str())) != 1) ||
          !connection->set_verification(options_.verify_certificates, url.host)) {
        throw ConnectError("cannot connect to " + url.endpoint +
                           ": cannot set the TLS server name");
      }
      connection->tcp().expires_at(deadline);
      ec = co_await connection->handshake();
      if (ec) fail_connect(ec, url, connection.get());
    }
    co_return connection;
  }

  [[noreturn]] void fail_connect(const error_code& ec, const Url& url,
                                 Connection* connection) const {
    if (ec == beast::error::timeout) {
      throw TimeoutError("cannot connect to " + url.endpoint + " within " +
                         ms(options_.connect_timeout));
    }
    const std::string where = "cannot connect to " + url.endpoint + ": ";
    if (connection != nullptr) {
      const long verified = SSL_get_verify_result(connection->tls_handle());
      if (verified != X509_V_OK) {
        throw HandshakeRefusedError(
            where + "certificate verification failed: " + X509_verify_cert_error_string(verified));
      }
      if (ec.category() == asio::error::get_ssl_category()) {
        throw HandshakeRefusedError(where + ec.message());
      }
    }
    throw ConnectError(where + ec.message());
  }

  [[noreturn]] void fail(const Attempt& attempt, const Url& url) const {
    const error_code& ec = attempt.ec;
    if (ec == beast::error::timeout) {
      switch (attempt.limit) {
        case Limit::total:
          throw TimeoutError("the reply from " + url.endpoint + " took longer than " +
                             ms(options_.total_timeout) + " in total");
        case Limit::low_speed:
          throw TimeoutError("the reply from " + url.endpoint + " came slower than " +
                             std::to_string(options_.low_speed_limit) + " bytes/s for " +
                             ms(options_.low_speed_time));
        case Limit::idle:
          break;
      }
      throw TimeoutError("no reply from " + url.endpoint + " within " + ms(options_.read_timeout));
    }
    if (ec == bhttp::error::body_limit) {
      throw MalformedReplyError("the reply from " + url.endpoint + " exceeds the limit of " +
                                std::to_string(options_.max_body_bytes) + " bytes");
    }
    if (ec == bhttp::error::end_of_stream || ec == bhttp::error::partial_message ||
        ec.category() != beast_http_category()) {
      throw ConnectionClosedError(
          url.endpoint + " closed the connection " +
          (attempt.replied ? "before the reply was complete" : "without replying") + " (" +
          ec.message() + ")");
    }
    throw MalformedReplyError("malformed reply from " + url.endpoint + ": " + ec.message());
  }

  // The next wait ends at the idle limit, the total limit or the end of a slow window, whichever
  // comes first.
  void arm(Connection* connection, Attempt* attempt, Clock::time_point total_end,
           const SpeedCheck* speed) const {
    Clock::time_point at = Clock::now() + options_.read_timeout;
    attempt->limit = Limit::idle;
    if (total_end <= at) {
      at = total_end;
      attempt->limit = Limit::total;
    }
    if (speed != nullptr && speed->fails_at() < at) {
      at = speed->fails_at();
      attempt->limit = Limit::low_speed;
    }
    connection->tcp().expires_at(at);
  }

  Awaitable<Attempt> exchange(Connection* connection, const OutgoingMessage* message,
                              BodyObserver* observer, bool head, Clock::time_point total_end) {
    Attempt attempt;
    arm(connection, &attempt, total_end, nullptr);
    attempt.ec = co_await connection->write(message);
    if (attempt.ec) co_return attempt;

    // Interim (1xx) replies come before the real one and are skipped.
    std::optional<ReplyParser> parser;
    unsigned status = 0;
    do {
      parser.emplace();
      parser->body_limit(std::uint64_t{options_.max_body_bytes});
      if (head) parser->skip(true);
      arm(connection, &attempt, total_end, nullptr);
      attempt.ec = co_await connection->read_header(&*parser);
      attempt.replied = attempt.replied || parser->got_some() || connection->buffer.size() > 0;
      if (attempt.ec) co_return attempt;
      status = parser->get().result_int();
    } while (status >= 100 && status < 200 && status != 101);

    const bool streamed = observer != nullptr && status >= 200 && status < 300;
    SpeedCheck speed(options_, Clock::now());
    std::size_t counted = 0;  // Of the collected body.
    while (!parser->is_done()) {
      arm(connection, &attempt, total_end, &speed);
      attempt.ec = co_await connection->read_some(&*parser);
      if (attempt.ec) co_return attempt;
      std::string& body = parser->get().body();
      if (!speed.count(body.size() - counted, Clock::now())) {
        attempt.ec = beast::error::timeout;
        attempt.limit = Limit::low_speed;
        co_return attempt;
      }
      counted = body.size();
      if (streamed && !body.empty()) {
        const std::string_view piece = body;
        co_await observer->on_data(piece);
        // The body reader appends at the end, so this keeps a long stream from piling up.
        body.clear();
        counted = 0;
      }
    }
    connection->tcp().expires_never();

    const auto& reply = parser->get();
    attempt.response.status = status;
    attempt.response.content_type = std::string(reply[bhttp::field::content_type]);
    attempt.response.location = std::string(reply[bhttp::field::location]);
    attempt.retry_after = retry_after(reply[bhttp::field::retry_after]);
    if (!streamed) attempt.response.body = std::move(parser->get().body());
    attempt.reusable = reply.keep_alive() && !parser->need_eof() && connection->buffer.size() == 0;
    co_return attempt;
  }

  const ClientOptions options_;
  const std::shared_ptr<Pool> pool_;
  ssl::context tls_context_;
};

}  // namespace

std::shared_ptr<HttpClient> HttpClient::create(ClientOptions options) {
  return std::make_shared<BeastHttpClient>(std::move(options));
}

}  // namespace orvo_inference::http
