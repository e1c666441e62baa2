#include "orvo_core/utils/similarity.hpp"

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include "orvo_core/errors.hpp"

namespace {

using orvo_core::Embeddings;

TEST(similarity, mismatched_lengths_are_rejected) {
  EXPECT_THROW(
      (void)orvo_core::cosine(std::vector<float>{1, 2, 3}, Embeddings::from_rows({{1, 2}})),
      orvo_core::ValueError);
  EXPECT_THROW((void)Embeddings::from_rows({{1, 2}, {1}}), orvo_core::ValueError);
  EXPECT_THROW(Embeddings(std::vector<float>{1, 2, 3}, 2, 2), orvo_core::ValueError);
}

double reference_cosine(const std::vector<float>& a, std::span<const float> b) {
  double dot = 0, na = 0, nb = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    dot += double{a[i]} * double{b[i]};
    na += double{a[i]} * double{a[i]};
    nb += double{b[i]} * double{b[i]};
  }
  return na > 0 && nb > 0 ? dot / std::sqrt(na * nb) : 0.0;
}

TEST(similarity, every_compiled_simd_target_matches_a_double_reference) {
  std::mt19937 rng(7);
  std::normal_distribution<float> normal;
  const auto targets = hwy::SupportedAndGeneratedTargets();
  ASSERT_FALSE(targets.empty());
  for (const std::int64_t target : targets) {
    hwy::SetSupportedTargetsForTest(target);
    EXPECT_EQ(orvo_core::cosine_target(), hwy::TargetName(target));
    for (const std::size_t dim : {0UL, 1UL, 7UL, 8UL, 9UL, 97UL, 1536UL}) {
      std::vector<float> query(dim);
      for (auto& x : query) x = normal(rng);
      // Random rows, the query itself, its negation scaled up, and a zero row (the last).
      std::vector<float> data;
      const std::size_t rows = 6;
      for (std::size_t r = 0; r < 3 * dim; ++r) data.push_back(normal(rng));
      data.insert(data.end(), query.begin(), query.end());
      for (const float x : query) data.push_back(-1000.0F * x);
      data.insert(data.end(), dim, 0.0F);
      const Embeddings batch(data, rows, dim);
      const auto scores = orvo_core::cosine(query, batch);
      ASSERT_EQ(scores.size(), rows);
      for (std::size_t r = 0; r < rows; ++r) {
        EXPECT_NEAR(scores[r], reference_cosine(query, batch[r]), 1e-12)
            << hwy::TargetName(target) << " dim " << dim << " row " << r;
      }
      // A zero vector, on either side, is similar to nothing.
      EXPECT_EQ(orvo_core::cosine(std::vector<float>(dim), batch), std::vector<double>(rows));
    }
  }
  hwy::SetSupportedTargetsForTest(0);
}

}  // namespace
