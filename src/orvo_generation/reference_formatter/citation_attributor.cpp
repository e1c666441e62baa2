#include "orvo_generation/reference_formatter/citation_attributor.hpp"

#include <algorithm>
#include <cctype>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace orvo_generation::reference_formatter {

namespace {

using Spans = std::vector<std::pair<std::size_t, std::size_t>>;

bool blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

bool is_terminator(char c) {
  return c == '.' || c == '!' || c == '?';
}

// The rows of `rows` at `positions`, as a batch of their own.
orvo_core::Embeddings gather(const orvo_core::Embeddings& rows,
                             const std::vector<std::size_t>& positions) {
  std::vector<float> data;
  data.reserve(positions.size() * rows.dim());
  for (const std::size_t p : positions) data.insert(data.end(), rows[p].begin(), rows[p].end());
  return {std::move(data), positions.size(), rows.dim()};
}

void check_rows(const orvo_core::Embeddings& rows, std::size_t texts) {
  if (rows.size() != texts) {
    throw orvo_core::ValueError("the embedding invoker returned " + std::to_string(rows.size()) +
                                " embeddings for " + std::to_string(texts) + " texts");
  }
}

std::vector<std::string_view> sentence_texts(std::string_view response, const Spans& spans) {
  std::vector<std::string_view> texts;
  texts.reserve(spans.size());
  for (const auto& [begin, length] : spans) texts.push_back(response.substr(begin, length));
  return texts;
}

}  // namespace

Spans split_sentences(std::string_view text) {
  Spans spans;
  std::size_t start = 0;
  const auto close = [&spans, &text, &start](std::size_t end) {
    while (start < end && blank(text[start])) ++start;
    std::size_t last = end;
    while (last > start && blank(text[last - 1])) --last;
    if (last > start) spans.emplace_back(start, last - start);
    start = end;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n') {
      close(i);
      continue;
    }
    if (!is_terminator(text[i])) continue;
    std::size_t end = i;
    while (end < text.size() &&
           (is_terminator(text[end]) ||
            std::string_view("\"')]").find(text[end]) != std::string_view::npos)) {
      ++end;
    }
    std::size_t next = end;
    while (next < text.size() && blank(text[next]) && text[next] != '\n') ++next;
    const bool followed = end == text.size() || next > end;
    const bool lower =
        next < text.size() && std::islower(static_cast<unsigned char>(text[next])) != 0;
    std::size_t first = start;
    while (first < i && blank(text[first])) ++first;
    const bool numbering = text[i] == '.' && first < i &&
                           std::all_of(text.begin() + static_cast<std::ptrdiff_t>(first),
                                       text.begin() + static_cast<std::ptrdiff_t>(i), [](char c) {
                                         return std::isdigit(static_cast<unsigned char>(c)) != 0;
                                       });
    i = end - 1;
    if (followed && !lower && !numbering) close(end);
  }
  close(text.size());
  return spans;
}

CitationAttributor::CitationAttributor(std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker,
                                       double threshold, std::size_t max_markers)
    : em_invoker(std::move(em_invoker)), threshold(threshold), max_markers(max_markers) {}

orvo_core::Awaitable<Attribution> CitationAttributor::attribute(
    std::string response, ScoredChunks scored, std::vector<std::size_t> reference_numbers) {
  const Spans spans = split_sentences(response);
  std::vector<std::size_t> positions;
  for (const ScoredChunk& kept : scored.kept) positions.push_back(kept.position);
  if (reference_numbers.empty()) {
    for (const ScoredChunk& kept : scored.kept) reference_numbers.push_back(kept.rank);
  }
  orvo_core::Embeddings sentences;
  if (!spans.empty() && !positions.empty()) {
    sentences = co_await em_invoker->invoke(sentence_texts(response, spans));
    check_rows(sentences, spans.size());
  }
  co_return mark(response, spans, sentences, gather(scored.embeddings, positions),
                 reference_numbers);
}

orvo_core::Awaitable<Attribution> CitationAttributor::attribute(
    std::string response, Chunks chunks, std::vector<std::size_t> reference_numbers) {
  const Spans spans = split_sentences(response);
  if (reference_numbers.empty()) {
    for (std::size_t i = 0; i < chunks.size(); ++i) reference_numbers.push_back(i + 1);
  }
  orvo_core::Embeddings sentences;
  orvo_core::Embeddings contents;
  if (!spans.empty() && !chunks.empty()) {
    std::vector<std::string_view> texts = sentence_texts(response, spans);
    for (const auto& chunk : chunks) texts.emplace_back(chunk->content);
    const orvo_core::Embeddings rows = co_await em_invoker->invoke(std::move(texts));
    check_rows(rows, spans.size() + chunks.size());
    sentences = orvo_core::Embeddings(rows.buffer(), spans.size(), rows.dim());
    contents = orvo_core::Embeddings(
        std::shared_ptr<const float>(rows.buffer(), rows.data() + spans.size() * rows.dim()),
        chunks.size(), rows.dim());
  }
  co_return mark(response, spans, sentences, contents, reference_numbers);
}

Attribution CitationAttributor::mark(std::string_view response, const Spans& spans,
                                     const orvo_core::Embeddings& sentences,
                                     const orvo_core::Embeddings& chunks,
                                     const std::vector<std::size_t>& numbers) const {
  if (numbers.size() != chunks.size() && !chunks.empty()) {
    throw orvo_core::ValueError("there are " + std::to_string(numbers.size()) +
                                " reference numbers for " + std::to_string(chunks.size()) +
                                " chunks");
  }
  Attribution attribution;
  std::size_t copied = 0;
  for (std::size_t s = 0; s < spans.size(); ++s) {
    const auto [begin, length] = spans[s];
    SentenceAttribution sentence{std::string(response.substr(begin, length)), begin, {}, 0};
    if (!sentences.empty() && !chunks.empty()) {
      const std::vector<double> scores = orvo_core::cosine(sentences[s], chunks);
      std::vector<std::size_t> order(scores.size());
      for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
      std::stable_sort(order.begin(), order.end(),
                       [&scores](std::size_t a, std::size_t b) { return scores[a] > scores[b]; });
      sentence.best_score = scores[order[0]];
      for (const std::size_t i : order) {
        if (!(scores[i] >= threshold) || sentence.references.size() >= max_markers) break;
        if (std::find(sentence.references.begin(), sentence.references.end(), numbers[i]) ==
            sentence.references.end()) {
          sentence.references.push_back(numbers[i]);
        }
      }
      std::sort(sentence.references.begin(), sentence.references.end());
    }
    // The markers go before the sentence's closing punctuation: "... moon [1][2]."
    std::size_t at = begin + length;
    while (at > begin && is_terminator(response[at - 1])) --at;
    attribution.text.append(response.substr(copied, at - copied));
    copied = at;
    if (sentence.references.empty()) {
      attribution.unsupported.push_back(s);
    } else {
      attribution.text.push_back(' ');
      for (const std::size_t n : sentence.references) {
        attribution.text += "[" + std::to_string(n) + "]";
      }
    }
    attribution.sentences.push_back(std::move(sentence));
  }
  attribution.text.append(response.substr(copied));
  return attribution;
}

}  // namespace orvo_generation::reference_formatter
