// See postgres_archive.h.
#include "gateway/archive/postgres_archive.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "gateway/archive/archive_schema.h"
#include "gateway/archive/outbox.h"
#include "gateway/archive/postgres_connection.h"
#include "gateway/log/log.h"
#include "gateway/sync/mutex.h"
#include "text/number.h"
#include "text/utf8.h"

namespace qn {
namespace {

using std::chrono::steady_clock;

constexpr int64_t kDaySeconds = 24 * 3600;
constexpr int64_t kLastTime = 253402214400;  // the last day that has four digits for its year

// A table of the session, because COPY knows no conflicts.
constexpr char kStaging[] =
    "CREATE TEMP TABLE staged(time bigint, sequence bigint, status integer, iso_time text, "
    "user_name text, client_ip text, operation text, category text, result text) "
    "ON COMMIT DELETE ROWS";
constexpr char kCopyRows[] = "COPY staged FROM STDIN";
constexpr char kInsert[] =
    "INSERT INTO operation_log_row(time, instance, sequence, gateway, iso_time, user_name, "
    "client_ip, operation, category, result, status) "
    "SELECT to_timestamp(time), $1, sequence, $2, iso_time, user_name, client_ip, operation, "
    "category, result, status FROM staged ON CONFLICT DO NOTHING";
constexpr char kCopyStatuses[] = "COPY staged(time, sequence, status) FROM STDIN";
constexpr char kUpdate[] =
    "UPDATE operation_log_row AS kept SET status = staged.status FROM staged "
    "WHERE kept.instance = $1 AND kept.sequence = staged.sequence "
    "AND kept.time = to_timestamp(staged.time)";

int64_t keptTime(int64_t time) { return std::clamp<int64_t>(time, 0, kLastTime); }

// A field of COPY's text format. The database takes valid UTF-8 without NUL only.
void appendText(std::string& out, std::string_view text) {
  while (!text.empty()) {
    const text::Utf8Character character = text::firstCharacter(text);
    switch (text.front()) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += character.valid && character.code != 0 ? text.substr(0, character.size)
                                                      : text::kReplacement;
    }
    text.remove_prefix(character.size);
  }
}

void appendNumbers(std::string& out, int64_t time, int64_t sequence, const std::string& status) {
  text::appendDecimal(out, keptTime(time));
  out += '\t';
  text::appendDecimal(out, sequence);
  out += '\t';
  out += status.empty() ? "\\N" : status;
}

std::string copied(const std::vector<OutboxRow>& rows) {
  std::string out;
  for (const OutboxRow& row : rows) {
    appendNumbers(out, row.time, row.sequence, row.status);
    for (const std::string* text :
         {&row.isoTime, &row.user, &row.clientIp, &row.operation, &row.category, &row.result}) {
      out += '\t';
      appendText(out, *text);
    }
    out += '\n';
  }
  return out;
}

std::string copied(const std::vector<OutboxStatus>& statuses) {
  std::string out;
  for (const OutboxStatus& each : statuses) {
    appendNumbers(out, each.time, each.sequence, each.status);
    out += '\n';
  }
  return out;
}

}  // namespace

// What the thread has; it goes with whoever of the two ends last.
class PostgresArchive::Sender {
 public:
  Sender(ArchiveOptions options, std::chrono::milliseconds firstRetry)
      : options_(std::move(options)), firstRetry_(firstRetry), retry_(firstRetry) {
    if (PostgresConnection::isUri(options_.uri)) return;
    throw std::invalid_argument("storage.operation_log is no connection URI of PostgreSQL");
  }

  void run(const std::filesystem::path& file);
  void interrupt() { stopped_.raise(); }
  // Whether the thread has ended within this time.
  bool waitForEnd(std::chrono::milliseconds time);

  Load load() const { return {sent_.value(), waiting_, lost_.value()}; }
  const EngineState& engine() const { return engine_; }

 private:
  std::chrono::milliseconds turn(const std::filesystem::path& file);
  bool send(Outbox& outbox);
  void sendRows(Outbox& outbox, const Outbox::Batch& batch);
  void sendStatuses(Outbox& outbox, const std::vector<OutboxStatus>& statuses);
  void connect();
  void keepUp();
  void makePartitions(const std::vector<OutboxRow>& rows);
  void exchange(const char* copy, const std::string& rows, const char* statement,
                const std::vector<std::string>& parameters);
  std::chrono::milliseconds nextRetry();

  const ArchiveOptions options_;
  const std::chrono::milliseconds firstRetry_;
  const Interrupt stopped_;
  EngineState engine_{"postgresql", "the operation log's rows wait in the gateway's own file"};

  // The thread's own:
  std::chrono::milliseconds retry_;
  std::optional<PostgresConnection> connection_;
  std::set<int64_t> days_;  // whose partitions are known to be there
  steady_clock::time_point used_;
  steady_clock::time_point retained_;
  std::minstd_rand random_{std::random_device{}()};

  Counter sent_;
  Counter lost_;
  std::atomic<uint64_t> waiting_{0};
  Mutex mutex_;
  Condition changed_;
  bool ended_ QN_GUARDED_BY(mutex_) = false;
};

