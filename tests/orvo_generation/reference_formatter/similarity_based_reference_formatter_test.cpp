#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"

#include <cmath>
#include <limits>
#include <memory>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "support/chunks.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Embedding;
using orvo_test::FakeEMInvoker;
using orvo_test::make_chunk;

// A vector at cosine `c` from the response vector {1, 0}.
Embedding at_cosine(double c) {
  return {static_cast<float>(c), static_cast<float>(std::sqrt(1 - c * c))};
}

struct Fixture {
  Fixture() {
    invoker->table["response"] = {1, 0};
    invoker->table["a"] = at_cosine(0.9);
    invoker->table["b"] = at_cosine(0.7);
    invoker->table["c"] = at_cosine(0.9);
    invoker->table["d"] = at_cosine(0.2);
  }

  std::vector<std::string> relevant(rf::Chunks chunks) {
    const auto result = orvo_core::run_sync(formatter._get_relevant_chunks("response", chunks));
    std::vector<std::string> contents;
    for (const auto& chunk : result) contents.push_back(chunk->content);
    return contents;
  }

  std::shared_ptr<FakeEMInvoker> invoker = std::make_shared<FakeEMInvoker>();
  rf::SimilarityBasedReferenceFormatter formatter{invoker};
};

using Contents = std::vector<std::string>;

TEST(similarity_based_reference_formatter, keeps_scores_at_the_threshold_most_similar_first) {
  Fixture f;
  const auto a = make_chunk("a");
  EXPECT_EQ(f.relevant({a, make_chunk("b"), make_chunk("c"), make_chunk("d")}),
            (Contents{"a", "c", "b"}))
      << "descending by score, ties in input order";
  EXPECT_EQ(f.invoker->calls[1].texts, (Contents{"a", "b", "c", "d"})) << "one batch";
  EXPECT_EQ(f.relevant({a, a}), (Contents{"a", "a"})) << "a repeated chunk is scored twice";
  EXPECT_TRUE(f.relevant({}).empty());
  EXPECT_EQ(f.invoker->calls.size(), 4U) << "no chunks, no request";
}

TEST(similarity_based_reference_formatter, threshold_is_inclusive_and_read_at_each_call) {
  Fixture f;
  const rf::Chunks chunks{make_chunk("b")};
  const double score = orvo_core::cosine(std::vector<float>{1, 0},
                                         orvo_core::Embeddings::from_rows({at_cosine(0.7)}))[0];
  f.formatter.threshold = score;
  EXPECT_EQ(f.relevant(chunks), Contents{"b"});
  f.formatter.threshold = std::nextafter(score, 2.0);
  EXPECT_TRUE(f.relevant(chunks).empty()) << "no fallback to the best chunk";
  f.formatter.threshold = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(f.relevant(chunks).empty());
}

TEST(similarity_based_reference_formatter, a_miscounting_invoker_is_an_invalid_value) {
  Fixture f;
  f.invoker->extra_rows = 1;
  EXPECT_THROW((void)f.relevant({make_chunk("a"), make_chunk("b")}), orvo_core::ValueError);
}

TEST(similarity_based_reference_formatter, shows_scores_ranks_and_the_best_rejected_score) {
  Fixture f;
  const rf::Chunks chunks{make_chunk("d", "D"), make_chunk("b", "B"), make_chunk("a", "A")};
  const rf::ScoredChunks scored = orvo_core::run_sync(f.formatter.score_chunks("response", chunks));
  ASSERT_EQ(scored.kept.size(), 2U);
  EXPECT_EQ(scored.kept[0].chunk, chunks[2]);
  EXPECT_EQ(std::pair(scored.kept[1].rank, scored.kept[1].position), std::pair(2UL, 1UL));
  EXPECT_NEAR(scored.best_rejected_score.value_or(0), 0.2, 1e-6);

  f.formatter.stream_scores = true;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  (void)orvo_core::run_sync(f.formatter.format_reference("response", {chunks[2]}, emitter));
  f.formatter.threshold = 0.95;
  (void)orvo_core::run_sync(f.formatter.format_reference("response", chunks, emitter));
  ASSERT_EQ(emitter->events.size(), 3U) << "score, references, below threshold";
  EXPECT_TRUE(emitter->values()[0].starts_with(
      R"({"data_type": "reference_score", "data_value": {"rank": 1, "score": 0.89999)"))
      << emitter->values()[0];
  EXPECT_TRUE(emitter->values()[2].starts_with(
      R"({"data_type": "reference_below_threshold", "data_value": {"threshold": 0.95, )"
      R"("best_rejected_score": 0.89999)"))
      << emitter->values()[2];
}

}  // namespace
