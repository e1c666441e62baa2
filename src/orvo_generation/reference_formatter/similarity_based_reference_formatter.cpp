#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>
#include <vector>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "orvo_generation/reference_formatter/prefetch.hpp"

namespace orvo_generation::reference_formatter {

SimilarityBasedReferenceFormatter::SimilarityBasedReferenceFormatter(
    std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker, double threshold, bool stringify,
    FormatReferencesFunc format_references_func, FormatChunkFunc format_chunk_func,
    orvo_core::Any format_chunk_metadata_map, bool streamable)
    : BaseReferenceFormatter(stringify, std::move(format_references_func),
                             std::move(format_chunk_func), std::move(format_chunk_metadata_map),
                             streamable),
      em_invoker(std::move(em_invoker)),
      threshold(threshold) {}

orvo_core::Awaitable<Chunks> SimilarityBasedReferenceFormatter::_get_relevant_chunks(
    std::string response, Chunks chunks) {
  if (chunks.empty()) co_return Chunks();
  ScoredChunks scored = co_await score_chunks(std::move(response), std::move(chunks));
  Chunks relevant_chunks;
  relevant_chunks.reserve(scored.kept.size());
  for (ScoredChunk& kept : scored.kept) relevant_chunks.push_back(std::move(kept.chunk));
  co_return relevant_chunks;
}

orvo_core::Awaitable<ScoredChunks> SimilarityBasedReferenceFormatter::score_chunks(
    std::string response, Chunks chunks) {
  ScoredChunks scored;
  if (chunks.empty()) co_return scored;
  const orvo_core::Embedding response_embedding = co_await em_invoker->invoke(std::move(response));
  // Views into the chunks, which this frame keeps alive until the invoker has finished.
  std::vector<std::string_view> contents;
  contents.reserve(chunks.size());
  for (const auto& chunk : chunks) contents.emplace_back(chunk->content);
  scored.embeddings = co_await em_invoker->invoke(std::move(contents));
  scored.scores = orvo_core::cosine(response_embedding, scored.embeddings);
  const std::vector<double>& scores = scored.scores;
  // The scan pushed the chunks out of the cache; the kept ones are copied and all of them are
  // released next.
  detail::prefetch_objects(chunks, [](const auto& chunk) { return chunk.get(); });

  const std::size_t common = std::min(chunks.size(), scores.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (scores[i] >= threshold) {
      scored.kept.push_back(ScoredChunk{nullptr, scores[i], 0, i});
    } else if (!std::isnan(scores[i]) &&
               (!scored.best_rejected_score || scores[i] > *scored.best_rejected_score)) {
      scored.best_rejected_score = scores[i];
    }
  }
  if (scores.size() != chunks.size()) {
    throw orvo_core::ValueError("the embedding invoker returned " + std::to_string(scores.size()) +
                                " embeddings for " + std::to_string(chunks.size()) +
                                " chunk contents");
  }
  std::stable_sort(scored.kept.begin(), scored.kept.end(),
                   [](const ScoredChunk& a, const ScoredChunk& b) { return a.score > b.score; });
  for (std::size_t rank = 0; rank < scored.kept.size(); ++rank) {
    scored.kept[rank].chunk = chunks[scored.kept[rank].position];
    scored.kept[rank].rank = rank + 1;
  }
  co_return scored;
}

orvo_core::Awaitable<Chunks> SimilarityBasedReferenceFormatter::_select_relevant_chunks(
    std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  if (!stream_scores || !event_emitter) {
    co_return co_await _get_relevant_chunks(std::move(response), std::move(chunks));
  }
  const ScoredChunks scored = co_await score_chunks(std::move(response), std::move(chunks));
  // Every payload is built before the first event, as the references are.
  std::vector<std::string> payloads;
  for (const ScoredChunk& kept : scored.kept) {
    orvo_core::Map value;
    value.emplace("rank", kept.rank);
    value.emplace("score", kept.score);
    value.emplace("position", kept.position);
    value.emplace("reference",
                  format_chunk_func ? format_chunk_func(*kept.chunk) : orvo_core::Any());
    payloads.push_back(data_payload("reference_score", std::move(value)));
  }
  if (scored.kept.empty() && !scored.scores.empty()) {
    orvo_core::Map value;
    value.emplace("threshold", threshold);
    value.emplace("best_rejected_score", scored.best_rejected_score
                                             ? orvo_core::Any(*scored.best_rejected_score)
                                             : orvo_core::Any());
    payloads.push_back(data_payload("reference_below_threshold", std::move(value)));
  }
  for (std::string& payload : payloads) {
    co_await event_emitter->emit(std::move(payload), orvo_core::EventLevel::INFO,
                                 orvo_core::EventType::DATA);
  }
  Chunks relevant_chunks;
  for (const ScoredChunk& kept : scored.kept) relevant_chunks.push_back(kept.chunk);
  co_return relevant_chunks;
}

}  // namespace orvo_generation::reference_formatter
