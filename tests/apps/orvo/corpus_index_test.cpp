#include "corpus_index.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "orvo_core/async.hpp"
#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "support/expect_throw_msg.hpp"
#include "temp_corpus.hpp"

namespace {

namespace fs = std::filesystem;
using orvo_cli::CorpusIndex;

// Lexical vectors, counting the texts it is asked to embed.
class CountingEMInvoker : public orvo_inference::LexicalEMInvoker {
 public:
  using LexicalEMInvoker::LexicalEMInvoker;
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override {
    embedded += texts.size();
    return LexicalEMInvoker::invoke(std::move(texts));
  }
  using LexicalEMInvoker::invoke;
  std::size_t embedded = 0;
};

TEST(corpus_index, reads_and_embeds_only_what_changed) {
  const orvo_test::TempCorpus corpus;
  corpus.write("moon.md", "The moon raises the tides.\n\nIts pull is strongest nearby.");
  corpus.write("sun.md", "The sun adds its own smaller tide.");
  const auto embedder = std::make_shared<CountingEMInvoker>(64);
  CorpusIndex index(corpus.db(), corpus.docs());

  const struct {
    const char* step;
    std::function<void()> change;
    std::size_t added, changed, removed, chunks, embedded;
  } steps[] = {
      {"first run", [] {}, 2, 0, 0, 2, 2},
      {"nothing changed", [] {}, 0, 0, 0, 2, 0},
      {"rewritten with the same text",
       [&] { corpus.write("sun.md", "The sun adds its own smaller tide."); }, 0, 0, 0, 2, 0},
      {"one file changed",
       [&] { corpus.write("sun.md", "The sun's tide is about half the moon's."); }, 0, 1, 0, 2, 1},
      {"one file added", [&] { corpus.write("wind.txt", "Wind piles water against coasts."); }, 1,
       0, 0, 3, 1},
      {"one file deleted", [&] { fs::remove(corpus.docs() / "moon.md"); }, 0, 0, 1, 2, 0},
  };
  for (const auto& s : steps) {
    s.change();
    const orvo_cli::SyncReport report = index.sync({}, {});
    const std::size_t before = embedder->embedded;
    (void)orvo_core::run_sync(index.embed_missing(embedder, "m", 2, {}));
    EXPECT_EQ((std::vector{report.added, report.changed, report.removed, report.chunks,
                           embedder->embedded - before}),
              (std::vector{s.added, s.changed, s.removed, s.chunks, s.embedded}))
        << s.step;
  }

  // A new connection to the same file sees it all: nothing is read again (nor embedded, as the
  // tool's second online run shows).
  CorpusIndex reopened(corpus.db(), corpus.docs());
  EXPECT_EQ(reopened.sync({}, {}).added, 0U);
  // Another chunk size or another corpus starts over.
  EXPECT_EQ(reopened.sync(orvo_cli::ChunkOptions{400}, {}).added, 2U);
  CorpusIndex other(corpus.db(), corpus.docs() / "wind.txt");
  EXPECT_EQ(other.sync({}, {}).files, 1U);
}

TEST(corpus_index, ranks_by_bm25_and_fuses_with_vectors) {
  const orvo_test::TempCorpus corpus;
  corpus.write("spring-and-neap-tides.md",
               "They come at new and full moon, when sun and moon align.");
  corpus.write("storms.md", "A storm surge raises the sea; spring brings storms to the coast.");
  corpus.write("currents.md", "Currents flow as tides rise and fall.");
  CorpusIndex index(corpus.db(), corpus.docs());
  (void)index.sync({}, {});

  const auto bm25 = index.search("What causes spring tides?", 3);
  ASSERT_EQ(bm25.size(), 3U);
  EXPECT_EQ(bm25[0].chunk->id, "spring-and-neap-tides.md#1") << "the file's name counts";
  EXPECT_TRUE(index.search("?!", 3).empty());

  const auto embedder = std::make_shared<orvo_inference::LexicalEMInvoker>(64);
  (void)orvo_core::run_sync(index.embed_missing(embedder, "m", 8, {}));
  const auto vector = orvo_core::run_sync(embedder->invoke(std::string("storm surge")));
  const auto hybrid = index.search_hybrid("storm surge", vector, "m", 2);
  ASSERT_EQ(hybrid.size(), 2U);
  EXPECT_EQ(hybrid[0].chunk->id, "storms.md#1");
  EXPECT_EQ(hybrid[0].bm25_rank, 1U);
  EXPECT_EQ(hybrid[0].vector_rank, 1U);
  EXPECT_FALSE(hybrid[1].bm25_rank.has_value()) << "found by its vector alone";
  EXPECT_THROW((void)index.search_hybrid("storm", orvo_core::Embedding(3, 1.0F), "m", 2),
               std::runtime_error);
}

TEST(corpus_index, questions_become_safe_match_queries) {
  const struct {
    const char* question;
    const char* query;
  } cases[] = {
      {"What causes spring tides?",
       R"("causes" OR "spring" OR "tides" OR "causes spring" OR "spring tides")"},
      {"What is it?", R"("what" OR "is" OR "it" OR "what is" OR "is it")"},
      {R"(a"b OR c*)", R"("b" OR "c" OR "b c")"},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(CorpusIndex::match_query(c.question), c.query);
}

TEST(corpus_index, a_file_that_is_no_index_says_so) {
  const orvo_test::TempCorpus corpus;
  std::ofstream(corpus.db()) << std::string(4096, 'x');
  EXPECT_THROW_MSG(CorpusIndex(corpus.db(), corpus.docs()), orvo_cli::DatabaseError,
                   "not an orvo index");
}

}  // namespace
