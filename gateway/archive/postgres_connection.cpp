// See postgres_connection.h.
#include "gateway/archive/postgres_connection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "gateway/archive/libpq.h"

namespace qn {
namespace {

using std::chrono::steady_clock;

// A gateway that vanishes holds no lock for long.
constexpr char kSession[] =
    "SET statement_timeout = '20s'; SET lock_timeout = '5s'; "
    "SET idle_in_transaction_session_timeout = '30s'; SET client_encoding = 'UTF8'; "
    "SET timezone = 'UTC'; SET datestyle = 'ISO'; SET standard_conforming_strings = on";

const Libpq& pq() { return Libpq::loaded(); }

int millisecondsUntil(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
  return int(std::max<int64_t>(left.count(), 0));
}

}  // namespace

Interrupt::Interrupt() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Interrupt::~Interrupt() { close(descriptor_); }

void Interrupt::raise() const {
  const uint64_t one = 1;
  [[maybe_unused]] const auto written = write(descriptor_, &one, sizeof one);
}

bool Interrupt::waitFor(std::chrono::milliseconds time) const {
  pollfd wait{descriptor_, POLLIN, 0};
  return poll(&wait, 1, int(time.count())) > 0;
}

void PostgresConnection::Finish::operator()(pg_conn* connection) const { pq().finish(connection); }

void PostgresConnection::Clear::operator()(pg_result* result) const { pq().clear(result); }

// Without its message, which may show the whole URI with the password.
bool PostgresConnection::isUri(const std::string& uri) {
  char* message = nullptr;
  PQconninfoOption* const options = pq().conninfoParse(uri.c_str(), &message);
  pq().conninfoFree(options);
  pq().freemem(message);
  return options != nullptr;
}

PostgresConnection::PostgresConnection(const std::string& uri, const Interrupt& interrupt)
    : interrupt_(interrupt) {
  const std::array<const char*, 3> keys{"dbname", "fallback_application_name", nullptr};
  const std::array<const char*, 3> values{uri.c_str(), "qn-gateway", nullptr};
  connection_.reset(pq().connectStartParams(keys.data(), values.data(), 1));
  if (!connection_) throw PostgresError("out of memory");
  connect();
  pq().setnonblocking(connection_.get(), 1);
  pq().setNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);
  run(kSession);
}

void PostgresConnection::connect() {
  const auto deadline = steady_clock::now() + kConnectTime;
  if (pq().status(connection_.get()) == CONNECTION_BAD) fail();
  PostgresPollingStatusType next = PGRES_POLLING_WRITING;
  while (next != PGRES_POLLING_OK) {
    await(next == PGRES_POLLING_READING ? POLLIN : POLLOUT, deadline);
    next = pq().connectPoll(connection_.get());
    if (next == PGRES_POLLING_FAILED) fail();
  }
}

void PostgresConnection::await(short events, Deadline deadline) const {
  std::array<pollfd, 2> waits{
      {{pq().socket(connection_.get()), events, 0}, {interrupt_.descriptor(), POLLIN, 0}}};
  const int ready = poll(waits.data(), waits.size(), millisecondsUntil(deadline));
  if (waits[1].revents != 0) throw PostgresError("the gateway stops");
  if (ready == 0) throw PostgresError("it did not answer in time");
}

void PostgresConnection::flush(Deadline deadline) {
  for (;;) {
    const int left = pq().flush(connection_.get());
    if (left < 0) fail();
    if (left == 0) return;
    await(POLLIN | POLLOUT, deadline);
    // So that neither side waits for the other.
    if (pq().consumeInput(connection_.get()) == 0) fail();
  }
}

PostgresConnection::Result PostgresConnection::result(Deadline deadline) {
  while (pq().isBusy(connection_.get()) != 0) {
    await(POLLIN, deadline);
    if (pq().consumeInput(connection_.get()) == 0) fail();
  }
  return Result(pq().getResult(connection_.get()));
}

std::vector<std::string> PostgresConnection::finish(Deadline deadline) {
  std::vector<std::string> values;
  while (const Result each = result(deadline)) {
    const ExecStatusType status = pq().resultStatus(each.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
      const char* const state = pq().resultErrorField(each.get(), PG_DIAG_SQLSTATE);
      throw PostgresError(pq().resultErrorMessage(each.get()), state ? state : "");
    }
    for (int row = 0; row < pq().ntuples(each.get()); ++row) {
      values.emplace_back(pq().getvalue(each.get(), row, 0));
    }
  }
  return values;
}

std::vector<std::string> PostgresConnection::run(const char* sql,
                                                 const std::vector<std::string>& parameters) {
  const auto deadline = steady_clock::now() + kAnswerTime;
  std::vector<const char*> values;
  values.reserve(parameters.size());
  for (const std::string& each : parameters) values.push_back(each.c_str());
  const int sent = parameters.empty()
                       ? pq().sendQuery(connection_.get(), sql)
                       : pq().sendQueryParams(connection_.get(), sql, int(values.size()), nullptr,
                                              values.data(), nullptr, nullptr, 0);
  if (sent == 0) fail();
  flush(deadline);
  return finish(deadline);
}

void PostgresConnection::copy(const char* sql, std::string_view rows) {
  const auto deadline = steady_clock::now() + kAnswerTime;
  if (pq().sendQuery(connection_.get(), sql) == 0) fail();
  flush(deadline);
  const Result begin = result(deadline);
  if (pq().resultStatus(begin.get()) != PGRES_COPY_IN) fail();
  // Without blocking it takes everything; its room for that is bounded by the caller's batch.
  if (pq().putCopyData(connection_.get(), rows.data(), int(rows.size())) != 1 ||
      pq().putCopyEnd(connection_.get(), nullptr) != 1) {
    fail();
  }
  flush(deadline);
  finish(deadline);
}

void PostgresConnection::fail() const { throw PostgresError(pq().errorMessage(connection_.get())); }

}  // namespace qn
