#include "orvo_generation/reference_formatter/threshold_calibration.hpp"

#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;

TEST(threshold_calibration, picks_the_best_cut_halfway_between_scores) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    std::vector<rf::LabelledScore> pairs;
    double threshold;
    double f1;
  } cases[] = {
      {{{0.9, true}, {0.8, true}, {0.4, false}, {0.3, false}}, 0.6, 1.0},
      {{{0.9, true}, {0.7, false}, {0.6, true}, {0.2, false}}, 0.4, 0.8},
      {{{0.5, true}, {0.5, false}, {0.1, false}}, 0.3, 2.0 / 3},  // a cut never splits a tie
      {{{0.3, true}, {0.2, true}}, 0.2, 1.0},                     // keep all: the lowest score
  };
  for (const auto& c : cases) {
    const rf::ThresholdSuggestion s = rf::suggest_threshold(c.pairs);
    EXPECT_DOUBLE_EQ(s.threshold, c.threshold);
    EXPECT_DOUBLE_EQ(s.f1, c.f1);
  }
  EXPECT_THROW((void)rf::suggest_threshold({{0.3, false}}), orvo_core::ValueError) << "no positive";
  EXPECT_THROW((void)rf::suggest_threshold({{nan, true}}), orvo_core::ValueError);
}

}  // namespace
