// See database.h.
#include "gateway/oplog/database.h"

#include <pthread.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <system_error>

namespace qn {
namespace {

// Ids grow by one and are never used again, so the oldest rows are those with the smallest ids.
constexpr char kTable[] =
    "CREATE TABLE IF NOT EXISTS operation_log("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL, iso_time TEXT NOT NULL, "
    "user TEXT NOT NULL, client_ip TEXT NOT NULL, operation TEXT NOT NULL, "
    "category TEXT NOT NULL, result TEXT NOT NULL, status INTEGER)";
constexpr char kInsert[] =
    "INSERT INTO operation_log(time, iso_time, user, client_ip, operation, category, result, "
    "status) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, nullif(?8, 0))";
constexpr char kUpdate[] = "UPDATE operation_log SET status = ?2 WHERE id = ?1";
constexpr char kTrim[] =
    "DELETE FROM operation_log WHERE id <= (SELECT max(id) FROM operation_log) - ?1";

constexpr std::size_t kPageBytes = 4096;
constexpr int kMovedPages = 1000;  // so much is worth a move
constexpr int kMostPages = int(OperationDatabase::kJournalLimit / kPageBytes);

int keepPages(void* pages, sqlite3*, const char*, int count) {
  *static_cast<int*>(pages) = count;
  return SQLITE_OK;
}

sqlite3* opened(const std::filesystem::path& file, int& result) {
  sqlite3* connection = nullptr;
  result =
      sqlite3_open_v2(file.c_str(), &connection,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  return connection;  // a failed opening leaves one as well, for its message
}

}  // namespace

void OperationDatabase::Close::operator()(sqlite3* connection) const {
  sqlite3_close_v2(connection);
}

void OperationDatabase::Finalize::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

OperationDatabase::OperationDatabase(const std::filesystem::path& file) : file_(file) {
  int result = SQLITE_OK;
  connection_.reset(opened(file, result));
  check(result);
  check(sqlite3_busy_timeout(connection_.get(), kBusyTimeMs));
  execute("PRAGMA journal_mode = WAL");
  execute("PRAGMA journal_size_limit = 4194304");  // what stays of the file when it begins anew
  execute("PRAGMA synchronous = NORMAL");  // a power cut may cost the last rows, never the file
  execute(kTable);
  addStatusColumn();
  insert_ = prepare(kInsert);
  update_ = prepare(kUpdate);
  trim_ = prepare(kTrim);
  sqlite3_wal_hook(connection_.get(), keepPages, &journalPages_);  // instead of moving by itself
  int moved = 0;
  check(sqlite3_wal_checkpoint_v2(connection_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                  &journalPages_, &moved));
}

OperationDatabase::~OperationDatabase() {
  if (mover_.joinable()) mover_.join();
}

void OperationDatabase::boundJournal() {
  if (journalPages_ > kMovedPages && !moving_) moveJournal();
  if (journalPages_ < kMostPages) return;
  const int result = sqlite3_wal_checkpoint_v2(connection_.get(), nullptr,
                                               SQLITE_CHECKPOINT_TRUNCATE, &journalPages_, nullptr);
  if (result == SQLITE_BUSY) {
    throw DatabaseError("a reader has held up its write-ahead file for too long", false);
  }
  check(result);
}

void OperationDatabase::moveJournal() {
  if (mover_.joinable()) mover_.join();
  moving_ = true;
  try {
    mover_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "oplog-move");
      int result = SQLITE_OK;
      const std::unique_ptr<sqlite3, Close> own(opened(file_, result));
      sqlite3_wal_checkpoint_v2(own.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
      moving_ = false;
    });
  } catch (const std::system_error&) {  // no thread: tried again with the next records
    moving_ = false;
  }
}

// Tables of former versions have none.
void OperationDatabase::addStatusColumn() {
  sqlite3_stmt* found = nullptr;
  const int result = sqlite3_prepare_v2(connection_.get(), "SELECT status FROM operation_log", -1,
                                        &found, nullptr);
  const Statement owned(found);
  if (result == SQLITE_ERROR) execute("ALTER TABLE operation_log ADD COLUMN status INTEGER");
}

void OperationDatabase::append(std::span<const OperationRecord> records,
                               std::span<const OperationAnswer> answers, std::size_t rows) {
  boundJournal();
  execute("BEGIN IMMEDIATE");
  for (const OperationRecord& record : records) insert(record);
  for (const OperationAnswer& answer : answers) update(answer);
  constexpr auto kMost = static_cast<std::size_t>(std::numeric_limits<int64_t>::max());
  check(sqlite3_bind_int64(trim_.get(), 1, static_cast<int64_t>(std::min(rows, kMost))));
  run(trim_);
  execute("COMMIT");
}

void OperationDatabase::insert(const OperationRecord& numbered) {
  const tagLogInfo& record = numbered.info;
  check(sqlite3_bind_int64(insert_.get(), 1, static_cast<int64_t>(record.time)));
  int index = 2;
  for (const std::string* text : {&record.isoTime, &record.user, &record.clientIp,
                                  &record.operation, &record.category, &record.result}) {
    // SQLITE_STATIC: the record outlives the step.
    check(sqlite3_bind_text64(insert_.get(), index++, text->data(), text->size(), SQLITE_STATIC,
                              SQLITE_UTF8));
  }
  check(sqlite3_bind_int(insert_.get(), index, numbered.status));
  run(insert_);
  if (numbered.status != 0) return;
  awaited_.emplace(numbered.number, sqlite3_last_insert_rowid(connection_.get()));
  if (awaited_.size() > kAwaitedRows) awaited_.erase(awaited_.begin());
}

void OperationDatabase::update(const OperationAnswer& answer) {
  const auto row = awaited_.extract(answer.number);
  if (!row) return;
  check(sqlite3_bind_int64(update_.get(), 1, row.mapped()));
  check(sqlite3_bind_int(update_.get(), 2, answer.status));
  run(update_);
}

OperationDatabase::Statement OperationDatabase::prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  check(sqlite3_prepare_v2(connection_.get(), sql, -1, &statement, nullptr));
  return Statement(statement);
}

void OperationDatabase::run(const Statement& statement) {
  const int result = sqlite3_step(statement.get());
  check(result == SQLITE_DONE ? SQLITE_OK : result);
  check(sqlite3_reset(statement.get()));
}

void OperationDatabase::execute(const char* sql) {
  check(sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr));
}

void OperationDatabase::check(int result) {
  if (result == SQLITE_OK) return;
  const int kind = result & 0xff;  // without the detail of an extended code
  throw DatabaseError(connection_ ? sqlite3_errmsg(connection_.get()) : sqlite3_errstr(result),
                      kind == SQLITE_NOTADB || kind == SQLITE_CORRUPT);
}

}  // namespace qn
