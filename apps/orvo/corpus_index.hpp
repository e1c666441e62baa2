#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/awaitable.hpp>

#include "corpus.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "sqlite_database.hpp"

namespace orvo_cli {

/// What one synchronisation of the index with its corpus did.
struct SyncReport {
  std::size_t files = 0;             ///< Files in the index afterwards.
  std::size_t added = 0;             ///< New files chunked.
  std::size_t changed = 0;           ///< Files whose content changed, chunked again.
  std::size_t removed = 0;           ///< Files gone from the corpus, dropped with their chunks.
  std::size_t chunks = 0;            ///< Chunks in the index afterwards.
  std::size_t embedded = 0;          ///< Chunks embedded by this run.
  std::vector<std::string> skipped;  ///< "<path>: why" for each file left out.
};

/// A chunk found for a question, with the scores that ranked it.
struct Retrieved {
  std::shared_ptr<orvo_core::Chunk> chunk;  ///< Its `score` is the ranking score.
  std::optional<double> bm25;               ///< FTS5 BM25 (higher is better), when it matched.
  std::optional<double> similarity;         ///< Cosine with the question, when embedded.
  std::optional<std::size_t> bm25_rank;     ///< 1-based rank in each list that found it.
  std::optional<std::size_t> vector_rank;
};

/// Progress of a long step: what is done out of how much.
using ProgressFn = std::function<void(std::string_view step, std::size_t done, std::size_t total)>;

/// The chunks of a corpus, their full-text index and their embeddings, kept in one SQLite file so
/// that only new or changed files are chunked and embedded again.
class CorpusIndex {
 public:
  /// Where the index of `corpus` lives unless given: under $XDG_CACHE_HOME/orvo (or
  /// ~/.cache/orvo), named after the corpus's absolute path.
  [[nodiscard]] static std::filesystem::path default_path(const std::filesystem::path& corpus);

  /// Opens (or creates) the index at `db_file` for the corpus at `corpus` (a folder, a text file
  /// or a .jsonl file).
  CorpusIndex(const std::filesystem::path& db_file, std::filesystem::path corpus);

  /// Brings chunks and the full-text index up to date with the files: new and changed files
  /// (by size, time and content hash) are chunked, deleted ones dropped, all in one transaction.
  /// A corpus path that names nothing is an error; unreadable files are skipped (or, with
  /// `load.strict`, an error).
  SyncReport sync(const ChunkOptions& chunking, const LoadOptions& load,
                  const ProgressFn& progress = {});

  /// Embeds, `batch` texts per request, every chunk that has no vector of `model` yet, and
  /// stores the vectors. Returns how many were embedded.
  boost::asio::awaitable<std::size_t> embed_missing(
      std::shared_ptr<orvo_inference::BaseEMInvoker> embedder, std::string model, std::size_t batch,
      ProgressFn progress);

  /// The best `k` chunks for `question` by BM25 alone.
  [[nodiscard]] std::vector<Retrieved> search(std::string_view question, std::size_t k);

  /// The best `k` chunks for `question`, fusing the BM25 ranking with the ranking by cosine
  /// similarity to `question_vector` among the vectors of `model` (reciprocal rank fusion).
  [[nodiscard]] std::vector<Retrieved> search_hybrid(std::string_view question,
                                                     std::span<const float> question_vector,
                                                     std::string_view model, std::size_t k);

  /// How many chunks the index holds.
  [[nodiscard]] std::size_t chunk_count();

  /// The FTS5 query for a question: its words and pairs of neighbouring words, quoted, joined
  /// with OR. Stop words, then words for which `common` holds, are dropped unless nothing else
  /// is left. Empty without words.
  [[nodiscard]] static std::string match_query(
      std::string_view question, const std::function<bool(std::string_view)>& common = {});

 private:
  struct Ranked {
    std::int64_t id;
    double score;
  };
  std::vector<Ranked> bm25(std::string_view question, std::size_t k);
  std::vector<Ranked> bm25_query(const std::string& query, std::size_t k);
  std::vector<Ranked> nearest(std::span<const float> vector, std::string_view model, std::size_t k);
  std::shared_ptr<orvo_core::Chunk> load_chunk(std::int64_t id);
  void clear();
  std::optional<std::size_t> stored_count();

  SqliteDatabase db_;
  std::filesystem::path corpus_;
  std::filesystem::path url_root_;  ///< What relative file names are joined to for links.
};

}  // namespace orvo_cli
