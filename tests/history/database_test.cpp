// The RAII layer over SQLite, against a private in-memory database and a file.

#include "history/database.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::TempFolder;

class DatabaseTest : public ::testing::TestWithParam<bool> {
 protected:
  // The parameter chooses a file database (true) or ":memory:".
  Database openDb() {
    std::string path = GetParam() ? folder_.file("t.sqlite") : ":memory:";
    int rc = -1;
    Database db = Database::open(path, Database::kReadWriteCreate, &rc);
    EXPECT_EQ(rc, SQLITE_OK);
    EXPECT_TRUE(db.isOpen());
    return db;
  }
  TempFolder folder_;
};

TEST_P(DatabaseTest, TypedBindsComeBackAsTheyWentIn) {
  Database db = openDb();
  ASSERT_EQ(db.exec("CREATE TABLE v(i INTEGER, r REAL, s TEXT, o REAL)"), SQLITE_OK);
  struct Row {
    int64_t i;
    double r;
    std::string s;
    std::optional<double> o;
  };
  const Row rows[] = {
      {std::numeric_limits<int64_t>::max(), 1e300, "", std::nullopt},
      {std::numeric_limits<int64_t>::min(), -0.5, "caf\xc3\xa9 \xe2\x98\x95", 2.25},
      {0, 0.0, std::string("a\0b", 3), -1e-300},
  };
  Statement insert = db.prepare("INSERT INTO v VALUES(?,?,?,?)");
  for (const Row& row : rows) {
    insert.reset();
    ASSERT_EQ(insert.bindAll(row.i, row.r, row.s, row.o).run(), SQLITE_OK);
  }
  Statement select = db.prepare("SELECT i, r, s, o FROM v ORDER BY rowid");
  ASSERT_EQ(select.columnCount(), 4);
  for (const Row& row : rows) {
    ASSERT_TRUE(select.next());
    EXPECT_EQ(select.int64(0), row.i);
    EXPECT_EQ(select.real(1), row.r);
    EXPECT_EQ(select.text(2), row.s);
    EXPECT_EQ(select.optionalReal(3), row.o);
    EXPECT_EQ(select.isNull(3), !row.o.has_value());
  }
  EXPECT_FALSE(select.next());
  EXPECT_EQ(select.error(), SQLITE_DONE);
  // At the end the statement stays put instead of starting over.
  EXPECT_FALSE(select.next());
}

TEST_P(DatabaseTest, FailuresAreResultCodesNotCrashes) {
  Database db = openDb();
  ASSERT_EQ(db.exec("CREATE TABLE v(i INTEGER PRIMARY KEY)"), SQLITE_OK);
  struct Case {
    const char* what;
    std::string sql;
    int bindIndex;
    int expected;
  };
  const Case cases[] = {
      {"syntax error", "SELEKT 1", 1, SQLITE_ERROR},
      {"missing table", "INSERT INTO nowhere VALUES(?)", 1, SQLITE_ERROR},
      {"bind past the last parameter", "INSERT INTO v VALUES(?)", 2, SQLITE_RANGE},
      {"constraint", "INSERT INTO v VALUES(NULL), (1), (1)", 0, SQLITE_CONSTRAINT_PRIMARYKEY},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Statement s = db.prepare(c.sql);
    if (c.bindIndex > 0) s.bind(c.bindIndex, 7).bind(c.bindIndex, "x").bind(c.bindIndex, 1.5);
    EXPECT_FALSE(s.next());
    EXPECT_EQ(s.run(), c.expected);
    EXPECT_FALSE(db.errorMessage().empty());
  }
  // A closed connection prepares nothing and runs nothing.
  Database closed;
  EXPECT_EQ(closed.exec("SELECT 1"), SQLITE_MISUSE);
  EXPECT_FALSE(closed.prepare("SELECT 1").ok());
  EXPECT_EQ(closed.prepare("SELECT 1").run(), SQLITE_MISUSE);
}

TEST_P(DatabaseTest, TransactionRollsBackUnlessCommitted) {
  Database db = openDb();
  ASSERT_EQ(db.exec("CREATE TABLE v(i INTEGER)"), SQLITE_OK);
  auto count = [&] {
    Statement s = db.prepare("SELECT COUNT(*) FROM v");
    return s.next() ? s.int64(0) : -1;
  };
  {
    Transaction t(db);
    ASSERT_TRUE(t.active());
    ASSERT_EQ(db.exec("INSERT INTO v VALUES(1)"), SQLITE_OK);
    // A second transaction cannot begin inside the first.
    Transaction nested(db);
    EXPECT_FALSE(nested.active());
    EXPECT_EQ(nested.commit(), SQLITE_MISUSE);
    // Leaving the scope without commit: an early return after a failure.
  }
  EXPECT_EQ(count(), 0);
  {
    Transaction t(db);
    ASSERT_EQ(db.exec("INSERT INTO v VALUES(1); INSERT INTO v VALUES(2)"), SQLITE_OK);
    ASSERT_EQ(t.commit(), SQLITE_OK);
  }
  EXPECT_EQ(count(), 2);
}

TEST_P(DatabaseTest, MovingHandsOverTheConnection) {
  Database a = openDb();
  ASSERT_EQ(a.exec("CREATE TABLE v(i INTEGER); INSERT INTO v VALUES(42)"), SQLITE_OK);
  Statement s = a.prepare("SELECT i FROM v");
  Database b = std::move(a);
  EXPECT_FALSE(a.isOpen());  // NOLINT(bugprone-use-after-move): the moved-from state is the point
  ASSERT_TRUE(b.isOpen());
  // A statement prepared before the move still belongs to the same connection.
  ASSERT_TRUE(s.next());
  EXPECT_EQ(s.int64(0), 42);
  Statement moved = std::move(s);
  EXPECT_FALSE(s.ok());  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(moved.ok());
}

INSTANTIATE_TEST_SUITE_P(MemoryAndFile, DatabaseTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "File" : "Memory"; });

TEST(DatabaseFile, RowsSurviveClosingAndOpeningsFailCleanly) {
  TempFolder folder;
  std::string path = folder.file("kept.sqlite");
  {
    Database db = Database::open(path);
    ASSERT_EQ(db.exec("CREATE TABLE v(s TEXT); INSERT INTO v VALUES('kept')"), SQLITE_OK);
  }
  Database again = Database::open(path);
  Statement s = again.prepare("SELECT s FROM v");
  ASSERT_TRUE(s.next());
  EXPECT_EQ(s.text(0), "kept");

  int rc = SQLITE_OK;
  Database missing =
      Database::open(folder.file("no/such/folder/x.sqlite"), Database::kReadWriteCreate, &rc);
  EXPECT_FALSE(missing.isOpen());
  EXPECT_EQ(primaryCode(rc), SQLITE_CANTOPEN);
}

}  // namespace
}  // namespace vistrel
