#include "history/database.hpp"

#include <utility>

namespace vistrel {

Statement::Statement(Statement&& other) noexcept
    : stmt_(std::exchange(other.stmt_, nullptr)), error_(other.error_) {}

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(stmt_);
    stmt_ = std::exchange(other.stmt_, nullptr);
    error_ = other.error_;
  }
  return *this;
}

Statement::~Statement() {
  sqlite3_finalize(stmt_);
}

void Statement::note(int rc) {
  // The first failure sticks until `reset`, so a chain of binds reports what went wrong.
  if (rc != SQLITE_OK && error_ == SQLITE_OK) error_ = rc;
}

Statement& Statement::bindInt64(int index, int64_t value) {
  if (stmt_) note(sqlite3_bind_int64(stmt_, index, value));
  return *this;
}

Statement& Statement::bind(int index, double value) {
  if (stmt_) note(sqlite3_bind_double(stmt_, index, value));
  return *this;
}

Statement& Statement::bind(int index, std::string_view text) {
  if (stmt_) {
    note(
        sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
  }
  return *this;
}

Statement& Statement::bind(int index, std::nullopt_t) {
  if (stmt_) note(sqlite3_bind_null(stmt_, index));
  return *this;
}

bool Statement::next() {
  // After the last row, or after a failure, the statement stays put until `reset`.
  if (!stmt_ || (error_ != SQLITE_OK && error_ != SQLITE_ROW)) return false;
  int rc = sqlite3_step(stmt_);
  error_ = rc;
  return rc == SQLITE_ROW;
}

int Statement::run() {
  if (!stmt_) return error_ == SQLITE_OK ? SQLITE_MISUSE : error_;
  while (next()) {
  }
  return error_ == SQLITE_DONE ? SQLITE_OK : error_;
}

void Statement::reset() {
  if (!stmt_) return;
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
  error_ = SQLITE_OK;
}

int Statement::columnCount() const {
  return stmt_ ? sqlite3_column_count(stmt_) : 0;
}

bool Statement::isNull(int column) const {
  return !stmt_ || sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

int64_t Statement::int64(int column) const {
  return stmt_ ? sqlite3_column_int64(stmt_, column) : 0;
}

double Statement::real(int column) const {
  return stmt_ ? sqlite3_column_double(stmt_, column) : 0.0;
}

std::string Statement::text(int column) const {
  if (!stmt_) return {};
  const unsigned char* p = sqlite3_column_text(stmt_, column);
  int n = sqlite3_column_bytes(stmt_, column);
  return p ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
}

std::string_view Statement::textView(int column) const {
  if (!stmt_) return {};
  const unsigned char* p = sqlite3_column_text(stmt_, column);
  int n = sqlite3_column_bytes(stmt_, column);
  return p ? std::string_view(reinterpret_cast<const char*>(p), static_cast<size_t>(n))
           : std::string_view();
}

std::optional<int64_t> Statement::optionalInt64(int column) const {
  if (isNull(column)) return std::nullopt;
  return int64(column);
}

std::optional<double> Statement::optionalReal(int column) const {
  if (isNull(column)) return std::nullopt;
  return real(column);
}

Database::Database(Database&& other) noexcept : db_(std::exchange(other.db_, nullptr)) {}

Database& Database::operator=(Database&& other) noexcept {
  if (this != &other) {
    close();
    db_ = std::exchange(other.db_, nullptr);
  }
  return *this;
}

Database::~Database() {
  close();
}

Database Database::open(const std::string& path, int flags, int* rc) {
  sqlite3* db = nullptr;
  int result = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc) *rc = result;
  if (result != SQLITE_OK) {
    // SQLite hands back a handle even when opening fails; it only serves the error message.
    sqlite3_close_v2(db);
    return Database();
  }
  sqlite3_extended_result_codes(db, 1);
  return Database(db);
}

void Database::close() {
  // close_v2 defers the close until any statement still alive is finalised.
  if (db_) sqlite3_close_v2(std::exchange(db_, nullptr));
}

int Database::exec(std::string_view sql) {
  if (!db_) return SQLITE_MISUSE;
  std::string text(sql);
  return sqlite3_exec(db_, text.c_str(), nullptr, nullptr, nullptr);
}

Statement Database::prepare(std::string_view sql) {
  if (!db_) return Statement(nullptr, SQLITE_MISUSE);
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &stmt, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return Statement(nullptr, rc);
  }
  return Statement(stmt, SQLITE_OK);
}

std::string Database::errorMessage() const {
  return db_ ? sqlite3_errmsg(db_) : "no database";
}

int64_t Database::changes() const {
  return db_ ? sqlite3_changes64(db_) : 0;
}

bool Database::readOnly() const {
  return db_ && sqlite3_db_readonly(db_, "main") == 1;
}

Transaction::Transaction(Database& db) : db_(db) {
  active_ = db_.exec("BEGIN") == SQLITE_OK;
}

Transaction::~Transaction() {
  if (active_) db_.exec("ROLLBACK");
}

int Transaction::commit() {
  if (!active_) return SQLITE_MISUSE;
  int rc = db_.exec("COMMIT");
  // A failed COMMIT leaves the transaction open; the destructor then rolls it back.
  if (rc == SQLITE_OK) active_ = false;
  return rc;
}

}  // namespace vistrel
