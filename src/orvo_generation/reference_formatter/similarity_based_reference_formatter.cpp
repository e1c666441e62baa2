#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"

#include <algorithm>
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
  const orvo_core::Embedding response_embedding = co_await em_invoker->invoke(std::move(response));
  // This frame keeps the chunks alive until their contents are embedded.
  const std::span<const std::shared_ptr<orvo_core::Chunk>> all(chunks);
  const orvo_core::Embeddings content_embeddings = co_await _embed_contents(all);
  const std::vector<double> scores = orvo_core::cosine(response_embedding, content_embeddings);
  // The scan pushed the chunks out of the cache; the kept ones are copied and all of them are
  // released next.
  detail::prefetch_objects(chunks, [](const auto& chunk) { return chunk.get(); });

  struct Scored {
    double score;
    std::size_t index;
  };
  std::vector<Scored> kept;
  const std::size_t common = std::min(chunks.size(), scores.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (scores[i] >= threshold) kept.push_back(Scored{scores[i], i});
  }
  if (scores.size() != chunks.size()) {
    throw orvo_core::ValueError("the embedding invoker returned " + std::to_string(scores.size()) +
                                " embeddings for " + std::to_string(chunks.size()) +
                                " chunk contents");
  }
  std::stable_sort(kept.begin(), kept.end(),
                   [](const Scored& a, const Scored& b) { return a.score > b.score; });
  Chunks relevant_chunks;
  relevant_chunks.reserve(kept.size());
  for (const Scored& s : kept) relevant_chunks.push_back(chunks[s.index]);
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
