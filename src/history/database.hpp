#pragma once

// A thin RAII layer over SQLite's C API: a connection, prepared statements with typed binds and
// columns, and a transaction guard. Nothing here throws; every failure is a SQLite result code
// (SQLITE_OK, SQLITE_FULL, SQLITE_CORRUPT, ...) that the caller may look at or ignore.

#include <sqlite3.h>

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vistrel {

class Statement {
 public:
  Statement() = default;
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  // False when preparing failed; `error` then holds the result code. Binds and steps on a failed
  // statement do nothing and report that code again.
  bool ok() const { return stmt_ != nullptr; }
  int error() const { return error_; }

  // Parameters are numbered from 1, as in SQL. Integers of any width bind as 64-bit integers.
  Statement& bind(int index, std::integral auto value) {
    return bindInt64(index, static_cast<int64_t>(value));
  }
  Statement& bind(int index, double value);
  Statement& bind(int index, std::string_view text);  // copied by SQLite
  Statement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
  Statement& bind(int index, const std::string& text) {
    return bind(index, std::string_view(text));
  }
  Statement& bind(int index, std::nullopt_t);
  template <class T>
  Statement& bind(int index, const std::optional<T>& value) {
    return value ? bind(index, *value) : bind(index, std::nullopt);
  }
  // Binds the arguments to parameters 1, 2, 3, ... in order.
  template <class... Args>
  Statement& bindAll(const Args&... args) {
    int index = 0;
    (bind(++index, args), ...);
    return *this;
  }

  // Steps once: true when a row is ready to read. At the end, or on an error, false; `error` tells
  // which (SQLITE_DONE at a clean end).
  bool next();
  // Steps to the end, for statements that return no rows. SQLITE_OK when it completed.
  int run();
  // Makes the statement ready to run again and clears its bindings.
  void reset();

  int columnCount() const;
  bool isNull(int column) const;
  int64_t int64(int column) const;
  double real(int column) const;
  std::string text(int column) const;
  // The text without a copy; valid until the next step, reset or read of the same column as
  // another type.
  std::string_view textView(int column) const;
  std::optional<int64_t> optionalInt64(int column) const;
  std::optional<double> optionalReal(int column) const;

 private:
  friend class Database;
  Statement(sqlite3_stmt* stmt, int error) : stmt_(stmt), error_(error) {}
  Statement& bindInt64(int index, int64_t value);
  void note(int rc);

  sqlite3_stmt* stmt_ = nullptr;
  int error_ = SQLITE_OK;
};

class Database {
 public:
  // The flags the history opens with: read-write, created when absent, serialised threading.
  static constexpr int kReadWriteCreate =
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;

  Database() = default;
  Database(Database&& other) noexcept;
  Database& operator=(Database&& other) noexcept;
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database();

  // Opens `path` (":memory:" for a private in-memory database). On failure the returned connection
  // is closed and `rc`, when given, holds the result code.
  static Database open(const std::string& path, int flags = kReadWriteCreate, int* rc = nullptr);

  bool isOpen() const { return db_ != nullptr; }
  explicit operator bool() const { return isOpen(); }
  void close();

  // Runs one or more statements separated by semicolons; rows they return are dropped.
  int exec(std::string_view sql);
  Statement prepare(std::string_view sql);

  // The message of the latest failure on this connection.
  std::string errorMessage() const;
  // Rows changed by the latest INSERT, UPDATE or DELETE.
  int64_t changes() const;
  // True when the connection could open its main database only for reading.
  bool readOnly() const;
  sqlite3* handle() const { return db_; }

 private:
  explicit Database(sqlite3* db) : db_(db) {}
  sqlite3* db_ = nullptr;
};

// "BEGIN" at construction; "ROLLBACK" at destruction unless `commit` succeeded, so an early return
// or a failed statement leaves the database as it was.
class Transaction {
 public:
  explicit Transaction(Database& db);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  // False when BEGIN failed (for instance, a transaction is already open).
  bool active() const { return active_; }
  int commit();

 private:
  Database& db_;
  bool active_ = false;
};

// The primary result code without its extended bits (SQLITE_IOERR_WRITE -> SQLITE_IOERR).
inline int primaryCode(int rc) {
  return rc & 0xff;
}

}  // namespace vistrel
