#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_core/embeddings.hpp"
#include "orvo_inference/lm_invoker/lm_invoker.hpp"

// The wire format of OpenAI-compatible servers, as pure functions: request bodies in, reply
// bodies out. Replies without the promised fields raise `MalformedReplyError`.
namespace orvo_inference::openai {

/// The body of a chat-completions request. `parameters` (temperature, max_tokens, ...) are added
/// as they are; "model", "messages" and "stream" are always this call's.
[[nodiscard]] std::string chat_request_body(std::string_view model,
                                            const std::vector<ChatMessage>& messages, bool stream,
                                            const orvo_core::Map& parameters = {});

/// The text of the first choice of a complete chat reply.
[[nodiscard]] std::string chat_reply_text(std::string_view body);

/// What one streamed chat event carries.
struct ChatDelta {
  std::string text;       ///< Empty for a role announcement, usage or a bare finish reason.
  bool finished = false;  ///< The first choice has a finish reason: the answer is complete.
};

/// The delta of one streamed chat event (the data of one server-sent event).
[[nodiscard]] ChatDelta chat_delta(std::string_view event_data);

/// The text delta of one streamed chat event (the data of one server-sent event); empty when
/// the event carries no text (a role announcement, a finish reason).
[[nodiscard]] std::string chat_delta_text(std::string_view event_data);

/// The server's own message for an error reply ({"error": {"message": ...}}, {"error": "..."},
/// {"message": ...} or the start of a plain-text body), prefixed with the status.
[[nodiscard]] std::string error_message(unsigned status, std::string_view body);

/// The body of an embeddings request for these texts.
[[nodiscard]] std::string embeddings_request_body(std::string_view model,
                                                  std::span<const std::string_view> texts);

/// The vectors of an embeddings reply, put in input order by their "index", appended to `out`
/// row after row; returns their length. A reply that does not hold exactly one vector of one
/// common length of finite floats for each of the `count` inputs is malformed.
std::size_t append_embeddings(std::string_view body, std::size_t count, std::vector<float>& out);

/// Splits a server-sent event stream into the data of its events, however the bytes arrive, in
/// time linear in the bytes. A line or an event longer than the limit is a `MalformedReplyError`.
class EventStreamParser {
 public:
  /// The default limit of a line or an event's data.
  static constexpr std::size_t kDefaultMaxLine = std::size_t{1} << 20;

  /// Lines and events of up to `max_line_bytes`.
  explicit EventStreamParser(std::size_t max_line_bytes = kDefaultMaxLine)
      : max_line_(max_line_bytes) {}

  /// Feeds the next bytes; appends the data of every event they complete to `events`.
  void feed(std::string_view bytes, std::vector<std::string>& events);

  /// Ends the stream: an event still pending (no blank line after it) is completed.
  void finish(std::vector<std::string>& events);

 private:
  void line(std::string_view text, std::vector<std::string>& events);

  std::size_t max_line_;
  std::string pending_;              // an incomplete line
  std::size_t scanned_ = 0;          // pending_ holds no line end before this
  std::optional<std::string> data_;  // the data of the event being read
};

}  // namespace orvo_inference::openai
