#include "corpus_index.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <unordered_map>
#include <unordered_set>

#include "orvo_core/json.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace orvo_cli {
namespace fs = std::filesystem;
using orvo_core::Any;

namespace {

// Bumped whenever the layout or the chunking changes, so that old indexes are rebuilt.
constexpr std::string_view kSchemaVersion = "3";
constexpr std::size_t kRrfK = 60;          // the usual damping of reciprocal rank fusion
constexpr std::size_t kFusionDepth = 100;  // how deep each ranking is read for fusion
constexpr std::size_t kScoreBatch = 1024;  // vectors scored per cosine call
constexpr std::string_view kTokenizer = "porter unicode61 remove_diacritics 2";
// A word in more than this share of the chunks hardly moves BM25 (its IDF is near zero), and in
// a large index it costs a pass over most of it (about 0.6 us a chunk), so there it is left out of
// a question that has rarer words. Small indexes keep it, and the phrases it makes.
constexpr double kCommonShare = 0.25;
constexpr std::int64_t kCostlyChunks = 10'000;

constexpr std::string_view kSchema = R"(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS files(
  id INTEGER PRIMARY KEY, name TEXT UNIQUE NOT NULL, size INTEGER NOT NULL,
  mtime INTEGER NOT NULL, hash BLOB NOT NULL);
CREATE TABLE IF NOT EXISTS chunks(
  id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL REFERENCES files(id) ON DELETE CASCADE,
  name TEXT NOT NULL, metadata TEXT NOT NULL, linked INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS chunks_by_file ON chunks(file_id);
CREATE VIRTUAL TABLE IF NOT EXISTS chunk_text USING fts5(
  content, section, tokenize = 'porter unicode61 remove_diacritics 2');
CREATE VIRTUAL TABLE IF NOT EXISTS chunk_vocab USING fts5vocab(chunk_text, 'row');
CREATE TABLE IF NOT EXISTS vectors(
  chunk_id INTEGER NOT NULL REFERENCES chunks(id) ON DELETE CASCADE, model TEXT NOT NULL,
  dim INTEGER NOT NULL, data BLOB NOT NULL, PRIMARY KEY(chunk_id, model)) WITHOUT ROWID;
)";

// Words too common to tell chunks apart; dropped from a question unless nothing else is left.
const std::unordered_set<std::string_view>& stop_words() {
  static const std::unordered_set<std::string_view> words{
      "a",     "about", "an",    "and",  "are",    "as",   "at",    "be",    "by",   "can",
      "do",    "does",  "for",   "from", "how",    "i",    "in",    "is",    "it",   "its",
      "me",    "of",    "on",    "or",   "should", "that", "the",   "their", "them", "there",
      "these", "this",  "to",    "was",  "what",   "when", "where", "which", "who",  "why",
      "will",  "with",  "would", "you",  "your",   "we",   "my",    "did",   "has",  "have",
      "if",    "into",  "than",  "then", "they",   "were", "been",  "being", "so",   "tell"};
  return words;
}

std::array<unsigned char, 32> sha256(std::string_view data) {
  std::array<unsigned char, 32> digest{};
  unsigned int size = 0;
  if (EVP_Digest(data.data(), data.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("cannot hash a corpus file");
  }
  return digest;
}

std::span<const std::byte> bytes(const auto& data) {
  return std::as_bytes(std::span(data));
}

std::string hex(std::span<const unsigned char> data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const unsigned char c : data) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

std::string file_key(const fs::path& file, const fs::path& root) {
  return file.lexically_relative(root).generic_string();
}

// What a chunk is about besides its text: its file's name in words, then its section path. A
// file named spring-and-neap-tides.md is about spring and neap tides.
std::string section_of(const orvo_core::Chunk& chunk, const fs::path& file) {
  std::string about = file.stem().string();
  std::replace_if(
      about.begin(), about.end(), [](char c) { return c == '-' || c == '_' || c == '.'; }, ' ');
  const Any section = orvo_core::get(chunk.metadata, "section");
  if (section.is_string() && !section.as_string().empty()) about += " > " + section.as_string();
  return about;
}

// One spelling per corpus ("docs", "./docs/" and a link to it are one corpus), so that it has
// one index.
fs::path canonical_corpus(const fs::path& corpus) {
  std::error_code error;
  fs::path path = fs::weakly_canonical(fs::absolute(corpus), error);
  if (error) path = fs::absolute(corpus).lexically_normal();
  if (!path.has_filename() && path.has_parent_path()) path = path.parent_path();
  return path;
}

}  // namespace

