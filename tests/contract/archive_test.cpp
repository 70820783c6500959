// What gateway/archive promises: the same records through both forms of the archive, and what only
// a database can suffer. On a real PostgreSQL.
#include <sqlite3.h>

#include "gateway/archive/outbox.h"
#include "gateway/archive/postgres_archive.h"
#include "gateway/archive/postgres_connection.h"
#include "gateway/oplog/operation_log.h"
#include "tests/contract/engines.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
using Rows = std::vector<std::string>;

constexpr uint64_t kTime = 1790000000;  // 2026-09-21
constexpr std::size_t kManyRows = 1'000'000;

tagLogInfo record(const std::string& operation, uint64_t time = kTime) {
  return {time, "admin", "192.0.2.7", operation, "2026-09-21T15:33:20+02:00", "Device", "Fail"};
}

Rows sqlite(const std::filesystem::path& file, const std::string& sql) {
  Rows rows;
  sqlite3* connection = nullptr;
  EXPECT_EQ(sqlite3_open(file.c_str(), &connection), SQLITE_OK);
  sqlite3_busy_timeout(connection, 5000);
  const auto take = [](void* out, int, char** values, char**) {
    static_cast<Rows*>(out)->emplace_back(values[0] ? values[0] : "");
    return 0;
  };
  const bool done = sqlite3_exec(connection, sql.c_str(), take, &rows, nullptr) == SQLITE_OK;
  EXPECT_TRUE(done || std::string(sqlite3_errmsg(connection)).starts_with("no such table"));
  sqlite3_close(connection);
  return rows;
}

constexpr char kReaders[] =
    "SELECT operation || '|' || \"user\" || '|' || client_ip || '|' || category || '|' || result "
    "|| '|' || iso_time || '|' || coalesce(status, 0) FROM operation_log ORDER BY ";

class ArchiveTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (TestPostgres::isInstalled()) postgres_ = new TestPostgres;
  }
  static void TearDownTestSuite() {
    delete postgres_;
    postgres_ = nullptr;
  }
  void SetUp() override {
    if (!postgres_) GTEST_SKIP() << "PostgreSQL is not installed";
    postgres("DROP VIEW IF EXISTS operation_log");
    postgres("DROP TABLE IF EXISTS operation_log_row, operation_log_schema");
  }

  // As a reader of the database sees it.
  static Rows postgres(const std::string& sql) {
    const Interrupt never;
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    for (;;) {
      try {
        return PostgresConnection(postgres_->uri(), never).run(sql.c_str());
      } catch (const PostgresError& error) {
        if (error.state() == "42P01") return {};  // no such table yet
        if (std::chrono::steady_clock::now() > deadline) throw;
        std::this_thread::sleep_for(20ms);  // it is starting
      }
    }
  }
  static Rows operations() {
    return postgres("SELECT operation FROM operation_log ORDER BY gateway, instance, sequence");
  }
  static std::unique_ptr<PostgresArchive> archive(std::size_t days = 36500) {
    return std::make_unique<PostgresArchive>(ArchiveOptions{postgres_->uri(), "one", days}, 20ms);
  }

  void write(const Rows& texts, std::size_t rows = kManyRows) {
    OperationLog log;
    log.start(folder_.path(), rows);
    for (const auto& text : texts) EXPECT_TRUE(log.insert(record(text)));
    log.stop();
  }

  static inline TestPostgres* postgres_ = nullptr;
  const Folder folder_;
  const std::filesystem::path file_ = OperationLog::fileIn(folder_.path());
};

