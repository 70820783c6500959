// What platform/gateway_cfg_bus.h and gateway/oplog/operation_log.h promise of the operation log.
#include "gateway/oplog/operation_log.h"

#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "gateway/oplog/database.h"
#include "tests/contract/events.h"
#include "tests/contract/folder.h"

namespace qn {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr std::size_t kManyRows = 1'000'000;

tagLogInfo record(const std::string& operation) {
  tagLogInfo info;
  info.time = 1790000000;
  info.user = "admin";
  info.clientIp = "192.0.2.7";
  info.operation = operation;
  info.isoTime = "2026-09-21T15:33:20+02:00";
  info.category = "Device";
  info.result = "Fail";
  return info;
}

// A second process's view of the database.
class Shell {
 public:
  explicit Shell(const fs::path& file) {
    EXPECT_EQ(sqlite3_open(file.c_str(), &connection_), SQLITE_OK);
  }
  ~Shell() { sqlite3_close(connection_); }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // The rows, columns joined by "|"; none when the statement fails.
  std::vector<std::string> query(const std::string& sql) {
    std::vector<std::string> rows;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(connection_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
      return {};
    while (sqlite3_step(statement) == SQLITE_ROW) {
      std::string& row = rows.emplace_back();
      for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const void* const bytes = sqlite3_column_blob(statement, i);
        if (i != 0) row += '|';
        row.append(static_cast<const char*>(bytes),
                   std::size_t(sqlite3_column_bytes(statement, i)));
      }
    }
    sqlite3_finalize(statement);
    return rows;
  }
  std::vector<std::string> operations() {
    return query("SELECT operation FROM operation_log ORDER BY id");
  }

 private:
  sqlite3* connection_ = nullptr;
};

long countOf(const std::string& text, const std::string& part) {
  long count = 0;
  for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++count;
  return count;
}

class OperationLogTest : public testing::Test {
 protected:
  static std::string standardErrorOf(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
  }

  void writeAll(const std::vector<std::string>& operations, std::size_t rows = kManyRows) {
    OperationLog log;
    log.start(directory_, rows);
    for (const auto& operation : operations) EXPECT_TRUE(log.insert(record(operation)));
    log.stop();
  }

