#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"

namespace {

using orvo_inference::LexicalEMInvoker;

// A change in hashing, weights or tokenising would change the vector of every stored index.
// Batches give each text the vector it gets alone; case, plurals and function words do not
// count. That texts sharing words score high shows in corpus_index's hybrid ranking.
TEST(lexical_em_invoker, vectors_are_unit_length_fixed_and_see_only_content_words) {
  LexicalEMInvoker invoker(64);
  const std::vector<std::string_view> texts{"high tide at the harbour", ""};
  const auto batch = orvo_core::run_sync(invoker.invoke(texts));
  const auto vector = invoker.embed(texts[0]);
  double norm2 = 0;
  for (const float x : vector) norm2 += double{x} * x;
  EXPECT_NEAR(norm2, 1.0, 1e-6);
  EXPECT_NEAR(vector[0] + 2 * vector[7] + 3 * vector[63], 0.1373605, 1e-6);
  EXPECT_TRUE(std::equal(vector.begin(), vector.end(), batch[0].begin()));
  EXPECT_EQ(std::vector<float>(batch[1].begin(), batch[1].end()), std::vector<float>(64, 0.0F));
  EXPECT_EQ(invoker.embed("The Tides"), invoker.embed("tide"));
  EXPECT_EQ(LexicalEMInvoker::words("The moon's pull, and tides! This does."),
            (std::vector<std::string>{"moon", "pull", "tide"}));
  EXPECT_THROW(LexicalEMInvoker(0), orvo_core::ValueError);
}

}  // namespace
