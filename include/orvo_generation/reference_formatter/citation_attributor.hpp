#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvo_core/async.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/scored_chunks.hpp"
#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"

namespace orvo_generation::reference_formatter {

/// One sentence of a response and the references that support it.
struct SentenceAttribution {
  std::string sentence;                 ///< The sentence as it stands in the response.
  std::size_t begin = 0;                ///< Its byte offset in the response.
  std::vector<std::size_t> references;  ///< Reference numbers, ascending; empty: unsupported.
  double best_score = 0;                ///< Its highest score against any chunk (0: no chunk).
};

/// A response with inline citations.
struct Attribution {
  std::string text;                            ///< The response with "[n]" markers.
  std::vector<SentenceAttribution> sentences;  ///< In order.
  std::vector<std::size_t> unsupported;        ///< Indices of the sentences without a marker.
};

/// The sentences of `text` as (offset, length) pairs, blanks around them left out. A sentence
/// ends at a line break, or after `.`, `!` or `?` (and closing quotes or brackets) followed by
/// a blank and then no lower-case letter; a `.` after nothing but digits ("1. ") ends nothing.
[[nodiscard]] std::vector<std::pair<std::size_t, std::size_t>> split_sentences(
    std::string_view text);

/// Marks each sentence of a response with the numbers of the references whose chunks support
/// it: the sentences are embedded in one request and scored against the chunks' embeddings; a
/// chunk supports a sentence when their similarity is at least `threshold`.
class CitationAttributor {
 public:
  /// Stores the settings, unchecked.
  explicit CitationAttributor(std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker,
                              double threshold = DEFAULT_THRESHOLD, std::size_t max_markers = 3);

  /// Attributes against the chunks the similarity formatter kept, reusing their embeddings: one
  /// request, for the sentences. `reference_numbers` gives the reference number of each kept
  /// chunk, in rank order (as `source_numbers` does for merged references); empty: its rank,
  /// as the default references number them.
  orvo_core::Awaitable<Attribution> attribute(std::string response, ScoredChunks scored,
                                              std::vector<std::size_t> reference_numbers = {});

  /// Attributes against `chunks`, numbered as `reference_numbers` says (empty: from 1 in list
  /// order); the sentences and the chunks' contents are embedded in one request.
  orvo_core::Awaitable<Attribution> attribute(std::string response, Chunks chunks,
                                              std::vector<std::size_t> reference_numbers = {});

  std::shared_ptr<orvo_inference::BaseEMInvoker> em_invoker;  ///< Embeds the sentences.
  double threshold;         ///< The lowest similarity at which a chunk supports a sentence.
  std::size_t max_markers;  ///< The most markers on one sentence (the best-scoring ones).

 private:
  [[nodiscard]] Attribution mark(std::string_view response,
                                 const std::vector<std::pair<std::size_t, std::size_t>>& spans,
                                 const orvo_core::Embeddings& sentences,
                                 const orvo_core::Embeddings& chunks,
                                 const std::vector<std::size_t>& numbers) const;
};

}  // namespace orvo_generation::reference_formatter