// Both forms show readers the same rows; the database can take no bytes that are no text.
TEST_F(ArchiveTest, ReadersSeeTheSameRowsWhereverTheyStand) {
  using namespace std::string_literals;
  const std::string hostile = "'); DROP TABLE x; --\t\\N\\.\r\n\\";
  const auto show = [&](OperationArchive& form, const std::function<Rows()>& readers) {
    OperationLog log;
    form.start(file_);
    log.start(folder_.path(), kManyRows);
    const uint64_t late = log.insert(record("late"));
    log.insert(record(hostile));
    EXPECT_TRUE(eventually([&] { return readers().size() == 2; }));
    log.answered(late, 403);
    const Rows expected{"late|admin|192.0.2.7|Device|Fail|2026-09-21T15:33:20+02:00|403",
                        hostile + "|admin|192.0.2.7|Device|Fail|2026-09-21T15:33:20+02:00|0"};
    EXPECT_TRUE(eventually([&] { return readers() == expected; })) << readers()[0];
    log.stop();
    form.stop();
  };
  OwnFileOnly here;
  show(here, [&] { return sqlite(file_, std::string(kReaders) + "id"); });
  std::filesystem::remove_all(folder_.path());
  const auto there = archive();
  show(*there, [] { return postgres(std::string(kReaders) + "sequence"); });
  EXPECT_EQ(here.load().sent, 0u);
  EXPECT_EQ(there->load().sent, 2u);

  write({"bytes \xff\0\xc3"s});
  const auto again = archive();
  again->start(file_);
  EXPECT_TRUE(eventually([] { return operations().size() == 3; }));
  EXPECT_EQ(operations().back(), "bytes \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

// Its answer comes within the time that a row waits for it, or after it was claimed.
TEST_F(ArchiveTest, AnAnswerIsReadWithItsRowOrFollowsIt) {
  write({"a", "b"});
  Outbox outbox(file_);
  const auto answer = [&](int sequence) {
    sqlite(file_, "UPDATE operation_log SET status = 200 WHERE id = " + std::to_string(sequence));
  };
  answer(1);
  const Outbox::Batch batch = outbox.claim();
  ASSERT_EQ(batch.rows.size(), 2u);
  EXPECT_EQ(batch.rows[0].status + "," + batch.rows[1].status, "200,");
  answer(2);
  EXPECT_EQ(outbox.lateStatuses().size(), 0u) << "the row is not sent yet";
  outbox.sent(batch);
  const auto late = outbox.lateStatuses();
  ASSERT_EQ(late.size(), 1u);
  EXPECT_EQ(late[0].sequence, 2);
  outbox.sent(late);
  EXPECT_EQ(outbox.lateStatuses().size() + outbox.claim().rows.size() + outbox.waiting(), 0u);
  sqlite(file_,
         "INSERT INTO operation_log SELECT 3, unixepoch(), iso_time, user, client_ip, "
         "operation, category, result, NULL FROM operation_log WHERE id = 1");
  EXPECT_EQ(outbox.claim().rows.size(), 0u) << "its answer may still come";
  EXPECT_EQ(outbox.waiting(), 1u);
  answer(3);
  EXPECT_EQ(outbox.claim().rows.size(), 1u);
}

// Sent twice, because the gateway ended between the database's commit and its own note.
TEST_F(ArchiveTest, ARowIsThereOnceAndOthersOfOtherGatewaysBesideIt) {
  write({"a", "b"});
  const auto sendAll = [&](const std::filesystem::path& file, std::size_t rows) {
    const auto sender = archive();
    sender->start(file);
    EXPECT_TRUE(eventually([&] { return sender->load().sent == rows; }));
  };
  sendAll(file_, 2);
  sqlite(file_, "UPDATE outbox SET sent = 0");
  sendAll(file_, 2);
  EXPECT_EQ(operations(), (Rows{"a", "b"}));
  const Folder other;
  OperationLog log;
  log.start(other.path(), kManyRows);
  log.insert(record("c"));
  log.stop();
  sendAll(OperationLog::fileIn(other.path()), 1);
  EXPECT_EQ(operations().size(), 3u);
}

TEST_F(ArchiveTest, ADatabaseThatIsAwayOrStuckLosesNothingAndIsToldOnce) {
  testing::internal::CaptureStderr();
  const auto sender = archive();
  sender->start(file_);
  write({"a"});
  EXPECT_TRUE(eventually([&] { return sender->load().sent == 1; }));
  postgres_->stop();
  write({"b", "c"});
  EXPECT_TRUE(eventually([&] { return sender->engine()->trouble().has_value(); }));
  EXPECT_EQ(sqlite(file_, "SELECT count(*) FROM operation_log"), Rows{"3"});
  postgres_->start();
  EXPECT_TRUE(eventually([] { return operations() == Rows{"a", "b", "c"}; }));
  EXPECT_TRUE(eventually([&] { return sender->engine()->isUp(); }));
  const auto end = std::chrono::steady_clock::now() + 9s;
  sender->stop();
  EXPECT_LT(std::chrono::steady_clock::now(), end);
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(sender->engine()->outages(), 1u) << lines;
  const auto first = lines.find("postgresql: cannot be used");
  ASSERT_NE(first, lines.npos) << lines;
  EXPECT_EQ(lines.find("postgresql: cannot be used", first + 1), lines.npos) << lines;
  EXPECT_NE(lines.find("postgresql: can be used again"), lines.npos) << lines;
}

TEST_F(ArchiveTest, AGatewayStopsWhileTheDatabaseHangs) {
  write({"a"});
  const auto sender = archive();
  postgres("SELECT 1");
  postgres_->process().pause();  // of the children of which a connection is made
  sender->start(file_);
  std::this_thread::sleep_for(50ms);
  const auto begin = std::chrono::steady_clock::now();
  sender->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  postgres_->process().resume();
  EXPECT_EQ(sender->load().sent, 0u);
}

TEST_F(ArchiveTest, WhatTheFileDropsBeforeItIsSentIsCounted) {
  write({"a"});
  Outbox(file_).claim();
  write({"1", "2", "3", "4", "5"}, 3);
  testing::internal::CaptureStderr();
  const auto sender = archive();
  sender->start(file_);
  EXPECT_TRUE(eventually([&] { return sender->load().sent == 3 && sender->load().lost == 3; }));
  sender->stop();
  EXPECT_EQ(operations(), (Rows{"3", "4", "5"}));
  EXPECT_NE(testing::internal::GetCapturedStderr().find("3 rows were dropped"), std::string::npos);
}

// Several gateways at once make the tables and a day's partition; old days go.
TEST_F(ArchiveTest, GatewaysAgreeOnTheTablesAndDropOldDays) {
  constexpr int kGateways = 6;
  const uint64_t now = uint64_t(time(nullptr));
  std::vector<std::unique_ptr<Folder>> folders;
  for (int i = 0; i < kGateways; ++i) {
    folders.push_back(std::make_unique<Folder>());
    OperationLog log;
    log.start(folders.back()->path(), kManyRows);
    for (const uint64_t time : {now - 40 * 86400, now - 100, uint64_t(1) << 62}) {
      log.insert(record("x", time));
    }
    log.stop();
  }
  onThreads(kGateways, [&](int i) {
    const auto sender = archive();
    sender->start(OperationLog::fileIn(folders[std::size_t(i)]->path()));
    EXPECT_TRUE(eventually([&] { return sender->load().sent == 3; }));
  });
  EXPECT_EQ(postgres("SELECT count(*) FROM operation_log"), Rows{"18"});
  EXPECT_EQ(postgres("SELECT count(*) FROM operation_log_schema"), Rows{"1"});
  const auto partitions = [] {
    return postgres(
        "SELECT count(*) FROM pg_inherits "
        "WHERE inhparent = 'operation_log_row'::regclass");
  };
  EXPECT_EQ(partitions(), Rows{"3"});
  const auto sender = archive(30);
  sender->start(file_);
  EXPECT_TRUE(eventually([&] { return partitions() == Rows{"2"}; }));
  sender->stop();
  EXPECT_EQ(postgres("SELECT count(*) FROM operation_log"), Rows{"12"});
  postgres("INSERT INTO operation_log_schema VALUES(99)");
  const auto old = archive();
  old->start(file_);
  EXPECT_TRUE(eventually([&] { return old->engine()->trouble().has_value(); }));
  EXPECT_NE(old->engine()->trouble()->find("version 99"), std::string::npos);
}

TEST(PostgresUri, IsReadBeforeItIsUsed) {
  for (const char* good : {"postgresql://u:p@h:1/d?sslmode=verify-full", "postgres:///d?host=/x"}) {
    EXPECT_TRUE(PostgresConnection::isUri(good)) << good;
  }
  for (const char* bad : {"postgresql://h/d?nonsense=1", "postgresql://h/%zz", "postgresql://[h"}) {
    EXPECT_FALSE(PostgresConnection::isUri(bad)) << bad;
    EXPECT_THROW(PostgresArchive({bad, "one", 1}), std::invalid_argument);
  }
}

}  // namespace
}  // namespace qn
