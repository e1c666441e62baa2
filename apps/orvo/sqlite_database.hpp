#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace orvo_cli {

/// An error of the index database; the message names the database file and what failed.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One SQLite database connection, opened in WAL mode with foreign keys on.
class SqliteDatabase {
 public:
  /// A prepared statement; reset and rebound for every use.
  class Statement {
   public:
    Statement(SqliteDatabase& db, std::string_view sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// Binds parameter `index` (from 1); text and blobs are copied by SQLite.
    Statement& bind(int index, std::int64_t value);
    Statement& bind(int index, double value);
    Statement& bind(int index, std::string_view text);
    Statement& bind_blob(int index, std::span<const std::byte> blob);

    /// Runs one step: true while a row is available.
    bool step();
    /// Runs to completion, ignoring rows, and resets.
    void run();
    /// Clears the bindings and rewinds, so that the statement can be used again.
    void reset();

    [[nodiscard]] std::int64_t integer(int column) const;
    [[nodiscard]] double real(int column) const;
    [[nodiscard]] std::string_view text(int column) const;
    [[nodiscard]] std::span<const std::byte> blob(int column) const;
    [[nodiscard]] bool is_null(int column) const;

   private:
    friend class SqliteDatabase;
    SqliteDatabase& db_;
    sqlite3_stmt* statement_ = nullptr;
  };

  /// A transaction that rolls back unless committed.
  class Transaction {
   public:
    explicit Transaction(SqliteDatabase& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

   private:
    SqliteDatabase& db_;
    bool open_ = true;
  };

  /// Opens (creating it and its folder when missing) the database at `path`.
  explicit SqliteDatabase(const std::filesystem::path& path);
  ~SqliteDatabase();
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  /// Runs one or more statements that take no parameters.
  void exec(std::string_view sql);
  /// The tokens that the FTS5 tokenizer `tokenizer` (its name and arguments, e.g. "porter
  /// unicode61") makes of `text` in a query, as the index stores them.
  [[nodiscard]] std::vector<std::string> fts5_tokens(std::string_view tokenizer,
                                                     std::string_view text);
  /// The rowid of the last insert.
  [[nodiscard]] std::int64_t last_insert_id() const;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

  /// Throws a `DatabaseError` for result code `code` of `what`.
  [[noreturn]] void fail(int code, std::string_view what) const;

 private:
  std::filesystem::path path_;
  sqlite3* db_ = nullptr;
};

}  // namespace orvo_cli