void PostgresArchive::Sender::run(const std::filesystem::path& file) {
  pthread_setname_np(pthread_self(), "oplog-send");
  while (!stopped_.waitFor(turn(file))) continue;
  connection_.reset();
  const MutexLock lock(mutex_);
  ended_ = true;
  changed_.notifyAll();
}

bool PostgresArchive::Sender::waitForEnd(std::chrono::milliseconds time) {
  const auto deadline = steady_clock::now() + time;
  const MutexLock lock(mutex_);
  while (!ended_ && changed_.waitUntil(mutex_, deadline)) continue;
  return ended_;
}

// Sends what is there; the time until the next turn.
std::chrono::milliseconds PostgresArchive::Sender::turn(const std::filesystem::path& file) try {
  if (!connection_) connect();
  try {
    Outbox outbox(file);
    while (!stopped_.waitFor({}) && send(outbox)) continue;
    waiting_ = outbox.waiting();
  } catch (const OutboxError& error) {  // the writer says what is wrong with it
    logDebug("operation log: {}", error.what());
  }
  keepUp();
  engine_.up();
  retry_ = firstRetry_;
  return kPollTime;
} catch (const std::exception& error) {
  connection_.reset();
  if (!stopped_.waitFor({})) engine_.down(error.what());
  return nextRetry();
}

// False when nothing is due.
bool PostgresArchive::Sender::send(Outbox& outbox) {
  const Outbox::Batch batch = outbox.claim();
  waiting_ = outbox.waiting();
  if (!batch.rows.empty()) sendRows(outbox, batch);
  const auto late = outbox.lateStatuses();
  if (!late.empty()) sendStatuses(outbox, late);
  return !batch.rows.empty() || !late.empty();
}

void PostgresArchive::Sender::sendRows(Outbox& outbox, const Outbox::Batch& batch) {
  makePartitions(batch.rows);
  exchange(kCopyRows, copied(batch.rows), kInsert, {outbox.instance(), options_.gateway});
  outbox.sent(batch);
  sent_.add(batch.rows.size());
  if (batch.dropped == 0) return;
  lost_.add(batch.dropped);
  logError("operation log: {} rows were dropped before they could be sent to the database",
           batch.dropped);
}

void PostgresArchive::Sender::sendStatuses(Outbox& outbox,
                                           const std::vector<OutboxStatus>& statuses) {
  exchange(kCopyStatuses, copied(statuses), kUpdate, {outbox.instance()});
  outbox.sent(statuses);
}

void PostgresArchive::Sender::exchange(const char* copy, const std::string& rows,
                                       const char* statement,
                                       const std::vector<std::string>& parameters) {
  connection_->run("BEGIN");
  connection_->copy(copy, rows);
  connection_->run(statement, parameters);
  connection_->run("COMMIT");
  used_ = steady_clock::now();
}

void PostgresArchive::Sender::connect() {
  days_.clear();
  retained_ = {};
  connection_.emplace(options_.uri, stopped_);
  makeArchiveSchema(*connection_);
  connection_->run(kStaging);
}

// What is done without rows: a look whether the database is there, and what has its time.
void PostgresArchive::Sender::keepUp() {
  const auto now = steady_clock::now();
  if (now - retained_ > kRetentionTime) {
    days_.clear();  // somebody may have dropped some
    dropOldPartitions(*connection_, options_.days);
    retained_ = used_ = now;
  }
  if (now - used_ < kPingTime) return;
  connection_->run("SELECT 1");
  used_ = now;
}

void PostgresArchive::Sender::makePartitions(const std::vector<OutboxRow>& rows) {
  std::set<int64_t> missing;
  for (const OutboxRow& row : rows) {
    const int64_t day = keptTime(row.time) / kDaySeconds;
    if (!days_.contains(day)) missing.insert(day);
  }
  if (missing.empty()) return;
  makeArchivePartitions(*connection_, missing);
  days_.merge(missing);
}

// Jittered, so that gateways do not all come back at once.
std::chrono::milliseconds PostgresArchive::Sender::nextRetry() {
  const auto delay =
      std::exchange(retry_, std::min(2 * retry_, std::chrono::milliseconds(kLongestRetry)));
  return delay - std::chrono::milliseconds(
                     std::uniform_int_distribution<int64_t>(0, delay.count() / 4)(random_));
}

PostgresArchive::PostgresArchive(ArchiveOptions options, std::chrono::milliseconds firstRetry)
    : sender_(std::make_shared<Sender>(std::move(options), firstRetry)) {}

PostgresArchive::~PostgresArchive() { stop(); }

void PostgresArchive::start(const std::filesystem::path& file) {
  thread_ = std::thread([sender = sender_, file] { sender->run(file); });
}

void PostgresArchive::stop() {
  if (!thread_.joinable()) return;
  sender_->interrupt();
  if (sender_->waitForEnd(kStopTime)) return thread_.join();
  thread_.detach();  // it looks a name up
}

OperationArchive::Load PostgresArchive::load() const { return sender_->load(); }

const EngineState* PostgresArchive::engine() const { return &sender_->engine(); }

}  // namespace qn
