#include "orvo_core/utils/similarity.hpp"

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"

namespace {

using orvo_core::Embeddings;

TEST(similarity, cosine_scores_each_vector_in_order) {
  const auto batch = Embeddings::from_rows({{1, 0}, {0, 2}, {-3, 0}, {1, 1}, {0, 0}});
  const auto scores = orvo_core::cosine(std::vector<float>{2, 0}, batch);
  ASSERT_EQ(scores.size(), 5U);
  EXPECT_DOUBLE_EQ(scores[0], 1.0);
  EXPECT_DOUBLE_EQ(scores[1], 0.0);
  EXPECT_DOUBLE_EQ(scores[2], -1.0);
  EXPECT_NEAR(scores[3], 0.7071067811865476, 1e-7);
  EXPECT_EQ(scores[4], 0.0) << "a zero vector is similar to nothing";
}

TEST(similarity, zero_query_and_empty_vectors_score_zero) {
  const auto batch = Embeddings::from_rows({{1, 2}});
  EXPECT_EQ(orvo_core::cosine(std::vector<float>{0, 0}, batch), std::vector<double>{0.0});
  const Embeddings empty_rows(std::vector<float>{}, 2, 0);
  EXPECT_EQ(orvo_core::cosine(std::vector<float>{}, empty_rows), (std::vector<double>{0.0, 0.0}));
}

TEST(similarity, mismatched_lengths_are_rejected) {
  EXPECT_THROW((void)orvo_core::cosine(std::vector<float>{1, 2, 3},
                                       Embeddings::from_rows({{1, 2}})),
               orvo_core::ValueError);
  EXPECT_THROW((void)Embeddings::from_rows({{1, 2}, {1}}), orvo_core::ValueError);
  EXPECT_THROW(Embeddings(std::vector<float>{1, 2, 3}, 2, 2), orvo_core::ValueError);
}

}  // namespace
