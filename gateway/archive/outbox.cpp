// See outbox.h.
#include "gateway/archive/outbox.h"

#include <sqlite3.h>

#include <array>

#include "gateway/auth/digest.h"
#include "text/hex.h"

namespace qn {
namespace {

// One row: `sent` is the last sequence that the other database has, `claimed` the last one that was
// read for it. The writer's transactions come before or after the one that claims: an answer that
// comes before is read with the row, one that comes after finds the row claimed.
constexpr char kTables[] =
    "CREATE TABLE IF NOT EXISTS outbox(one INTEGER PRIMARY KEY CHECK(one = 1), "
    "instance TEXT NOT NULL, sent INTEGER NOT NULL, claimed INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS outbox_late(sequence INTEGER PRIMARY KEY);"
    "CREATE TRIGGER IF NOT EXISTS outbox_late_answer AFTER UPDATE OF status ON operation_log "
    "WHEN NEW.id <= (SELECT claimed FROM outbox) BEGIN "
    "INSERT OR IGNORE INTO outbox_late VALUES(NEW.id); END;";
constexpr char kRows[] =
    "SELECT id, time, status, iso_time, user, client_ip, operation, category, result, "
    "status IS NOT NULL OR abs(time - unixepoch()) >= ?1 "
    "FROM operation_log WHERE id > (SELECT sent FROM outbox) ORDER BY id LIMIT ?2";

std::string newInstance() {
  std::array<uint8_t, 16> bytes{};
  if (!fillRandom(bytes.data(), bytes.size())) throw OutboxError("no random numbers");
  return text::hexOf(bytes);
}

}  // namespace

// A statement while it is stepped through.
class Outbox::Query {
 public:
  Query(Outbox& outbox, const char* sql) : outbox_(outbox) {
    outbox.check(sqlite3_prepare_v2(outbox.connection_.get(), sql, -1, &statement_, nullptr));
  }
  ~Query() { sqlite3_finalize(statement_); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& bind(int64_t value) {
    outbox_.check(sqlite3_bind_int64(statement_, ++bound_, value));
    return *this;
  }
  Query& bind(const std::string& value) {
    outbox_.check(
        sqlite3_bind_text(statement_, ++bound_, value.data(), int(value.size()), SQLITE_TRANSIENT));
    return *this;
  }
  bool next() {
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_DONE && result != SQLITE_ROW) outbox_.check(result);
    return result == SQLITE_ROW;
  }
  void run() {
    while (next()) continue;
  }
  void again() {
    sqlite3_reset(statement_);
    bound_ = 0;
  }
  int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string text(int column) const {
    const auto* const bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    return bytes ? std::string(bytes, std::size_t(sqlite3_column_bytes(statement_, column)))
                 : std::string();
  }

 private:
  Outbox& outbox_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
};

void Outbox::Close::operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }

Outbox::Outbox(const std::filesystem::path& file) {
  sqlite3* connection = nullptr;
  const int result = sqlite3_open_v2(file.c_str(), &connection,
                                     SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  connection_.reset(connection);
  check(result);
  check(sqlite3_busy_timeout(connection, kBusyTimeMs));
  check(sqlite3_wal_autocheckpoint(connection, 0));  // the writer sees to it
  execute("PRAGMA synchronous = NORMAL");
  execute(kTables);
  Query(*this, "INSERT OR IGNORE INTO outbox VALUES(1, ?1, 0, 0)").bind(newInstance()).run();
  Query instance(*this, "SELECT instance FROM outbox");
  if (instance.next()) instance_ = instance.text(0);
}

Outbox::Batch Outbox::claim() {
  Batch batch;
  std::size_t bytes = 0;
  execute("BEGIN IMMEDIATE");
  {
    Query rows(*this, kRows);
    rows.bind(kAnswerSeconds).bind(int64_t(kBatchRows));
    while (bytes < kBatchBytes && rows.next() && rows.number(9) != 0) {
      OutboxRow& row = batch.rows.emplace_back(
          OutboxRow{rows.number(0), rows.number(1), rows.text(2), rows.text(3), rows.text(4),
                    rows.text(5), rows.text(6), rows.text(7), rows.text(8)});
      bytes += row.isoTime.size() + row.user.size() + row.clientIp.size() + row.operation.size() +
               row.category.size() + row.result.size();
    }
  }
  if (!batch.rows.empty()) {
    Query sent(*this, "SELECT sent FROM outbox");
    const int64_t before = sent.next() ? sent.number(0) : 0;
    const int64_t held = batch.rows.back().sequence - before;
    batch.dropped = uint64_t(held) - batch.rows.size();
    Query(*this, "UPDATE outbox SET claimed = ?1").bind(batch.rows.back().sequence).run();
  }
  execute("COMMIT");
  return batch;
}

void Outbox::sent(const Batch& batch) {
  Query(*this, "UPDATE outbox SET sent = ?1").bind(batch.rows.back().sequence).run();
}

std::vector<OutboxStatus> Outbox::lateStatuses() {
  std::vector<OutboxStatus> found;
  Query late(*this,
             "SELECT sequence, coalesce(time, 0), coalesce(status, '') FROM outbox_late "
             "LEFT JOIN operation_log ON id = sequence "
             "WHERE sequence <= (SELECT sent FROM outbox) ORDER BY sequence LIMIT ?1");
  late.bind(int64_t(kBatchRows));
  while (late.next()) found.push_back({late.number(0), late.number(1), late.text(2)});
  return found;
}

void Outbox::sent(const std::vector<OutboxStatus>& statuses) {
  execute("BEGIN IMMEDIATE");
  {
    Query remove(*this, "DELETE FROM outbox_late WHERE sequence = ?1");
    for (const OutboxStatus& status : statuses) {
      remove.bind(status.sequence).run();
      remove.again();
    }
  }
  execute("COMMIT");
}

uint64_t Outbox::waiting() {
  Query count(*this,
              "SELECT coalesce((SELECT max(id) FROM operation_log), 0) - max(sent, "
              "coalesce((SELECT min(id) FROM operation_log), 1) - 1) FROM outbox");
  return count.next() ? uint64_t(std::max<int64_t>(count.number(0), 0)) : 0;
}

void Outbox::execute(const char* sql) {
  check(sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr));
}

void Outbox::check(int result) {
  if (result == SQLITE_OK) return;
  throw OutboxError(std::string("the operation log's file: ") +
                    (connection_ ? sqlite3_errmsg(connection_.get()) : sqlite3_errstr(result)));
}

}  // namespace qn
