#include "orvo_inference/request_processor/extractive_request_processor.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <vector>

#include "orvo_core/constants.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace orvo_inference {

using orvo_core::Any;

namespace {

constexpr double kAnswerThreshold = 0.3;
constexpr double kJudgeThreshold = 0.3;

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

// Sentences of a text: cut after . ! ? followed by white space, and at every line end.
std::vector<std::string_view> sentences(std::string_view text) {
  std::vector<std::string_view> out;
  const auto add = [&out](std::string_view piece) {
    piece = trim(piece);
    if (piece.empty() || piece.front() == '#') return;
    // A short line without a full stop is a title, not something to answer with.
    const char last = piece.back();
    const bool ended = last == '.' || last == '!' || last == '?' || last == ':';
    if (!ended && std::count(piece.begin(), piece.end(), ' ') < 8) return;
    out.push_back(piece);
  };
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool end_mark = (c == '.' || c == '!' || c == '?') &&
                          (i + 1 == text.size() || text[i + 1] == ' ' || text[i + 1] == '\n');
    if (c == '\n' || end_mark) {
      add(text.substr(start, i + 1 - start));
      start = i + 1;
    }
  }
  add(text.substr(start));
  return out;
}

const std::string& required_text(const orvo_core::Map& variables, std::string_view name) {
  const Any* value = orvo_core::find(variables, name);
  if (value == nullptr || !value->is_string()) {
    throw orvo_core::ValueError("the prompt variable '" + std::string(name) +
                                "' is missing or not a str");
  }
  return value->as_string();
}

std::vector<double> scores(const LexicalEMInvoker& embedder, std::string_view text,
                           const std::vector<std::string_view>& candidates) {
  std::vector<orvo_core::Embedding> rows;
  rows.reserve(candidates.size());
  for (const auto candidate : candidates) rows.push_back(embedder.embed(candidate));
  return orvo_core::cosine(embedder.embed(text), orvo_core::Embeddings::from_rows(rows));
}

// How much of the question each sentence covers: the summed rarity (inverse sentence frequency
// within the context) of the question's words that the sentence holds, over that of all of them.
std::vector<double> coverage(std::string_view query,
                             const std::vector<std::string_view>& candidates) {
  std::vector<std::set<std::string>> words;
  std::map<std::string, int> document_frequency;
  for (const auto candidate : candidates) {
    const auto list = LexicalEMInvoker::words(candidate);
    words.emplace_back(list.begin(), list.end());
    for (const auto& word : words.back()) ++document_frequency[word];
  }
  const auto query_list = LexicalEMInvoker::words(query);
  const std::set<std::string> query_words(query_list.begin(), query_list.end());
  const auto n = static_cast<double>(candidates.size());
  std::map<std::string, double> rarity;
  double total = 0.0;
  for (const auto& word : query_words) {
    const auto it = document_frequency.find(word);
    const double df = it == document_frequency.end() ? 0.0 : it->second;
    rarity[word] = std::log(1.0 + (n - df + 0.5) / (df + 0.5));
    total += rarity[word];
  }
  std::vector<double> score(candidates.size(), 0.0);
  if (total <= 0.0) return score;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    for (const auto& [word, weight] : rarity) {
      if (words[i].count(word) != 0) score[i] += weight / total;
    }
  }
  return score;
}

}  // namespace

ExtractiveRequestProcessor::ExtractiveRequestProcessor(Task task, double min_similarity,
                                                       std::size_t max_sentences)
    : task(task),
      min_similarity(min_similarity >= 0.0
                         ? min_similarity
                         : (task == Task::answer ? kAnswerThreshold : kJudgeThreshold)),
      max_sentences(max_sentences) {}

std::string ExtractiveRequestProcessor::answer(std::string_view query,
                                               std::string_view context) const {
  const std::vector<std::string_view> candidates = sentences(context);
  if (candidates.empty()) return no_answer;
  const std::vector<double> score = coverage(query, candidates);
  // Best first; among equals, the earlier sentence, whose chunk was retrieved higher.
  std::vector<std::size_t> order(candidates.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&score](std::size_t a, std::size_t b) { return score[a] > score[b]; });
  std::vector<std::size_t> chosen;
  for (const std::size_t i : order) {
    if (chosen.size() == max_sentences || score[i] < min_similarity) break;
    // The same sentence twice (overlapping chunks) says nothing new.
    const bool repeated = std::any_of(chosen.begin(), chosen.end(), [&](std::size_t j) {
      return candidates[j] == candidates[i];
    });
    if (!repeated) chosen.push_back(i);
  }
  if (chosen.empty()) return no_answer;
  std::sort(chosen.begin(), chosen.end());
  std::string text;
  for (const std::size_t i : chosen) {
    if (!text.empty()) text += ' ';
    text += candidates[i];
  }
  return text;
}

Any ExtractiveRequestProcessor::judge(std::string_view response, std::string_view context) const {
  static constexpr std::string_view kMarker = "[CHUNK]\n";
  static constexpr std::string_view kContent = "\nContent:\n";
  std::string key;
  std::vector<Any> labels;
  std::vector<std::string_view> contents;
  std::size_t at = context.find(kMarker);
  while (at != std::string_view::npos) {
    const std::size_t next = context.find("\n\n" + std::string(kMarker), at);
    const std::string_view block = context.substr(
        at + kMarker.size(),
        next == std::string_view::npos ? std::string_view::npos : next - at - kMarker.size());
    const std::size_t content = block.find(kContent);
    const std::size_t colon = block.find(": ");
    if (content == std::string_view::npos || colon == std::string_view::npos || colon > content) {
      throw orvo_core::ValueError("the context is not in the [CHUNK] layout");
    }
    key = std::string(block.substr(0, colon));
    const std::string_view label = block.substr(colon + 2, content - colon - 2);
    labels.push_back(label == "None" ? Any() : Any(label));
    contents.push_back(block.substr(content + kContent.size()));
    at = next == std::string_view::npos ? next : next + 2;
  }
  orvo_core::List relevant;
  if (!contents.empty()) {
    const std::vector<double> score = scores(embedder_, response, contents);
    for (std::size_t i = 0; i < contents.size(); ++i) {
      if (score[i] >= min_similarity) relevant.push_back(labels[i]);
    }
  }
  orvo_core::Map result;
  result.emplace(key.empty() ? std::string("file_name") : key, std::move(relevant));
  return result;
}

orvo_core::Awaitable<Any> ExtractiveRequestProcessor::process(
    std::shared_ptr<orvo_core::Map> prompt_kwargs, Any /*history*/,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter, Any /*system_multimodal_contents*/,
    Any /*user_multimodal_contents*/) {
  const orvo_core::Map no_variables;
  const orvo_core::Map& variables = prompt_kwargs ? *prompt_kwargs : no_variables;
  if (task == Task::judge) {
    co_return judge(required_text(variables, "response"), required_text(variables, "context"));
  }
  std::string text = answer(required_text(variables, "query"), required_text(variables, "context"));
  if (event_emitter) {
    // Word by word, the way a model streams its reply.
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find(' ', start + 1);
      if (end == std::string::npos) end = text.size();
      std::string token = text.substr(start, end - start);
      co_await event_emitter->emit(std::move(token), orvo_core::EventLevel::INFO,
                                   orvo_core::EventType::RESPONSE);
      start = end;
    }
  }
  co_return Any(std::move(text));
}

}  // namespace orvo_inference
