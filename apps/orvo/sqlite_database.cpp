#include "sqlite_database.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <system_error>

namespace orvo_cli {

namespace {

int length(std::size_t size) {
  if (size > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    throw DatabaseError("a value too large for the index database");
  }
  return static_cast<int>(size);
}

}  // namespace

SqliteDatabase::SqliteDatabase(const std::filesystem::path& path) : path_(path) {
  std::error_code error;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
  const int code = sqlite3_open_v2(
      path.c_str(), &db_,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
      nullptr);
  if (code != SQLITE_OK) {
    const std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
    sqlite3_close(db_);
    db_ = nullptr;
    throw DatabaseError(path.string() + ": cannot open the index (" + message + ")");
  }
  // Another orvo indexing the same corpus holds the write lock for a moment at most.
  sqlite3_busy_timeout(db_, 10'000);
  try {
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;");
  } catch (...) {  // a file that is no database fails here; no destructor will close it
    sqlite3_close_v2(db_);
    throw;
  }
}

SqliteDatabase::~SqliteDatabase() {
  sqlite3_close_v2(db_);
}

void SqliteDatabase::exec(std::string_view sql) {
  const std::string text(sql);
  char* message = nullptr;
  const int code = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &message);
  sqlite3_free(message);
  if (code != SQLITE_OK) fail(code, "cannot update the index");
}

std::vector<std::string> SqliteDatabase::fts5_tokens(std::string_view tokenizer,
                                                     std::string_view text) {
  fts5_api* api = nullptr;
  {
    Statement get(*this, "SELECT fts5(?1)");
    sqlite3_bind_pointer(get.statement_, 1, static_cast<void*>(&api), "fts5_api_ptr", nullptr);
    (void)get.step();
  }
  std::vector<std::string> words;
  std::string names(tokenizer);
  for (std::size_t at = 0; at < names.size();) {
    const std::size_t end = std::min(names.find(' ', at), names.size());
    if (end > at) words.push_back(names.substr(at, end - at));
    at = end + 1;
  }
  if (api == nullptr || words.empty()) throw DatabaseError(path_.string() + ": no FTS5");
  void* context = nullptr;
  fts5_tokenizer methods{};
  if (api->xFindTokenizer(api, words[0].c_str(), &context, &methods) != SQLITE_OK) {
    throw DatabaseError(path_.string() + ": no FTS5 tokenizer " + words[0]);
  }
  std::vector<const char*> arguments;
  for (std::size_t i = 1; i < words.size(); ++i) arguments.push_back(words[i].c_str());
  Fts5Tokenizer* instance = nullptr;
  if (methods.xCreate(context, arguments.data(), static_cast<int>(arguments.size()), &instance) !=
      SQLITE_OK) {
    throw DatabaseError(path_.string() + ": cannot make the FTS5 tokenizer " + words[0]);
  }
  std::vector<std::string> tokens;
  const auto collect = [](void* out, int, const char* token, int size, int, int) {
    static_cast<std::vector<std::string>*>(out)->emplace_back(token,
                                                              static_cast<std::size_t>(size));
    return SQLITE_OK;
  };
  const int code = methods.xTokenize(instance, &tokens, FTS5_TOKENIZE_QUERY, text.data(),
                                     length(text.size()), collect);
  methods.xDelete(instance);
  if (code != SQLITE_OK) fail(code, "cannot tokenize the question");
  return tokens;
}

std::int64_t SqliteDatabase::last_insert_id() const {
  return sqlite3_last_insert_rowid(db_);
}

void SqliteDatabase::fail(int code, std::string_view what) const {
  const int primary = code & 0xff;
  const std::string why = primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB
                              ? "the file is not an orvo index or is damaged; delete it to rebuild"
                              : sqlite3_errmsg(db_);
  throw DatabaseError(path_.string() + ": " + std::string(what) + ": " + why);
}

SqliteDatabase::Statement::Statement(SqliteDatabase& db, std::string_view sql) : db_(db) {
  const int code = sqlite3_prepare_v2(db.db_, sql.data(), length(sql.size()), &statement_, nullptr);
  if (code != SQLITE_OK) db.fail(code, "cannot prepare a query");
}

SqliteDatabase::Statement::~Statement() {
  sqlite3_finalize(statement_);
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bind(int index, std::int64_t value) {
  if (const int code = sqlite3_bind_int64(statement_, index, value); code != SQLITE_OK)
    db_.fail(code, "cannot bind a value");
  return *this;
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bind(int index, double value) {
  if (const int code = sqlite3_bind_double(statement_, index, value); code != SQLITE_OK)
    db_.fail(code, "cannot bind a value");
  return *this;
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bind(int index, std::string_view text) {
  const int code =
      sqlite3_bind_text(statement_, index, text.data(), length(text.size()), SQLITE_TRANSIENT);
  if (code != SQLITE_OK) db_.fail(code, "cannot bind a value");
  return *this;
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bind_blob(int index,
                                                                std::span<const std::byte> blob) {
  const int code =
      sqlite3_bind_blob(statement_, index, blob.data(), length(blob.size()), SQLITE_TRANSIENT);
  if (code != SQLITE_OK) db_.fail(code, "cannot bind a value");
  return *this;
}

bool SqliteDatabase::Statement::step() {
  const int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  sqlite3_reset(statement_);
  db_.fail(code, "a query failed");
}

void SqliteDatabase::Statement::run() {
  while (step()) {
  }
  reset();
}

void SqliteDatabase::Statement::reset() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

std::int64_t SqliteDatabase::Statement::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

double SqliteDatabase::Statement::real(int column) const {
  return sqlite3_column_double(statement_, column);
}

std::string_view SqliteDatabase::Statement::text(int column) const {
  const auto* data = sqlite3_column_text(statement_, column);
  const int size = sqlite3_column_bytes(statement_, column);
  if (data == nullptr) return {};
  return {reinterpret_cast<const char*>(data), static_cast<std::size_t>(size)};
}

std::span<const std::byte> SqliteDatabase::Statement::blob(int column) const {
  const void* data = sqlite3_column_blob(statement_, column);
  const int size = sqlite3_column_bytes(statement_, column);
  if (data == nullptr) return {};
  return {static_cast<const std::byte*>(data), static_cast<std::size_t>(size)};
}

bool SqliteDatabase::Statement::is_null(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

SqliteDatabase::Transaction::Transaction(SqliteDatabase& db) : db_(db) {
  db_.exec("BEGIN IMMEDIATE");
}

SqliteDatabase::Transaction::~Transaction() {
  if (!open_) return;
  try {
    db_.exec("ROLLBACK");
  } catch (...) {  // NOLINT(bugprone-empty-catch): the error being unwound matters more
  }
}

void SqliteDatabase::Transaction::commit() {
  db_.exec("COMMIT");
  open_ = false;
}

}  // namespace orvo_cli
