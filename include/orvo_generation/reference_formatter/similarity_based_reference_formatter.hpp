#pragma once

#include <memory>
#include <span>
#include <string>

#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"

namespace orvo_generation::reference_formatter {

/// The default similarity threshold.
inline constexpr double DEFAULT_THRESHOLD = 0.5;

/// Keeps the chunks whose content embedding is at least `threshold` cosine-similar to the
/// response's embedding, most similar first (ties keep their input order).
class SimilarityBasedReferenceFormatter : public BaseReferenceFormatter {
 public:
  /// Stores the invoker and threshold; the rest goes to the base unchanged.
  explicit SimilarityBasedReferenceFormatter(
      std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker,
      double threshold = DEFAULT_THRESHOLD, bool stringify = true,
      FormatReferencesFunc format_references_func = {}, FormatChunkFunc format_chunk_func = {},
      orvo_core::Any format_chunk_metadata_map = {}, bool streamable = true);

  /// Embeds the response, then all contents in one request, scores them with one `cosine` call
  /// and keeps the chunks scoring at least `threshold`. An empty list makes no request. An
  /// invoker that returns another number of embeddings than contents is a `ValueError`.
  orvo_core::Awaitable<Chunks> _get_relevant_chunks(std::string response, Chunks chunks) override;

  /// The embeddings of the chunks' contents, one row per chunk, in one request to `em_invoker`.
  /// The chunks stay alive until the returned awaitable completes.
  virtual orvo_core::Awaitable<orvo_core::Embeddings> _embed_contents(
      std::span<const std::shared_ptr<orvo_core::Chunk>> chunks);

  std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker;  ///< Embeds response and contents.
  double threshold;  ///< The lowest score at which a chunk is kept.
};

}  // namespace orvo_generation::reference_formatter
