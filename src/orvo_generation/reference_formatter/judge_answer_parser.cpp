#include "orvo_generation/reference_formatter/judge_answer_parser.hpp"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"

namespace orvo_generation::reference_formatter {

using orvo_core::Any;
using orvo_core::List;

namespace {

std::string_view trim(std::string_view s) {
  const auto space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!s.empty() && space(s.front())) s.remove_prefix(1);
  while (!s.empty() && space(s.back())) s.remove_suffix(1);
  return s;
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// A map or a list parsed from `candidate`, or absent.
Any json_value(std::string_view candidate) {
  if (candidate.empty()) return {};
  try {
    Any value = orvo_core::parse_json(candidate);
    if (value.is_map() || value.is_list()) return value;
  } catch (const orvo_core::ValueError&) {
  }
  return {};
}

// "1, 3", "1 and 3", "2." as a list of numbers; absent when the text is anything else.
Any number_list(std::string_view text) {
  List numbers;
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
      std::size_t end = i;
      while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) ++end;
      if (end - i > 9) return {};
      numbers.emplace_back(std::stoll(std::string(text.substr(i, end - i))));
      i = end;
    } else if (c == ',' || c == '.' || std::isspace(static_cast<unsigned char>(c)) != 0) {
      ++i;
    } else if (text.substr(i, 3) == "and") {
      i += 3;
    } else {
      return {};
    }
  }
  if (numbers.empty()) return {};
  return numbers;
}

// The list or map that the model's text holds.
Any from_text(const std::string& text) {
  const std::string_view trimmed = trim(text);
  const std::string word = lower(trimmed);
  if (trimmed.empty() || word == "none" || word == "none." || word == "null") return List{};
  std::vector<std::string_view> candidates;
  const std::size_t fence = trimmed.find("```");
  if (fence != std::string_view::npos) {
    const std::size_t body = trimmed.find('\n', fence);
    const std::size_t end = body == std::string_view::npos ? body : trimmed.find("```", body);
    if (end != std::string_view::npos) candidates.push_back(trim(trimmed.substr(body, end - body)));
  }
  candidates.push_back(trimmed);
  // Then the bracketed spans, the earliest first: "[1] and {..}" means the list.
  std::vector<std::string_view> spans;
  for (const auto& [open, close] : {std::pair{'{', '}'}, std::pair{'[', ']'}}) {
    const std::size_t first = trimmed.find(open);
    const std::size_t last = trimmed.rfind(close);
    if (first != std::string_view::npos && last != std::string_view::npos && first < last) {
      spans.push_back(trimmed.substr(first, last - first + 1));
    }
  }
  std::sort(spans.begin(), spans.end(),
            [](std::string_view a, std::string_view b) { return a.data() < b.data(); });
  candidates.insert(candidates.end(), spans.begin(), spans.end());
  for (const std::string_view candidate : candidates) {
    Any value = json_value(candidate);
    if (!value.is_none()) return value;
  }
  Any numbers = number_list(trimmed);
  if (!numbers.is_none()) return numbers;
  throw orvo_core::ValueError("the judge's answer holds no list: " +
                              orvo_core::text::quoted(orvo_core::text::excerpt(text)));
}

// Whether the model's answer lists `label`. Only a list is an answer: membership in a string
// would match substrings, and in anything else it is meaningless.
bool lists(const Any& answer, const Any& label, const Any& key) {
  if (!answer.is_list()) {
    throw orvo_core::TypeError("the language model's answer under " + key.repr() +
                               " must be a list, got " + answer.type_name());
  }
  const auto& values = answer.as_list();
  return std::find(values.begin(), values.end(), label) != values.end();
}

}  // namespace

std::vector<std::size_t> read_judge_answer(const Any& lm_output, const Chunks& batch_chunks,
                                           const Any& reference_metadata) {
  if (!lm_output.is_map()) {
    throw orvo_core::TypeError("the language model's answer must be a map, got " +
                               lm_output.type_name());
  }
  const Any answer = orvo_core::lookup(lm_output.as_map(), reference_metadata);
  std::vector<std::size_t> selected;
  for (std::size_t i = 0; i < batch_chunks.size(); ++i) {
    const Any label = orvo_core::lookup(batch_chunks[i]->metadata, reference_metadata);
    if (lists(answer, label, reference_metadata)) selected.push_back(i);
  }
  return selected;
}

std::vector<std::size_t> parse_judge_answer(const Any& lm_output, const Chunks& batch_chunks,
                                            const Any& reference_metadata) {
  Any answer = lm_output.is_string() ? from_text(lm_output.as_string()) : lm_output;
  if (answer.is_map()) {
    const Any* entry = orvo_core::find_key(answer.as_map(), reference_metadata);
    if (entry == nullptr) {
      throw orvo_core::ValueError(
          "the judge's answer has no " + reference_metadata.repr() +
          " entry: " + orvo_core::text::quoted(orvo_core::text::excerpt(answer.repr())));
    }
    Any list = *entry;  // the entry dies with the map
    answer = std::move(list);
  }
  if (!answer.is_list()) {
    throw orvo_core::TypeError("the judge's answer must be a list, got " + answer.type_name());
  }
  std::vector<bool> chosen(batch_chunks.size(), false);
  for (const Any& element : answer.as_list()) {
    bool matched = false;
    for (std::size_t i = 0; i < batch_chunks.size(); ++i) {
      if (orvo_core::lookup(batch_chunks[i]->metadata, reference_metadata) == element) {
        chosen[i] = true;
        matched = true;
      }
    }
    if (!matched && element.is_int() && element.as_int() >= 1 &&
        static_cast<std::uint64_t>(element.as_int()) <= batch_chunks.size()) {
      chosen[static_cast<std::size_t>(element.as_int() - 1)] = true;
    }
  }
  std::vector<std::size_t> selected;
  for (std::size_t i = 0; i < chosen.size(); ++i) {
    if (chosen[i]) selected.push_back(i);
  }
  return selected;
}

}  // namespace orvo_generation::reference_formatter
