#include "orvo_inference/prompt/prompt_template.hpp"

#include <algorithm>
#include <optional>

#include "orvo_core/errors.hpp"
#include "orvo_core/text.hpp"

namespace orvo_inference {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

namespace {

// Walks a template, handing literal text and placeholder names to the callbacks in order.
template <class OnText, class OnName>
void scan(std::string_view text, OnText on_text, OnName on_name) {
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t brace = text.find_first_of("{}", i);
    if (brace == std::string_view::npos) {
      on_text(text.substr(i));
      return;
    }
    on_text(text.substr(i, brace - i));
    const bool doubled = brace + 1 < text.size() && text[brace + 1] == text[brace];
    if (doubled) {
      on_text(text.substr(brace, 1));
      i = brace + 2;
      continue;
    }
    if (text[brace] == '}') {
      throw orvo_core::ValueError("unmatched '}' at position " + std::to_string(brace) +
                                  " of the prompt template");
    }
    const std::size_t close = text.find_first_of("{}", brace + 1);
    if (close == std::string_view::npos || text[close] != '}') {
      throw orvo_core::ValueError("unmatched '{' at position " + std::to_string(brace) +
                                  " of the prompt template");
    }
    const std::string_view name = text.substr(brace + 1, close - brace - 1);
    if (name.empty()) {
      throw orvo_core::ValueError("empty placeholder at position " + std::to_string(brace) +
                                  " of the prompt template");
    }
    on_name(name);
    i = close + 1;
  }
}

void check(std::string_view text) {
  scan(
      text, [](std::string_view) {}, [](std::string_view) {});
}

bool starts_with_any(const std::string& s, std::initializer_list<std::string_view> prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(),
                     [&s](std::string_view prefix) { return s.starts_with(prefix); });
}

Any text_part(std::string text) {
  Map part;
  part.emplace("type", "text");
  part.emplace("text", std::move(text));
  return part;
}

Any content_part(const Any& item) {
  if (item.is_map()) return item;
  if (!item.is_string()) {
    throw orvo_core::TypeError("a multimodal content must be a str or a dict, got " +
                               item.type_name());
  }
  const std::string& s = item.as_string();
  if (!starts_with_any(s, {"http://", "https://", "data:"})) return text_part(s);
  Map url;
  url.emplace("url", s);
  Map part;
  part.emplace("type", "image_url");
  part.emplace("image_url", std::move(url));
  return part;
}

// The text alone, or the text followed by the contents as parts.
Any message_content(std::string text, const Any& contents) {
  if (!contents.truthy()) return text;
  if (!contents.is_list()) {
    throw orvo_core::TypeError("multimodal contents must be a list, got " + contents.type_name());
  }
  List parts;
  if (!text.empty()) parts.push_back(text_part(std::move(text)));
  for (const Any& item : contents.as_list()) parts.push_back(content_part(item));
  return parts;
}

ChatMessage history_turn(const Any& turn, std::size_t index) {
  Any role;
  Any content;
  // A host's tuple pair serves as well as a list.
  std::optional<List> items;
  if (turn.is_object()) items = turn.as_object()->items();
  const List* pair = turn.is_list() ? &turn.as_list() : items ? &*items : nullptr;
  if (pair != nullptr && pair->size() == 2) {
    role = (*pair)[0];
    content = (*pair)[1];
  } else if (turn.is_map()) {
    role = orvo_core::get(turn.as_map(), "role");
    content = orvo_core::get(turn.as_map(), "content");
  } else {
    throw orvo_core::ValueError("history turn " + std::to_string(index) +
                                " must be a [role, content] pair, got " + turn.repr());
  }
  const auto parsed = role.is_string() ? parse_role(role.as_string()) : std::nullopt;
  if (!parsed) {
    throw orvo_core::ValueError("history turn " + std::to_string(index) + " has the role " +
                                role.repr() + "; expected 'system', 'user' or 'assistant'");
  }
  if (content.is_list()) {
    List parts;
    for (const Any& item : content.as_list()) parts.push_back(content_part(item));
    return ChatMessage{*parsed, Any(std::move(parts))};
  }
  if (!content.is_string()) {
    throw orvo_core::TypeError("history turn " + std::to_string(index) +
                               " must have a str or list content, got " + content.type_name());
  }
  return ChatMessage{*parsed, content};
}

}  // namespace

std::string fill_template(std::string_view text, const Map& variables) {
  std::string out;
  scan(
      text, [&out](std::string_view literal) { out += literal; },
      [&out, &variables](std::string_view name) {
        const Any* value = orvo_core::find(variables, name);
        if (value == nullptr) {
          throw orvo_core::ValueError("the prompt variable '" + std::string(name) + "' is missing");
        }
        value->append_str(out);
      });
  return out;
}

PromptTemplate::PromptTemplate(std::string system_template, std::string user_template)
    : system_template_(std::move(system_template)), user_template_(std::move(user_template)) {
  check(system_template_);
  check(user_template_);
}

std::vector<ChatMessage> PromptTemplate::format(const Map& variables, const Any& history,
                                                const Any& system_multimodal_contents,
                                                const Any& user_multimodal_contents) const {
  BudgetReport report;
  return format(variables, history, system_multimodal_contents, user_multimodal_contents, report);
}

std::vector<ChatMessage> PromptTemplate::format(const Map& given, const Any& history,
                                                const Any& system_multimodal_contents,
                                                const Any& user_multimodal_contents,
                                                BudgetReport& report) const {
  report = BudgetReport{};
  const Any* context = context_budget ? orvo_core::find(given, context_budget->variable) : nullptr;
  // The budgeted context goes into a copy of the map: the caller's stays as it is.
  std::optional<Map> budgeted;
  if (context != nullptr) {
    budgeted.emplace(given);
    (*budgeted)[context_budget->variable] = context_budget->apply(*context, report);
  }
  const Map& variables = budgeted ? *budgeted : given;
  std::vector<ChatMessage> messages;
  if (!system_template_.empty() || system_multimodal_contents.truthy()) {
    messages.push_back(ChatMessage{
        PromptRole::SYSTEM,
        message_content(fill_template(system_template_, variables), system_multimodal_contents)});
  }
  if (history.truthy()) {
    if (!history.is_list()) {
      throw orvo_core::TypeError("`history` must be a list of turns, got " + history.type_name());
    }
    const List& turns = history.as_list();
    for (std::size_t i = 0; i < turns.size(); ++i) messages.push_back(history_turn(turns[i], i));
  }
  messages.push_back(ChatMessage{
      PromptRole::USER,
      message_content(fill_template(user_template_, variables), user_multimodal_contents)});
  return messages;
}

std::vector<std::string> PromptTemplate::variables() const {
  std::vector<std::string> names;
  const auto collect = [&names](std::string_view name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) names.emplace_back(name);
  };
  scan(
      system_template_, [](std::string_view) {}, collect);
  scan(
      user_template_, [](std::string_view) {}, collect);
  return names;
}

}  // namespace orvo_inference
