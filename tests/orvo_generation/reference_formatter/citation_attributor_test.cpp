#include "orvo_generation/reference_formatter/citation_attributor.hpp"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/chunks.hpp"
#include "support/fake_em_invoker.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using Texts = std::vector<std::string>;

TEST(citation_attributor, splits_sentences_at_ends_and_line_breaks_only) {
  const struct {
    const char* text;
    Texts sentences;
  } cases[] = {
      {"Tides rise. They fall!  Why? ", {"Tides rise.", "They fall!", "Why?"}},
      {"It is 3.5 m, e.g. at dawn. \"Yes.\" Next",
       {"It is 3.5 m, e.g. at dawn.", "\"Yes.\"", "Next"}},
      {"Steps:\n1. Wait.\n2. Look\n\n", {"Steps:", "1. Wait.", "2. Look"}},
      {" \n ", {}},
  };
  for (const auto& c : cases) {
    Texts sentences;
    for (const auto& [begin, length] : rf::split_sentences(c.text)) {
      sentences.emplace_back(std::string(c.text).substr(begin, length));
    }
    EXPECT_EQ(sentences, c.sentences) << c.text;
  }
}

TEST(citation_attributor, marks_supported_sentences_with_one_request) {
  const auto invoker = std::make_shared<orvo_test::FakeEMInvoker>();
  invoker->table = {{"The moon pulls.", {1, 0, 0}},
                    {"The sun helps!", {0.8F, 0.6F, 0}},
                    {"Cats purr.", {0, 0, 1}},
                    {"moon", {1, 0, 0}},
                    {"sun", {0, 1, 0}},
                    {"response", {1, 0.1F, 0}}};
  const rf::Chunks chunks = {orvo_test::make_chunk("moon"), orvo_test::make_chunk("sun")};
  rf::CitationAttributor attributor(invoker, 0.5);
  const std::string response = "The moon pulls. Cats purr.\nThe sun helps!";

  const rf::Attribution a = orvo_core::run_sync(attributor.attribute(response, chunks));
  EXPECT_EQ(a.text, "The moon pulls [1]. Cats purr.\nThe sun helps [1][2]!");
  EXPECT_EQ(a.unsupported, std::vector<std::size_t>{1});
  EXPECT_EQ(a.sentences[2].begin, 27U);
  ASSERT_EQ(invoker->calls.size(), 1U);
  EXPECT_EQ(invoker->calls[0].size(), 5U) << "the sentences and the contents together";

  attributor.max_markers = 1;
  const rf::Attribution merged =
      orvo_core::run_sync(attributor.attribute(response, chunks, {7, 9}));
  EXPECT_EQ(merged.sentences[2].references, std::vector<std::size_t>{7}) << "the best one";

  // Against the similarity formatter's decision: its embeddings are reused, numbers are ranks.
  rf::SimilarityBasedReferenceFormatter formatter(invoker, 0.0);
  rf::ScoredChunks scored = orvo_core::run_sync(formatter.score_chunks("response", chunks));
  invoker->calls.clear();
  attributor.max_markers = 3;
  const rf::Attribution ranked = orvo_core::run_sync(attributor.attribute(response, scored));
  EXPECT_EQ(ranked.text, "The moon pulls [1]. Cats purr.\nThe sun helps [1][2]!");
  ASSERT_EQ(invoker->calls.size(), 1U);
  EXPECT_EQ(invoker->calls[0], (Texts{"The moon pulls.", "Cats purr.", "The sun helps!"}));
}

}  // namespace
