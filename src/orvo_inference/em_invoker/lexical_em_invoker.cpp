#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <unordered_map>

#include "orvo_core/errors.hpp"

namespace orvo_inference {
namespace {

constexpr float kWordWeight = 1.0F;
constexpr float kTrigramWeight = 0.25F;

// Function words carry no topic; leaving them out keeps "the" from making texts look alike.
constexpr std::array<std::string_view, 64> kStopWords = {
    "a",    "about", "after", "all",  "also",  "an",    "and",  "any",   "are",   "as",   "at",
    "be",   "been",  "but",   "by",   "can",   "could", "did",  "do",    "does",  "for",  "from",
    "had",  "has",   "have",  "how",  "i",     "if",    "in",   "into",  "is",    "it",   "its",
    "may",  "more",  "most",  "no",   "not",   "of",    "on",   "or",    "other", "so",   "some",
    "such", "than",  "that",  "the",  "their", "them",  "then", "there", "these", "they", "this",
    "to",   "was",   "what",  "when", "which", "why",   "will", "with",  "would"};

bool is_stop_word(std::string_view word) {
  return std::binary_search(kStopWords.begin(), kStopWords.end(), word);
}

bool is_word_byte(unsigned char c) {
  return std::isalnum(c) != 0 || c >= 0x80;
}

std::uint64_t fnv1a(std::string_view prefix, std::string_view text) {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const std::string_view part : {prefix, text}) {
    for (const char c : part) {
      hash ^= static_cast<unsigned char>(c);
      hash *= 1099511628211ULL;
    }
  }
  return hash;
}

}  // namespace

LexicalEMInvoker::LexicalEMInvoker(std::size_t dimensions) : dimensions(dimensions) {
  if (dimensions == 0) throw orvo_core::ValueError("`dimensions` must be at least 1");
}

std::vector<std::string> LexicalEMInvoker::words(std::string_view text) {
  std::vector<std::string> out;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && !is_word_byte(static_cast<unsigned char>(text[i]))) ++i;
    std::string word;
    while (i < text.size()) {
      const auto c = static_cast<unsigned char>(text[i]);
      // An apostrophe inside a word ends it for good: "moon's" is "moon", "don't" is "don".
      if (c == '\'' && !word.empty()) {
        while (i < text.size() &&
               (is_word_byte(static_cast<unsigned char>(text[i])) || text[i] == '\'')) {
          ++i;
        }
        break;
      }
      if (!is_word_byte(c)) break;
      word.push_back(static_cast<char>(std::tolower(c)));
      ++i;
    }
    // Checked before the plural "s" goes too: "does" and "this" are no "doe" and "thi".
    if (is_stop_word(word)) continue;
    if (word.size() > 3 && word.back() == 's' && word[word.size() - 2] != 's') word.pop_back();
    if (word.size() > 1 && !is_stop_word(word)) out.push_back(std::move(word));
  }
  return out;
}

orvo_core::Embedding LexicalEMInvoker::embed(std::string_view text) const {
  // Hash -> (weight of one occurrence, occurrences).
  std::unordered_map<std::uint64_t, std::pair<float, int>> features;
  for (const std::string& word : words(text)) {
    auto& [weight, count] = features[fnv1a("w:", word)];
    weight = kWordWeight;
    ++count;
    const std::string marked = "<" + word + ">";
    for (std::size_t j = 0; j + 3 <= marked.size(); ++j) {
      auto& [gram_weight, gram_count] =
          features[fnv1a("g:", std::string_view(marked).substr(j, 3))];
      gram_weight = kTrigramWeight;
      ++gram_count;
    }
  }
  // Summed in hash order, so the float result does not depend on the map's iteration order.
  std::vector<std::pair<std::uint64_t, std::pair<float, int>>> sorted(features.begin(),
                                                                      features.end());
  std::sort(sorted.begin(), sorted.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  orvo_core::Embedding vector(dimensions, 0.0F);
  for (const auto& [hash, feature] : sorted) {
    const float value = feature.first * (1.0F + std::log(static_cast<float>(feature.second)));
    vector[hash % dimensions] += (hash >> 63) != 0 ? -value : value;
  }
  double norm2 = 0.0;
  for (const float x : vector) norm2 += double{x} * double{x};
  if (norm2 > 0.0) {
    const auto scale = static_cast<float>(1.0 / std::sqrt(norm2));
    for (float& x : vector) x *= scale;
  }
  return vector;
}

orvo_core::Awaitable<orvo_core::Embedding> LexicalEMInvoker::invoke(std::string text) {
  co_return embed(text);
}

orvo_core::Awaitable<orvo_core::Embeddings> LexicalEMInvoker::invoke(
    std::vector<std::string_view> texts) {
  std::vector<float> data;
  data.reserve(texts.size() * dimensions);
  for (const std::string_view text : texts) {
    const orvo_core::Embedding row = embed(text);
    data.insert(data.end(), row.begin(), row.end());
  }
  co_return orvo_core::Embeddings(std::move(data), texts.size(), dimensions);
}

}  // namespace orvo_inference
