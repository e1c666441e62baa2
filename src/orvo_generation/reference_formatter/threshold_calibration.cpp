#include "orvo_generation/reference_formatter/threshold_calibration.hpp"

#include <algorithm>
#include <cmath>

#include "orvo_core/errors.hpp"

namespace orvo_generation::reference_formatter {

ThresholdSuggestion suggest_threshold(std::vector<LabelledScore> pairs) {
  const auto positives = static_cast<double>(
      std::count_if(pairs.begin(), pairs.end(), [](const LabelledScore& p) { return p.relevant; }));
  if (positives == 0) throw orvo_core::ValueError("calibration needs at least one relevant pair");
  if (std::any_of(pairs.begin(), pairs.end(),
                  [](const LabelledScore& p) { return std::isnan(p.score); })) {
    throw orvo_core::ValueError("calibration scores must be numbers, not NaN");
  }
  std::sort(pairs.begin(), pairs.end(),
            [](const LabelledScore& a, const LabelledScore& b) { return a.score > b.score; });
  ThresholdSuggestion best;
  double kept_relevant = 0;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    kept_relevant += pairs[i].relevant ? 1 : 0;
    // A cut only between distinct scores: the pairs that tie with this one are kept with it.
    if (i + 1 < pairs.size() && pairs[i + 1].score == pairs[i].score) continue;
    const double precision = kept_relevant / static_cast<double>(i + 1);
    const double recall = kept_relevant / positives;
    const double f1 = precision + recall > 0 ? 2 * precision * recall / (precision + recall) : 0;
    if (f1 <= best.f1) continue;
    const double lowest_kept = pairs[i].score;
    double cut = lowest_kept;
    if (i + 1 < pairs.size()) {
      const double highest_rejected = pairs[i + 1].score;
      cut = (lowest_kept + highest_rejected) / 2;
      if (!(cut > highest_rejected)) cut = lowest_kept;  // neighbouring doubles
    }
    best = ThresholdSuggestion{cut, precision, recall, f1};
  }
  return best;
}

}  // namespace orvo_generation::reference_formatter
