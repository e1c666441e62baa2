#include "orvo_inference/lm_invoker/openai_lm_invoker.hpp"

#include <utility>

#include "orvo_core/constants.hpp"
#include "orvo_inference/errors.hpp"
#include "orvo_inference/openai/endpoint.hpp"
#include "orvo_inference/openai/openai_api.hpp"

namespace orvo_inference {

namespace {

// Turns a streamed reply into RESPONSE events as its pieces arrive, and keeps the whole text.
class StreamedReply : public http::BodyObserver {
 public:
  StreamedReply(std::shared_ptr<orvo_core::EventEmitter> emitter, std::string api_key)
      : emitter_(std::move(emitter)), api_key_(std::move(api_key)) {}

  orvo_core::Awaitable<void> on_data(std::string_view piece) override {
    if (mode_ == Mode::unknown) {
      // A server that ignored the stream request sends one JSON object, which is collected
      // whole rather than scanned as event-stream lines.
      const auto first = piece.find_first_not_of(" \t\r\n");
      if (first == std::string_view::npos) co_return;
      mode_ = piece[first] == '{' ? Mode::json : Mode::events;
    }
    if (mode_ == Mode::json) {
      json_.append(piece);
      co_return;
    }
    std::vector<std::string> events;
    openai::without_key(api_key_, [&] { parser_.feed(piece, events); });
    co_await deliver(std::move(events));
  }

  orvo_core::Awaitable<std::string> finish() {
    if (mode_ == Mode::json) {
      text_ = openai::without_key(api_key_, [this] { return openai::chat_reply_text(json_); });
      std::string whole = text_;
      co_await emitter_->emit(std::move(whole), orvo_core::EventLevel::INFO,
                              orvo_core::EventType::RESPONSE);
      co_return std::move(text_);
    }
    std::vector<std::string> events;
    openai::without_key(api_key_, [&] { parser_.finish(events); });
    co_await deliver(std::move(events));
    if (!done_ && !finished_) {
      throw TruncatedReplyError(
          "the reply stream ended before the server said it was complete (no [DONE] and no "
          "finish_reason), after " +
          std::to_string(text_.size()) + " bytes of text");
    }
    co_return std::move(text_);
  }

 private:
  enum class Mode { unknown, json, events };

  orvo_core::Awaitable<void> deliver(std::vector<std::string> events) {
    for (const std::string& data : events) {
      if (done_ || data == "[DONE]") {
        done_ = true;
        continue;
      }
      openai::ChatDelta delta =
          openai::without_key(api_key_, [&data] { return openai::chat_delta(data); });
      finished_ = finished_ || delta.finished;
      if (delta.text.empty()) continue;
      text_ += delta.text;
      co_await emitter_->emit(std::move(delta.text), orvo_core::EventLevel::INFO,
                              orvo_core::EventType::RESPONSE);
    }
  }

  std::shared_ptr<orvo_core::EventEmitter> emitter_;
  std::string api_key_;
  openai::EventStreamParser parser_;
  Mode mode_ = Mode::unknown;
  std::string json_;
  std::string text_;
  bool done_ = false;
  bool finished_ = false;
};

}  // namespace

OpenAILMInvoker::OpenAILMInvoker(std::string model, std::string base_url, std::string api_key,
                                 orvo_core::Map parameters,
                                 std::shared_ptr<http::HttpClient> client)
    : model(std::move(model)),
      base_url(std::move(base_url)),
      parameters(std::move(parameters)),
      api_key_(std::move(api_key)),
      client_(client ? std::move(client) : http::HttpClient::create()) {}

OpenAILMInvoker::OpenAILMInvoker(std::string model, std::string base_url, std::string api_key,
                                 orvo_core::Map parameters, const http::ClientOptions& options)
    : OpenAILMInvoker(std::move(model), std::move(base_url), std::move(api_key),
                      std::move(parameters), http::HttpClient::create(options)) {}

orvo_core::Awaitable<std::string> OpenAILMInvoker::invoke(
    std::vector<ChatMessage> messages, std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  const bool stream = event_emitter != nullptr;
  http::Request request =
      openai::post_request(base_url, "chat/completions", api_key_,
                           openai::chat_request_body(model, messages, stream, parameters));
  if (!stream) {
    const http::Response response = co_await client_->send(std::move(request));
    const auto read = [&response] {
      openai::check_status(response);
      return openai::chat_reply_text(response.body);
    };
    co_return openai::without_key(api_key_, read);
  }
  auto reply = std::make_shared<StreamedReply>(std::move(event_emitter), api_key_);
  const http::Response response = co_await client_->send(std::move(request), reply);
  openai::without_key(api_key_, [&response] { openai::check_status(response); });
  co_return co_await reply->finish();
}

}  // namespace orvo_inference
