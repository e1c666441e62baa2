#include "orvo_inference/openai/openai_api.hpp"

#include <algorithm>
#include <cmath>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"
#include "orvo_inference/errors.hpp"

namespace orvo_inference::openai {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

namespace {

[[noreturn]] void malformed(const std::string& what, std::string_view body) {
  throw MalformedReplyError(what + ": " + orvo_core::text::quoted(orvo_core::text::excerpt(body)));
}

Any parse_object(std::string_view body, const char* what) {
  Any reply;
  try {
    reply = orvo_core::parse_json(body);
  } catch (const std::invalid_argument&) {
    malformed(std::string(what) + " is not JSON", body);
  }
  if (!reply.is_map()) malformed(std::string(what) + " is not a JSON object", body);
  return reply;
}

// reply["choices"][0][member], or absent.
Any first_choice(const Any& reply, std::string_view member) {
  const Any choices = orvo_core::get(reply.as_map(), "choices");
  if (!choices.is_list() || choices.as_list().empty() || !choices.as_list()[0].is_map()) return {};
  return orvo_core::get(choices.as_list()[0].as_map(), member);
}

}  // namespace

std::string chat_request_body(std::string_view model, const std::vector<ChatMessage>& messages,
                              bool stream, const Map& parameters) {
  Map request = parameters;
  request.insert_or_assign("model", std::string(model));
  List wire_messages;
  wire_messages.reserve(messages.size());
  for (const ChatMessage& message : messages) {
    Map wire;
    wire.emplace("role", std::string(to_string(message.role)));
    wire.emplace("content", message.content);
    wire_messages.emplace_back(std::move(wire));
  }
  request.insert_or_assign("messages", std::move(wire_messages));
  request.insert_or_assign("stream", stream);
  return orvo_core::to_json(Any(std::move(request)));
}

std::string chat_reply_text(std::string_view body) {
  const Any reply = parse_object(body, "the chat reply");
  const Any message = first_choice(reply, "message");
  const Any content = message.is_map() ? orvo_core::get(message.as_map(), "content") : Any();
  if (!content.is_string()) malformed("the chat reply has no choices[0].message.content", body);
  return content.as_string();
}

ChatDelta chat_delta(std::string_view event_data) {
  const Any event = parse_object(event_data, "a streamed chat event");
  ChatDelta result;
  const Any finish = first_choice(event, "finish_reason");
  result.finished = finish.is_string() && !finish.as_string().empty();
  const Any delta = first_choice(event, "delta");
  if (!delta.is_map()) {
    // Servers send usage-only events and error events mid-stream; an error is a failure.
    const Any error = orvo_core::get(event.as_map(), "error");
    if (error.truthy()) throw HttpStatusError(200, error_message(200, event_data));
    return result;
  }
  const Any content = orvo_core::get(delta.as_map(), "content");
  if (content.is_string()) result.text = content.as_string();
  return result;
}

std::string chat_delta_text(std::string_view event_data) {
  return chat_delta(event_data).text;
}

std::string error_message(unsigned status, std::string_view body) {
  std::string message;
  try {
    const Any reply = orvo_core::parse_json(body);
    if (reply.is_map()) {
      const Any error = orvo_core::get(reply.as_map(), "error");
      if (error.is_map()) {
        message = orvo_core::get(error.as_map(), "message").str();
      } else if (error.is_string()) {
        message = error.as_string();
      } else if (orvo_core::get(reply.as_map(), "message").is_string()) {
        message = orvo_core::get(reply.as_map(), "message").as_string();
      }
    }
  } catch (const std::invalid_argument&) {
    message = orvo_core::text::excerpt(body, 200);
  }
  if (message.empty()) message = orvo_core::text::excerpt(body, 200);
  // The server's text goes to terminals and logs: it must not be able to drive them.
  return "the server answered HTTP " + std::to_string(status) +
         (message.empty() ? std::string() : ": " + orvo_core::text::escape_controls(message));
}

std::string embeddings_request_body(std::string_view model,
                                    std::span<const std::string_view> texts) {
  std::string body = R"({"model": )";
  orvo_core::text::append_json_string(body, model);
  body += R"(, "input": [)";
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i != 0) body += ", ";
    orvo_core::text::append_json_string(body, texts[i]);
  }
  body += "]}";
  return body;
}

