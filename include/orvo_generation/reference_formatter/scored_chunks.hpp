#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "orvo_core/embeddings.hpp"
#include "orvo_core/schema/chunk.hpp"

namespace orvo_generation::reference_formatter {

/// A chunk that the similarity formatter kept, with its score and rank.
struct ScoredChunk {
  std::shared_ptr<orvo_core::Chunk> chunk;  ///< The caller's chunk.
  double score = 0;                         ///< Its cosine similarity to the response.
  std::size_t rank = 0;                     ///< From 1, most similar first.
  std::size_t position = 0;                 ///< Where it was in the candidate list.
};

/// What the similarity formatter made of one response and its candidate chunks.
struct ScoredChunks {
  std::vector<ScoredChunk> kept;  ///< The chunks at or above the threshold, by rank.
  std::vector<double> scores;     ///< Every candidate's score, in candidate order.
  /// The highest score below the threshold; none when no score was (a not-a-number score is
  /// below every threshold but is no score to report).
  std::optional<double> best_rejected_score;
  orvo_core::Embeddings embeddings;  ///< The candidates' content embeddings, in candidate order.
};

}  // namespace orvo_generation::reference_formatter
