#pragma once

#include <vector>

namespace orvo_generation::reference_formatter {

/// A similarity score and whether a person judged that chunk relevant to that response.
struct LabelledScore {
  double score = 0;
  bool relevant = false;
};

/// A threshold for the similarity formatter and how it does on the pairs it was chosen from.
struct ThresholdSuggestion {
  double threshold = 0;  ///< Keep scores at or above this.
  double precision = 0;  ///< Of the kept pairs, the share that is relevant.
  double recall = 0;     ///< Of the relevant pairs, the share that is kept.
  double f1 = 0;         ///< The harmonic mean of the two, which the choice maximises.
};

/// The threshold that best separates the relevant pairs from the others: of every cut between
/// two distinct scores, the one with the highest F1 (on a tie, the higher cut), placed halfway
/// between the lowest kept score and the highest rejected one, so that scores near either are
/// not on the edge. No pairs, no relevant pair or a not-a-number score is a `ValueError`.
[[nodiscard]] ThresholdSuggestion suggest_threshold(std::vector<LabelledScore> pairs);

}  // namespace orvo_generation::reference_formatter