std::size_t append_embeddings(std::string_view body, std::size_t count, std::vector<float>& out) {
  boost::system::error_code error;
  const boost::json::value reply = boost::json::parse(body, error);
  if (error || !reply.is_object()) malformed("the embeddings reply is not a JSON object", body);
  const auto* data = reply.as_object().if_contains("data");
  if (data == nullptr || !data->is_array() || data->as_array().size() != count) {
    malformed("the embeddings reply does not hold " + std::to_string(count) + " embeddings", body);
  }
  const std::size_t first = out.size();
  std::size_t dim = 0;
  std::vector<bool> seen(count, false);
  for (const auto& item : data->as_array()) {
    const auto* index = item.is_object() ? item.as_object().if_contains("index") : nullptr;
    const auto* vector = item.is_object() ? item.as_object().if_contains("embedding") : nullptr;
    if (index == nullptr || !(index->is_int64() || index->is_uint64()) || vector == nullptr ||
        !vector->is_array()) {
      malformed("an embedding lacks its index or vector", body);
    }
    const std::int64_t position =
        index->is_int64() ? index->get_int64()
                          : static_cast<std::int64_t>(std::min<std::uint64_t>(
                                index->get_uint64(), static_cast<std::uint64_t>(count)));
    if (position < 0 || static_cast<std::size_t>(position) >= count ||
        seen[static_cast<std::size_t>(position)]) {
      malformed("an embedding has a missing or repeated index " + std::to_string(position), body);
    }
    seen[static_cast<std::size_t>(position)] = true;
    const auto& values = vector->as_array();
    if (dim == 0) {
      dim = values.size();
      out.resize(first + count * dim);
    }
    if (values.size() != dim || dim == 0) malformed("embeddings differ in length", body);
    float* row = out.data() + first + static_cast<std::size_t>(position) * dim;
    for (std::size_t j = 0; j < dim; ++j) {
      if (!values[j].is_number()) malformed("an embedding holds a non-number", body);
      row[j] = static_cast<float>(values[j].to_number<double>());
      if (!std::isfinite(row[j])) malformed("an embedding holds a value beyond float range", body);
    }
  }
  return dim;
}

void EventStreamParser::feed(std::string_view bytes, std::vector<std::string>& events) {
  pending_ += bytes;
  // Each byte is searched once: a long line that arrives in pieces is not scanned again.
  std::size_t start = 0;
  std::size_t from = scanned_;
  while (true) {
    const std::size_t end = pending_.find_first_of("\r\n", from);
    if (end == std::string::npos) {
      from = pending_.size();
      break;
    }
    // A "\r" at the very end may be the first half of "\r\n": wait for the next byte.
    if (pending_[end] == '\r' && end + 1 == pending_.size()) {
      from = end;
      break;
    }
    line(std::string_view(pending_).substr(start, end - start), events);
    start = end + (pending_[end] == '\r' && pending_[end + 1] == '\n' ? 2 : 1);
    from = start;
  }
  // Only bytes of this piece follow a line end, so this moves each byte at most once.
  pending_.erase(0, start);
  scanned_ = from - start;
  if (pending_.size() > max_line_) {
    throw MalformedReplyError("the event stream has a line longer than " +
                              std::to_string(max_line_) + " bytes");
  }
}

void EventStreamParser::finish(std::vector<std::string>& events) {
  if (!pending_.empty()) {
    // A "\r" held back in case "\n" followed ends the line after all.
    if (pending_.back() == '\r') pending_.pop_back();
    line(pending_, events);
    pending_.clear();
    scanned_ = 0;
  }
  line({}, events);
}

void EventStreamParser::line(std::string_view text, std::vector<std::string>& events) {
  if (text.empty()) {  // a blank line dispatches the event
    if (data_) events.push_back(std::move(*data_));
    data_.reset();
    return;
  }
  if (text.front() == ':') return;  // comment
  const std::size_t colon = text.find(':');
  const std::string_view field = text.substr(0, colon);
  std::string_view value =
      colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
  if (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  if (field != "data") return;  // event, id and retry do not matter here
  if (data_) {
    *data_ += '\n';
    *data_ += value;
  } else {
    data_ = std::string(value);
  }
  if (data_->size() > max_line_) {
    throw MalformedReplyError("the event stream has an event longer than " +
                              std::to_string(max_line_) + " bytes");
  }
}

}  // namespace orvo_inference::openai
