#pragma once

#include <memory>
#include <span>
#include <string>

#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/scored_chunks.hpp"
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

  /// The same decision with everything behind it: the kept chunks with their scores and ranks,
  /// every candidate's score, the best rejected score and the content embeddings. Same requests
  /// and errors as `_get_relevant_chunks`.
  orvo_core::Awaitable<ScoredChunks> score_chunks(std::string response, Chunks chunks);

  /// `_get_relevant_chunks`; with `stream_scores`, the scores go to the emitter as well: for
  /// each kept chunk, by rank, an INFO DATA event `{"data_type": "reference_score",
  /// "data_value": {"rank": 1, "score": 0.83, "position": <in the candidates, from 0>,
  /// "reference": <its entry>}}`; when none is kept but some was scored, one
  /// `{"data_type": "reference_below_threshold", "data_value": {"threshold": 0.5,
  /// "best_rejected_score": 0.42}}` (null when every score was NaN).
  orvo_core::Awaitable<Chunks> _select_relevant_chunks(
      std::string response, Chunks chunks,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter) override;

  /// The embeddings of the chunks' contents, one row per chunk, in one request to `em_invoker`.
  /// The chunks stay alive until the returned awaitable completes.
  virtual orvo_core::Awaitable<orvo_core::Embeddings> _embed_contents(
      std::span<const std::shared_ptr<orvo_core::Chunk>> chunks);

  std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker;  ///< Embeds response and contents.
  double threshold;            ///< The lowest score at which a chunk is kept.
  bool stream_scores = false;  ///< Whether the scores are streamed before the references.

 private:
  orvo_core::Awaitable<Chunks> stream_scored(
      std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter);
};

}  // namespace orvo_generation::reference_formatter
