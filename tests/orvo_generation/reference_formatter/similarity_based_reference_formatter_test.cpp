#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "support/chunks.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;

// Against the response, a and c score 12/13, b 4/5 and d 1/sqrt(5).
std::shared_ptr<orvo_test::FakeEMInvoker> invoker() {
  auto fake = std::make_shared<orvo_test::FakeEMInvoker>();
  fake->table = {
      {"response", {1, 0}}, {"a", {12, 5}}, {"b", {4, 3}}, {"c", {12, 5}}, {"d", {1, 2}}};
  return fake;
}

// One untitled chunk per letter.
rf::Chunks letters(const std::string& text) {
  rf::Chunks chunks;
  for (const char c : text) chunks.push_back(orvo_test::make_chunk({c}));
  return chunks;
}

TEST(similarity_based_reference_formatter, keeps_scores_at_the_threshold_most_similar_first) {
  const double b =
      orvo_core::cosine(std::vector<float>{1, 0}, orvo_core::Embeddings::from_rows({{4, 3}}))[0];
  const struct {
    const char* name;
    double threshold;
    const char* chunks;
    const char* kept;
    std::size_t calls;  // the response, then all contents at once
  } cases[] = {
      {"by score, ties in input order, a repeat scored twice", 0.5, "abcda", "acab", 2},
      {"no chunks, no request", 0.5, "", "", 0},
      {"the threshold is inclusive", b, "b", "b", 2},
      {"no fallback to the best chunk", std::nextafter(b, 2.0), "b", "", 2},
      {"a NaN threshold keeps none", std::numeric_limits<double>::quiet_NaN(), "b", "", 2},
  };
  for (const auto& c : cases) {
    const auto fake = invoker();
    rf::SimilarityBasedReferenceFormatter formatter(fake);
    formatter.threshold = c.threshold;  // read at each call
    std::string kept;
    for (const auto& chunk :
         orvo_core::run_sync(formatter._get_relevant_chunks("response", letters(c.chunks)))) {
      kept += chunk->content;
    }
    EXPECT_EQ(kept, c.kept) << c.name;
    EXPECT_EQ(fake->calls.size(), c.calls) << c.name;
  }
  const auto miscounting = invoker();
  miscounting->extra_row = true;
  rf::SimilarityBasedReferenceFormatter formatter(miscounting);
  EXPECT_THROW((void)orvo_core::run_sync(formatter._get_relevant_chunks("response", letters("ab"))),
               orvo_core::ValueError);
}

TEST(similarity_based_reference_formatter, shows_scores_ranks_and_the_best_rejected_score) {
  rf::SimilarityBasedReferenceFormatter formatter(invoker());
  const rf::Chunks chunks = letters("dba");
  const rf::ScoredChunks scored = orvo_core::run_sync(formatter.score_chunks("response", chunks));
  ASSERT_EQ(scored.kept.size(), 2U);
  EXPECT_EQ(scored.kept[0].chunk, chunks[2]);
  EXPECT_EQ(std::pair(scored.kept[1].rank, scored.kept[1].position), std::pair(2UL, 1UL));
  EXPECT_NEAR(scored.best_rejected_score.value_or(0), 1 / std::sqrt(5), 1e-6);

  formatter.stream_scores = true;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  (void)orvo_core::run_sync(formatter.format_reference("response", {chunks[2]}, emitter));
  formatter.threshold = 0.95;
  (void)orvo_core::run_sync(formatter.format_reference("response", chunks, emitter));
  ASSERT_EQ(emitter->events.size(), 3U) << "score, references, below threshold";
  EXPECT_TRUE(emitter->values()[0].starts_with(
      R"({"data_type": "reference_score", "data_value": {"rank": 1, "score": 0.923)"))
      << emitter->values()[0];
  EXPECT_TRUE(emitter->values()[2].starts_with(
      R"({"data_type": "reference_below_threshold", "data_value": {"threshold": 0.95, )"
      R"("best_rejected_score": 0.923)"))
      << emitter->values()[2];
}

}  // namespace
