#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"

#include <cmath>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace {

using orvo_inference::LexicalEMInvoker;

double similarity(const LexicalEMInvoker& invoker, std::string_view a, std::string_view b) {
  return orvo_core::cosine(invoker.embed(a),
                           orvo_core::Embeddings::from_rows({invoker.embed(b)}))[0];
}

TEST(lexical_em_invoker, shared_words_score_high_and_function_words_do_not_count) {
  const LexicalEMInvoker invoker;
  const double related = similarity(invoker, "What causes spring tides?",
                                    "Spring tides happen when the sun and moon align.");
  const double unrelated =
      similarity(invoker, "What causes spring tides?", "Bread rises because of the yeast.");
  EXPECT_GT(related, 0.3);
  EXPECT_LT(std::abs(unrelated), 0.1);
  EXPECT_NEAR(similarity(invoker, "The Tides", "tide"), 1.0, 1e-6) << "case, plural, 'the'";
  EXPECT_EQ(LexicalEMInvoker::words("The moon's pull, and tides! This does."),
            (std::vector<std::string>{"moon", "pull", "tide"}));
}

// A change in hashing, weights or tokenising would change the vector of every stored index.
// Batches give each text the vector it gets alone.
TEST(lexical_em_invoker, vectors_are_unit_length_and_fixed) {
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
  EXPECT_THROW(LexicalEMInvoker(0), orvo_core::ValueError);
}

}  // namespace
