#include "orvo_inference/lm_invoker/openai_lm_invoker.hpp"

#include <utility>

#include "orvo_core/constants.hpp"
#include "orvo_inference/openai/endpoint.hpp"
#include "orvo_inference/openai/openai_api.hpp"

namespace orvo_inference {

namespace {

// Turns a streamed reply into RESPONSE events as its pieces arrive, and keeps the whole text.
class StreamedReply : public http::BodyObserver {
 public:
  explicit StreamedReply(std::shared_ptr<orvo_core::EventEmitter> emitter)
      : emitter_(std::move(emitter)) {}

  orvo_core::Awaitable<void> on_data(std::string_view piece) override {
    if (raw_.size() < kRawLimit) raw_.append(piece.substr(0, kRawLimit - raw_.size()));
    std::vector<std::string> events;
    parser_.feed(piece, events);
    co_await deliver(std::move(events));
  }

  // Completes the stream; a server that ignored the stream request sent one plain JSON reply.
  orvo_core::Awaitable<std::string> finish() {
    std::vector<std::string> events;
    parser_.finish(events);
    co_await deliver(std::move(events));
    if (!seen_event_ && !raw_.empty()) {
      text_ = openai::chat_reply_text(raw_);
      std::string whole = text_;
      co_await emitter_->emit(std::move(whole), orvo_core::EventLevel::INFO,
                              orvo_core::EventType::RESPONSE);
    }
    co_return std::move(text_);
  }

 private:
  static constexpr std::size_t kRawLimit = std::size_t{1} << 20;

  orvo_core::Awaitable<void> deliver(std::vector<std::string> events) {
    for (const std::string& data : events) {
      seen_event_ = true;
      if (done_ || data == "[DONE]") {
        done_ = true;
        continue;
      }
      std::string delta = openai::chat_delta_text(data);
      if (delta.empty()) continue;
      text_ += delta;
      co_await emitter_->emit(std::move(delta), orvo_core::EventLevel::INFO,
                              orvo_core::EventType::RESPONSE);
    }
  }

  std::shared_ptr<orvo_core::EventEmitter> emitter_;
  openai::EventStreamParser parser_;
  std::string text_;
  std::string raw_;
  bool seen_event_ = false;
  bool done_ = false;
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

orvo_core::Awaitable<std::string> OpenAILMInvoker::invoke(
    std::vector<ChatMessage> messages, std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  const bool stream = event_emitter != nullptr;
  http::Request request =
      openai::post_request(base_url, "chat/completions", api_key_,
                           openai::chat_request_body(model, messages, stream, parameters));
  if (!stream) {
    const http::Response response = co_await client_->send(std::move(request));
    openai::check_status(response);
    co_return openai::chat_reply_text(response.body);
  }
  auto reply = std::make_shared<StreamedReply>(std::move(event_emitter));
  const http::Response response = co_await client_->send(std::move(request), reply);
  openai::check_status(response);
  co_return co_await reply->finish();
}

}  // namespace orvo_inference