  const Folder folder_;
  const fs::path& directory_ = folder_.path();
  const fs::path file_ = directory_ / "operation_log.db";
};

TEST_F(OperationLogTest, TheBusWritesEveryField) {
  EXPECT_EQ(QN_GatewayCfgBus_InsertLogInfo(record("too early")), -1);
  OperationLog::instance().start(directory_, kManyRows);
  EXPECT_EQ(QN_GatewayCfgBus_InsertLogInfo(record("PUT /KAVRO/System/deviceInfo")), 0);
  OperationLog::instance().stop();
  EXPECT_EQ(QN_GatewayCfgBus_InsertLogInfo(record("too late")), -1);
  EXPECT_EQ(Shell(file_).query("SELECT id, time, iso_time, user, client_ip, operation, category, "
                               "result FROM operation_log"),
            std::vector<std::string>{"1|1790000000|2026-09-21T15:33:20+02:00|admin|192.0.2.7|"
                                     "PUT /KAVRO/System/deviceInfo|Device|Fail"});
}

TEST_F(OperationLogTest, TheStatusOfTheAnswerStandsBesideTheRecord) {
  {
    fs::create_directories(directory_);
    Shell former(file_);  // a table without the column
    former.query(
        "CREATE TABLE operation_log(id INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL, "
        "iso_time TEXT NOT NULL, user TEXT NOT NULL, client_ip TEXT NOT NULL, operation TEXT NOT "
        "NULL, category TEXT NOT NULL, result TEXT NOT NULL)");
  }
  OperationLog log;
  log.start(directory_, kManyRows);
  const uint64_t written = log.insert(record("written"));
  ASSERT_TRUE(eventually([&] { return Shell(file_).operations().size() == 1; }));
  const uint64_t unanswered = log.insert(record("unanswered"));
  const uint64_t queued = log.insert(record("queued"));
  log.answered(written, 200);
  log.answered(queued, 403);
  log.answered(unanswered + 1000, 500);
  log.stop();
  log.answered(unanswered, 200);
  EXPECT_EQ(Shell(file_).query("SELECT operation, result, status FROM operation_log ORDER BY id"),
            (std::vector<std::string>{"written|Fail|200", "unanswered|Fail|", "queued|Fail|403"}));
}

TEST_F(OperationLogTest, AnyTextIsDataCutBetweenCharactersAndTheNewestRowsStay) {
  using namespace std::string_literals;
  const std::string hostile = "'); DROP TABLE operation_log; --\0\xff\n"s;
  std::string wide;
  for (int i = 0; i < 1000; ++i) wide += "\xe2\x82\xac";
  const std::string longest(OperationLog::kTextLimit, 'x');
  writeAll({hostile, wide, longest});
  const std::string cut = wide.substr(0, OperationLog::kTextLimit / 3 * 3);
  EXPECT_EQ(Shell(file_).operations(), (std::vector<std::string>{hostile, cut, longest}));
  writeAll({"1", "2", "3", "4", "5"}, 3);
  EXPECT_EQ(Shell(file_).operations(), (std::vector<std::string>{"3", "4", "5"}));
  writeAll({"6"}, 2);
  EXPECT_EQ(Shell(file_).operations(), (std::vector<std::string>{"5", "6"}));
}

TEST_F(OperationLogTest, IsReadableWhileItIsWritten) {
  OperationLog log(1ms);
  log.start(directory_, kManyRows);
  ASSERT_TRUE(log.insert(record("a")));
  EXPECT_TRUE(eventually([&] { return fs::exists(file_); }));
  Shell shell(file_);
  EXPECT_TRUE(eventually([&] { return !shell.operations().empty(); }));
  EXPECT_EQ(shell.operations(), std::vector<std::string>{"a"});
  shell.query("BEGIN");
  EXPECT_EQ(shell.operations().size(), 1u);  // a reader that stays
  ASSERT_TRUE(log.insert(record("b")));
  log.stop();
  EXPECT_EQ(Shell(file_).operations(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(OperationLogTest, MakesTheDirectoryOrSaysWhyNot) {
  OperationLog log;
  EXPECT_NO_THROW(log.start(directory_ / "a" / "b", kManyRows));
  log.stop();
  const fs::path file = folder_.write("file", "text");
  for (const fs::path& unusable : {file, file / "below", fs::path("/proc/none")}) {
    try {
      log.start(unusable, kManyRows);
      ADD_FAILURE() << unusable << " was accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(unusable.string()), std::string::npos) << e.what();
    }
    EXPECT_FALSE(log.insert(record("not running")));
  }
}

TEST_F(OperationLogTest, ALockedDatabaseDelaysNobodyAndLosesNothing) {
  writeAll({"before"});
  const std::string lines = standardErrorOf([&] {
    OperationLog log(1ms);
    Shell shell(file_);
    shell.query("BEGIN EXCLUSIVE");
    log.start(directory_, kManyRows);
    for (const char* text : {"a", "b", "c"}) EXPECT_TRUE(log.insert(record(text)));
    shell.query("COMMIT");
    log.stop();
  });
  EXPECT_EQ(Shell(file_).operations(), (std::vector<std::string>{"before", "a", "b", "c"}));
  EXPECT_EQ(countOf(lines, "lost"), 0) << lines;
}

TEST_F(OperationLogTest, AFailureIsLoggedOnceAndWhatIsLostAtTheStop) {
  fs::create_directory(file_);  // nothing can be written
  const std::string lines = standardErrorOf([&] {
    OperationLog log(1ms);  // many attempts
    log.start(directory_, kManyRows);
    EXPECT_TRUE(log.insert(record("x")) && log.insert(record("y")));
    log.stop();
  });
  EXPECT_EQ(countOf(lines, file_.string() + " cannot be written"), 1) << lines;
  EXPECT_EQ(countOf(lines, "2 records lost"), 1) << lines;
}

TEST_F(OperationLogTest, AFullQueueRefusesAndTheLossIsLogged) {
  std::size_t accepted = 0;
  fs::create_directory(file_);  // nothing can be written
  const std::string lines = standardErrorOf([&] {
    OperationLog log;
    log.start(directory_, kManyRows);
    while (accepted < 100000 && log.insert(record("x"))) ++accepted;
    fs::remove(file_);
    log.stop();
  });
  EXPECT_GE(accepted, OperationLog::kQueueLimit);
  EXPECT_LE(accepted, OperationLog::kQueueLimit + OperationLog::kBatchLimit);
  EXPECT_EQ(Shell(file_).operations().size(), accepted);
  EXPECT_EQ(countOf(lines, "1 records lost"), 1) << lines;
}

// No file of this process grows beyond the limit while it lives: a full disk.
class FullDisk {
 public:
  explicit FullDisk(rlim_t fileBytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limited = {fileBytes, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handlerBefore_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit before_ = {};
  void (*const handlerBefore_)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

TEST_F(OperationLogTest, AFullDiskIsLoggedAndLosesNothing) {
  const std::vector<std::string> operations(500, std::string(1000, 'x'));
  const std::string lines = standardErrorOf([&] {
    OperationLog log(1ms);
    {
      const FullDisk disk(100'000);
      log.start(directory_, kManyRows);
      for (const auto& operation : operations) EXPECT_TRUE(log.insert(record(operation)));
      struct stat written = {};
      eventually([&] { return fstat(STDERR_FILENO, &written) == 0 && written.st_size > 0; });
    }
    log.stop();
  });
  EXPECT_EQ(Shell(file_).operations(), operations);
  EXPECT_GE(countOf(lines, "cannot be written"), 1) << lines;
  EXPECT_EQ(countOf(lines, "is written again"), 1) << lines;
}

TEST_F(OperationLogTest, AReaderThatNeverEndsHoldsABoundedFileAndNothingIsLostAfterIt) {
  constexpr int kRecords = 12'000;
  const auto reader = std::make_unique<Shell>(file_);
  std::uintmax_t largest = 0;
  int unchanged = 0;
  const std::string lines = standardErrorOf([&] {
    OperationLog log(20ms);
    log.start(directory_, kManyRows);
    EXPECT_TRUE(log.insert(record("first")));
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (reader->operations().empty()) ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    reader->query("BEGIN");
    reader->operations();
    tagLogInfo large = record(std::string(OperationLog::kTextLimit, 'x'));
    large.user = large.clientIp = large.isoTime = large.category = large.operation;
    for (int i = 0; i < kRecords && std::chrono::steady_clock::now() < deadline;) {
      if (log.insert(large)) {
        ++i;
        continue;
      }
      std::this_thread::sleep_for(1ms);
      std::error_code none;
      const std::uintmax_t size = fs::file_size(file_.string() + "-wal", none);
      if (size > 2 * OperationDatabase::kJournalLimit) break;
      unchanged = size == largest ? unchanged + 1 : 0;
      largest = std::max(largest, size);
      if (unchanged == 1000) reader->query("COMMIT");  // it has stopped growing
    }
    log.stop();
  });
  EXPECT_GE(largest, OperationDatabase::kJournalLimit);
  EXPECT_LE(largest, OperationDatabase::kJournalLimit * 5 / 4);
  EXPECT_EQ(reader->query("SELECT count(*) FROM operation_log").at(0),
            std::to_string(kRecords + 1));
  EXPECT_EQ(countOf(lines, "cannot be written: a reader"), 1u) << lines;
  EXPECT_EQ(countOf(lines, "is written again"), 1u) << lines;
}

// Rows that a killed process had accepted up to 50 ms before are in the file. Each says when.
TEST_F(OperationLogTest, AKilledProcessLosesOnlyTheLastMilliseconds) {
  using Clock = std::chrono::steady_clock;
  auto lost = Clock::duration::max();
  for (int attempt = 0; attempt < 3 && lost > 50ms; ++attempt) {  // a busy machine may hold it up
    const fs::path folder = directory_ / std::to_string(attempt);
    const pid_t child = fork();
    if (child == 0) {
      OperationLog log;
      log.start(folder, kManyRows);
      for (int i = 0; i < 100'000; ++i) {
        const std::string now = std::to_string(Clock::now().time_since_epoch().count());
        while (!log.insert(record(now))) std::this_thread::sleep_for(1ms);
        if (i % 10 == 0) std::this_thread::sleep_for(1ms);
      }
      _exit(0);
    }
    const fs::path file = folder / "operation_log.db";
    const auto written = [&] { return Shell(file).operations(); };
    EXPECT_TRUE(eventually([&] { return fs::exists(file) && written().size() > 1000; }));
    const auto killed = Clock::now();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    lost = killed.time_since_epoch() - Clock::duration(std::stoll(written().back()));
  }
  EXPECT_LE(lost, 50ms);
}

TEST_F(OperationLogTest, ADamagedFileIsSetAside) {
  const std::string garbage(5000, '?');
  std::ofstream(file_) << garbage;
  const std::string lines = standardErrorOf([&] { writeAll({"x"}); });
  EXPECT_EQ(Shell(file_).operations(), std::vector<std::string>{"x"});
  EXPECT_EQ(fs::file_size(file_.string() + ".unreadable"), garbage.size());
  EXPECT_NE(lines.find("is damaged"), std::string::npos) << lines;
}

TEST_F(OperationLogTest, WhatIsAcceptedFromManyThreadsDuringAStopIsWrittenInOrder) {
  constexpr int kThreads = 4;
  std::array<std::vector<std::string>, kThreads> accepted;
  std::atomic<int> started = 0;
  OperationLog log;
  log.start(directory_, kManyRows);
  onThreads(kThreads + 1, [&](int t) {
    if (t == kThreads) {
      EXPECT_TRUE(eventually([&] { return started == kThreads; }));
      return log.stop();
    }
    for (int i = 0; i < 800; ++i) {
      const std::string text = std::to_string(t) + ":" + std::to_string(i);
      if (log.insert(record(text))) accepted[static_cast<std::size_t>(t)].push_back(text);
      if (i == 100) ++started;
    }
  });
  std::array<std::vector<std::string>, kThreads> written;
  for (const std::string& text : Shell(file_).operations())
    written[static_cast<std::size_t>(text[0] - '0')].push_back(text);
  EXPECT_EQ(written, accepted);
}

}  // namespace
}  // namespace qn
