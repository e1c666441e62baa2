#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
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

namespace {

// The positions kept, most similar first (ties in input order), and the best score below the
// threshold. Scores and chunks of different counts are a `ValueError`, once the common prefix
// has been compared.
struct Decision {
  std::vector<std::pair<double, std::size_t>> kept;
  std::optional<double> best_rejected_score;
};

Decision decide(const std::vector<double>& scores, std::size_t chunks, double threshold) {
  Decision decision;
  const std::size_t common = std::min(chunks, scores.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (scores[i] >= threshold) {
      decision.kept.emplace_back(scores[i], i);
    } else if (!std::isnan(scores[i]) &&
               (!decision.best_rejected_score || scores[i] > *decision.best_rejected_score)) {
      decision.best_rejected_score = scores[i];
    }
  }
  if (scores.size() != chunks) {
    throw orvo_core::ValueError("the embedding invoker returned " + std::to_string(scores.size()) +
                                " embeddings for " + std::to_string(chunks) + " chunk contents");
  }
  std::stable_sort(decision.kept.begin(), decision.kept.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  return decision;
}

}  // namespace

orvo_core::Awaitable<Chunks> SimilarityBasedReferenceFormatter::_get_relevant_chunks(
    std::string response, Chunks chunks) {
  if (chunks.empty()) co_return Chunks();
  const orvo_core::Embedding response_embedding = co_await em_invoker->invoke(std::move(response));
  // This frame keeps the chunks alive until their contents are embedded.
  const std::span<const std::shared_ptr<orvo_core::Chunk>> all(chunks);
  const orvo_core::Embeddings content_embeddings = co_await _embed_contents(all);
  const std::vector<double> scores = orvo_core::cosine(response_embedding, content_embeddings);
  // The scan pushed the chunks out of the cache; the kept ones are copied and all of them are
  // released next.
  detail::prefetch_objects(chunks, [](const auto& chunk) { return chunk.get(); });
  const Decision decision = decide(scores, chunks.size(), threshold);
  Chunks relevant_chunks;
  relevant_chunks.reserve(decision.kept.size());
  for (const auto& kept : decision.kept) relevant_chunks.push_back(chunks[kept.second]);
  co_return relevant_chunks;
}

orvo_core::Awaitable<ScoredChunks> SimilarityBasedReferenceFormatter::score_chunks(
    std::string response, Chunks chunks) {
  ScoredChunks scored;
  if (chunks.empty()) co_return scored;
  const orvo_core::Embedding response_embedding = co_await em_invoker->invoke(std::move(response));
  const std::span<const std::shared_ptr<orvo_core::Chunk>> all(chunks);
  scored.embeddings = co_await _embed_contents(all);
  scored.scores = orvo_core::cosine(response_embedding, scored.embeddings);
  const Decision decision = decide(scored.scores, chunks.size(), threshold);
  for (const auto& [score, position] : decision.kept) {
    scored.kept.push_back(ScoredChunk{chunks[position], score, scored.kept.size() + 1, position});
  }
  scored.best_rejected_score = decision.best_rejected_score;
  co_return scored;
}

orvo_core::Awaitable<Chunks> SimilarityBasedReferenceFormatter::_select_relevant_chunks(
    std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  if (!stream_scores || !event_emitter) {
    return _get_relevant_chunks(std::move(response), std::move(chunks));
  }
  return stream_scored(std::move(response), std::move(chunks), std::move(event_emitter));
}

orvo_core::Awaitable<Chunks> SimilarityBasedReferenceFormatter::stream_scored(
    std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  const ScoredChunks scored = co_await score_chunks(std::move(response), std::move(chunks));
  // Every payload is built before the first event, as the references are.
  std::vector<std::string> payloads;
  for (const ScoredChunk& kept : scored.kept) {
    orvo_core::Map value;
    value.emplace("rank", kept.rank);
    value.emplace("score", kept.score);
    value.emplace("position", kept.position);
    orvo_core::Any entry = format_chunk_func ? format_chunk_func(*kept.chunk) : orvo_core::Any();
    if (entry.is_object()) entry = entry.str();  // JSON has no objects: their text form
    value.emplace("reference", std::move(entry));
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

orvo_core::Awaitable<orvo_core::Embeddings> SimilarityBasedReferenceFormatter::_embed_contents(
    std::span<const std::shared_ptr<orvo_core::Chunk>> chunks) {
  // Views into the chunks, which the caller keeps alive until the invoker has finished.
  std::vector<std::string_view> contents;
  contents.reserve(chunks.size());
  for (const auto& chunk : chunks) contents.emplace_back(chunk->content);
  co_return co_await em_invoker->invoke(std::move(contents));
}

}  // namespace orvo_generation::reference_formatter