fs::path CorpusIndex::default_path(const fs::path& corpus) {
  const fs::path absolute = canonical_corpus(corpus);
  fs::path cache;
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg != nullptr && xdg[0] == '/') {
    cache = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
    cache = fs::path(home) / ".cache";
  } else {
    cache = fs::temp_directory_path();
  }
  const auto digest = sha256(absolute.native());
  std::string name = absolute.filename().string();
  std::replace_if(
      name.begin(), name.end(),
      [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-'; }, '_');
  return cache / "orvo" / (name + "-" + hex(std::span(digest).first(8)) + ".sqlite");
}

CorpusIndex::CorpusIndex(const fs::path& db_file, fs::path corpus)
    : db_(db_file), corpus_(std::move(corpus)) {
  db_.exec(kSchema);
  std::error_code error;
  url_root_ = fs::is_directory(corpus_, error) ? corpus_ : corpus_.parent_path();
}

void CorpusIndex::clear() {
  db_.exec(
      "DELETE FROM vectors; DELETE FROM chunks; DELETE FROM chunk_text; DELETE FROM files; "
      "DELETE FROM meta WHERE key = 'chunks';");
}

SyncReport CorpusIndex::sync(const ChunkOptions& chunking, const LoadOptions& load,
                             const ProgressFn& progress) {
  std::error_code error;
  const fs::file_status status = fs::status(corpus_, error);
  if (error == std::errc::too_many_symbolic_link_levels) {
    throw std::runtime_error(corpus_.string() + ": symbolic link loop");
  }
  if (error || !fs::exists(status)) {
    throw std::runtime_error("no such file or folder: " + corpus_.string());
  }
  const bool folder = fs::is_directory(status);
  if (!folder && !fs::is_regular_file(status)) {
    throw std::runtime_error(corpus_.string() + ": not a regular file or folder");
  }
  CorpusFiles listed;
  if (folder) {
    listed = list_corpus_files(corpus_);
  } else {
    try {
      listed.files.push_back(stat_corpus_file(corpus_));
    } catch (const UnreadableFile& e) {
      throw std::runtime_error(e.what());
    }
  }

  SqliteDatabase::Transaction transaction(db_);
  // An index made for another corpus, another chunking or an older layout starts over.
  const std::string identity = std::string(kSchemaVersion) + "|" +
                               canonical_corpus(corpus_).string() + "|" +
                               std::to_string(chunking.max_chars);
  {
    SqliteDatabase::Statement read(db_, "SELECT value FROM meta WHERE key = 'identity'");
    if (!read.step() || read.text(0) != identity) {
      clear();
      SqliteDatabase::Statement write(
          db_, "INSERT OR REPLACE INTO meta(key, value) VALUES('identity', ?)");
      write.bind(1, identity).run();
    }
  }

  struct Known {
    std::int64_t id;
    std::int64_t size;
    std::int64_t mtime;
    std::string hash;
    bool seen = false;
  };
  std::unordered_map<std::string, Known> known;
  {
    SqliteDatabase::Statement files(db_, "SELECT id, name, size, mtime, hash FROM files");
    while (files.step()) {
      const auto hash = files.blob(4);
      known.emplace(std::string(files.text(1)),
                    Known{files.integer(0), files.integer(2), files.integer(3),
                          std::string(reinterpret_cast<const char*>(hash.data()), hash.size())});
    }
  }

  SqliteDatabase::Statement touch(db_, "UPDATE files SET size = ?, mtime = ? WHERE id = ?");
  SqliteDatabase::Statement drop_text(
      db_, "DELETE FROM chunk_text WHERE rowid IN (SELECT id FROM chunks WHERE file_id = ?)");
  SqliteDatabase::Statement drop_file(db_, "DELETE FROM files WHERE id = ?");
  SqliteDatabase::Statement add_file(
      db_, "INSERT INTO files(name, size, mtime, hash) VALUES(?, ?, ?, ?)");
  SqliteDatabase::Statement add_chunk(
      db_, "INSERT INTO chunks(file_id, name, metadata, linked) VALUES(?, ?, ?, ?)");
  SqliteDatabase::Statement add_text(
      db_, "INSERT INTO chunk_text(rowid, content, section) VALUES(?, ?, ?)");
  const auto forget = [&](std::int64_t id) {
    drop_text.bind(1, id).run();
    drop_file.bind(1, id).run();
  };

  SyncReport report;
  const fs::path key_root = folder ? corpus_ : corpus_.parent_path();
  for (std::size_t n = 0; n < listed.files.size(); ++n) {
    const CorpusFile& listed_file = listed.files[n];
    const fs::path& file = listed_file.path;
    if (progress) progress("Indexing", n, listed.files.size());
    const std::string key = file_key(file, key_root);
    const auto it = known.find(key);
    if (it != known.end()) it->second.seen = true;
    if (it != known.end() && it->second.size == listed_file.size &&
        it->second.mtime == listed_file.modified_ns) {
      continue;
    }
    std::string text;
    try {
      text = read_corpus_file(file, load.max_file_bytes);
    } catch (const UnreadableFile& e) {
      if (!folder || load.strict) throw std::runtime_error(e.what());
      listed.problems.emplace_back(e.what());
      if (it != known.end()) it->second.seen = false;  // dropped below, like a deleted file
      continue;
    }
    const auto digest = sha256(text);
    const std::string hash(reinterpret_cast<const char*>(digest.data()), digest.size());
    if (it != known.end() && it->second.hash == hash) {
      touch.bind(1, listed_file.size).bind(2, listed_file.modified_ns);
      touch.bind(3, it->second.id).run();
      continue;
    }
    if (it != known.end()) {
      forget(it->second.id);
      ++report.changed;
    } else {
      ++report.added;
    }
    // Chunked under its name within the corpus, so the index does not depend on how the corpus
    // path was spelled; links are made whole when chunks are read back.
    const bool linked = !(fs::path(key).extension() == ".jsonl");
    const auto chunks = chunk_file(fs::path(key), std::move(text), chunking);
    add_file.bind(1, key).bind(2, listed_file.size);
    add_file.bind(3, listed_file.modified_ns).bind_blob(4, bytes(hash)).run();
    const std::int64_t file_id = db_.last_insert_id();
    for (const auto& chunk : chunks) {
      add_chunk.bind(1, file_id).bind(2, chunk->id);
      add_chunk.bind(3, orvo_core::to_json(Any(chunk->metadata))).bind(4, std::int64_t{linked});
      add_chunk.run();
      add_text.bind(1, db_.last_insert_id())
          .bind(2, chunk->content)
          .bind(3, section_of(*chunk, key));
      add_text.run();
    }
  }
  for (const auto& [key, entry] : known) {
    if (!entry.seen) {
      forget(entry.id);
      ++report.removed;
    }
  }
  if (load.strict && !listed.problems.empty()) throw std::runtime_error(listed.problems.front());
  // Counting 170,000 chunks takes milliseconds, so the count is kept with the index.
  if (report.added + report.changed + report.removed > 0 || !stored_count()) {
    SqliteDatabase::Statement count(db_, "SELECT COUNT(*) FROM chunks");
    count.step();
    SqliteDatabase::Statement keep(db_,
                                   "INSERT OR REPLACE INTO meta(key, value) VALUES('chunks', ?)");
    keep.bind(1, std::to_string(count.integer(0))).run();
  }
  transaction.commit();
  if (progress) progress("Indexing", listed.files.size(), listed.files.size());

  for (auto& problem : listed.problems) report.skipped.push_back("skipped " + std::move(problem));
  SqliteDatabase::Statement count(db_, "SELECT COUNT(*) FROM files");
  count.step();
  report.files = static_cast<std::size_t>(count.integer(0));
  report.chunks = chunk_count();
  if (report.chunks == 0) {
    throw std::runtime_error("no text found in " + corpus_.string() +
                             (folder ? " (it is searched for .md and .txt files)" : ""));
  }
  return report;
}

std::optional<std::size_t> CorpusIndex::stored_count() {
  SqliteDatabase::Statement read(db_, "SELECT value FROM meta WHERE key = 'chunks'");
  if (!read.step()) return std::nullopt;
  return static_cast<std::size_t>(std::stoull(std::string(read.text(0))));
}

std::size_t CorpusIndex::chunk_count() {
  if (const auto count = stored_count()) return *count;
  SqliteDatabase::Statement count(db_, "SELECT COUNT(*) FROM chunks");
  count.step();
  return static_cast<std::size_t>(count.integer(0));
}

boost::asio::awaitable<std::size_t> CorpusIndex::embed_missing(
    std::shared_ptr<orvo_inference::BaseEMInvoker> embedder, std::string model, std::size_t batch,
    ProgressFn progress) {
  SqliteDatabase::Statement missing(
      db_,
      "SELECT c.id, t.section, t.content FROM chunks c JOIN chunk_text t ON t.rowid = c.id "
      "WHERE NOT EXISTS (SELECT 1 FROM vectors v WHERE v.chunk_id = c.id AND v.model = ?) "
      "ORDER BY c.id");
  SqliteDatabase::Statement stored_dim(db_, "SELECT dim FROM vectors WHERE model = ? LIMIT 1");
  SqliteDatabase::Statement store(
      db_, "INSERT OR REPLACE INTO vectors(chunk_id, model, dim, data) VALUES(?, ?, ?, ?)");

  std::vector<std::int64_t> ids;
  std::vector<std::string> texts;
  missing.bind(1, model);
  while (missing.step()) {
    ids.push_back(missing.integer(0));
    std::string text(missing.text(1));
    if (!text.empty()) text += "\n\n";
    text += missing.text(2);
    texts.push_back(std::move(text));
  }
  missing.reset();

  std::optional<std::size_t> dim;
  stored_dim.bind(1, model);
  if (stored_dim.step()) dim = static_cast<std::size_t>(stored_dim.integer(0));
  stored_dim.reset();

  batch = std::max<std::size_t>(batch, 1);
  for (std::size_t start = 0; start < ids.size(); start += batch) {
    if (progress) progress("Embedding", start, ids.size());
    const std::size_t end = std::min(ids.size(), start + batch);
    std::vector<std::string_view> views(texts.begin() + static_cast<std::ptrdiff_t>(start),
                                        texts.begin() + static_cast<std::ptrdiff_t>(end));
    const orvo_core::Embeddings vectors = co_await embedder->invoke(std::move(views));
    if (vectors.size() != end - start || vectors.dim() == 0) {
      throw std::runtime_error("the embedding model returned " + std::to_string(vectors.size()) +
                               " embeddings for " + std::to_string(end - start) + " texts");
    }
    if (dim && *dim != vectors.dim()) {
      if (start != 0) {
        throw std::runtime_error("the embedding model changed its vector length mid-run");
      }
      // The model behind the name changed: its old vectors cannot be compared with new ones.
      SqliteDatabase::Statement drop(db_, "DELETE FROM vectors WHERE model = ?");
      drop.bind(1, model).run();
      co_return co_await embed_missing(std::move(embedder), std::move(model), batch,
                                       std::move(progress));
    }
    dim = vectors.dim();
    // One transaction per batch: an interrupted run keeps what it paid for.
    SqliteDatabase::Transaction transaction(db_);
    for (std::size_t i = 0; i < vectors.size(); ++i) {
      store.bind(1, ids[start + i]).bind(2, model).bind(3, static_cast<std::int64_t>(*dim));
      store.bind_blob(4, bytes(vectors[i])).run();
    }
    transaction.commit();
  }
  if (progress) progress("Embedding", ids.size(), ids.size());
  co_return ids.size();
}

std::string CorpusIndex::match_query(std::string_view question,
                                     const std::function<bool(std::string_view)>& common) {
  std::vector<std::string> words;
  std::string word;
  const auto flush = [&] {
    if (!word.empty() && std::find(words.begin(), words.end(), word) == words.end()) {
      words.push_back(word);
    }
    word.clear();
  };
  for (const char c : question) {
    const auto u = static_cast<unsigned char>(c);
    // Bytes of multi-byte characters belong to words, as the FTS5 tokenizer sees it.
    if (std::isalnum(u) != 0 || u >= 0x80 || c == '_') {
      word += static_cast<char>(std::tolower(u));
    } else {
      flush();
    }
  }
  flush();
  std::vector<std::string> kept;
  for (const auto& w : words) {
    if (!stop_words().contains(w)) kept.push_back(w);
  }
  if (kept.empty()) kept = words;
  if (common) {
    std::vector<std::string> rare;
    for (const auto& w : kept) {
      if (!common(w)) rare.push_back(w);
    }
    if (!rare.empty()) kept = std::move(rare);
  }
  std::string query;
  for (const auto& w : kept) {
    if (!query.empty()) query += " OR ";
    query += '"' + w + '"';  // words hold no quotes, so quoting is all the escaping needed
  }
  // Neighbouring words as phrases too: a chunk about "spring tides" beats one that has "spring"
  // and "tides" far apart.
  for (std::size_t i = 0; i + 1 < kept.size(); ++i) {
    query += " OR \"" + kept[i] + ' ' + kept[i + 1] + '"';
  }
  return query;
}

std::vector<CorpusIndex::Ranked> CorpusIndex::bm25(std::string_view question, std::size_t k) {
  const auto chunks = static_cast<double>(chunk_count());
  SqliteDatabase::Statement frequency(db_, "SELECT doc FROM chunk_vocab WHERE term = ?");
  const auto common = [&](std::string_view word) {
    const auto tokens = db_.fts5_tokens(kTokenizer, word);
    if (tokens.size() != 1) return false;
    frequency.bind(1, tokens.front());
    const std::int64_t documents = frequency.step() ? frequency.integer(0) : 0;
    frequency.reset();
    return documents > kCostlyChunks && static_cast<double>(documents) > kCommonShare * chunks;
  };
  std::vector<Ranked> out = bm25_query(match_query(question, common), k);
  // Rare words that find too little: the common ones are worth their cost after all.
  if (out.size() < k) out = bm25_query(match_query(question), k);
  return out;
}

std::vector<CorpusIndex::Ranked> CorpusIndex::bm25_query(const std::string& query, std::size_t k) {
  std::vector<Ranked> out;
  if (query.empty()) return out;
  // The section path weighs more than the text: a heading names what its section is about.
  SqliteDatabase::Statement search(db_,
                                   "SELECT rowid, bm25(chunk_text, 1.0, 4.0) AS score "
                                   "FROM chunk_text WHERE chunk_text MATCH ? "
                                   "ORDER BY score LIMIT ?");
  search.bind(1, query).bind(2, static_cast<std::int64_t>(k));
  while (search.step()) out.push_back({search.integer(0), -search.real(1)});
  return out;
}

std::vector<CorpusIndex::Ranked> CorpusIndex::nearest(std::span<const float> vector,
                                                      std::string_view model, std::size_t k) {
  // A min-heap of the best k, fed a batch of stored vectors at a time: memory stays bounded
  // whatever the size of the corpus.
  const auto worse = [](const Ranked& a, const Ranked& b) { return a.score > b.score; };
  std::priority_queue<Ranked, std::vector<Ranked>, decltype(worse)> best(worse);
  SqliteDatabase::Statement rows(db_, "SELECT chunk_id, data FROM vectors WHERE model = ?");
  rows.bind(1, model);
  std::vector<float> data;
  std::vector<std::int64_t> ids;
  const auto score = [&] {
    if (ids.empty()) return;
    const orvo_core::Embeddings batch(std::move(data), ids.size(), vector.size());
    const std::vector<double> scores = orvo_core::cosine(vector, batch);
    for (std::size_t i = 0; i < ids.size(); ++i) {
      if (std::isnan(scores[i])) continue;
      if (best.size() < k) {
        best.push({ids[i], scores[i]});
      } else if (scores[i] > best.top().score) {
        best.pop();
        best.push({ids[i], scores[i]});
      }
    }
    data = {};
    ids.clear();
  };
  while (rows.step()) {
    const auto blob = rows.blob(1);
    if (blob.size() != vector.size() * sizeof(float)) {
      throw std::runtime_error(
          "the question's embedding does not fit the index's vectors of model '" +
          std::string(model) + "'");
    }
    const std::size_t at = data.size();
    data.resize(at + vector.size());
    std::memcpy(data.data() + at, blob.data(), blob.size());
    ids.push_back(rows.integer(0));
    if (ids.size() == kScoreBatch) score();
  }
  score();
  std::vector<Ranked> out;
  while (!best.empty()) {
    out.push_back(best.top());
    best.pop();
  }
  std::reverse(out.begin(), out.end());
  return out;
}

std::shared_ptr<orvo_core::Chunk> CorpusIndex::load_chunk(std::int64_t id) {
  SqliteDatabase::Statement read(db_,
                                 "SELECT c.name, c.metadata, c.linked, t.content FROM chunks c "
                                 "JOIN chunk_text t ON t.rowid = c.id WHERE c.id = ?");
  read.bind(1, id);
  if (!read.step()) throw std::runtime_error("the index lost chunk " + std::to_string(id));
  Any metadata = orvo_core::parse_json(read.text(1));
  if (!metadata.is_map()) metadata = Any(orvo_core::Map{});
  if (read.integer(2) != 0) {
    // Links are stored relative to the corpus; the user's own spelling of its path leads them.
    orvo_core::Map& map = metadata.as_map();
    const Any url = orvo_core::get(map, "file_url");
    if (url.is_string())
      map.insert_or_assign("file_url", (url_root_ / url.as_string()).generic_string());
  }
  return std::make_shared<orvo_core::Chunk>(std::string(read.text(3)), metadata.as_map(),
                                            std::string(read.text(0)));
}

std::vector<Retrieved> CorpusIndex::search(std::string_view question, std::size_t k) {
  std::vector<Retrieved> out;
  std::size_t rank = 0;
  for (const Ranked& hit : bm25(question, k)) {
    Retrieved r;
    r.chunk = load_chunk(hit.id);
    r.chunk->score = hit.score;
    r.bm25 = hit.score;
    r.bm25_rank = ++rank;
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<Retrieved> CorpusIndex::search_hybrid(std::string_view question,
                                                  std::span<const float> question_vector,
                                                  std::string_view model, std::size_t k) {
  const std::size_t depth = std::max(kFusionDepth, k);
  struct Fused {
    double score = 0;
    Retrieved parts;
  };
  std::unordered_map<std::int64_t, Fused> fused;
  std::vector<std::int64_t> order;  // first appearance, for a deterministic tie order
  const auto add = [&](std::int64_t id, std::size_t rank) -> Fused& {
    auto [it, inserted] = fused.try_emplace(id);
    if (inserted) order.push_back(id);
    it->second.score += 1.0 / static_cast<double>(kRrfK + rank);
    return it->second;
  };
  std::size_t rank = 0;
  for (const Ranked& hit : bm25(question, depth)) {
    Fused& f = add(hit.id, ++rank);
    f.parts.bm25 = hit.score;
    f.parts.bm25_rank = rank;
  }
  rank = 0;
  for (const Ranked& hit : nearest(question_vector, model, depth)) {
    Fused& f = add(hit.id, ++rank);
    f.parts.similarity = hit.score;
    f.parts.vector_rank = rank;
  }
  std::stable_sort(order.begin(), order.end(), [&fused](std::int64_t a, std::int64_t b) {
    return fused[a].score > fused[b].score;
  });
  std::vector<Retrieved> out;
  for (std::size_t i = 0; i < std::min(k, order.size()); ++i) {
    Fused& f = fused[order[i]];
    f.parts.chunk = load_chunk(order[i]);
    f.parts.chunk->score = f.score;
    out.push_back(std::move(f.parts));
  }
  return out;
}

}  // namespace orvo_cli
