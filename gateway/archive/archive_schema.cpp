// See archive_schema.h.
#include "gateway/archive/archive_schema.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <string>

namespace qn {
namespace {

constexpr char kLock[] = "SELECT pg_advisory_xact_lock(4702111234474983745)";
constexpr int64_t kDaySeconds = 24 * 3600;

// Each brings the tables from the version of its index to the next one. Never changed once
// released: a change is a further one.
constexpr const char* kMigrations[] = {
    // The time is part of the key, because the key of a partitioned table has what parts it.
    "CREATE TABLE operation_log_row("
    "time timestamptz NOT NULL, instance text NOT NULL, sequence bigint NOT NULL, "
    "gateway text NOT NULL, iso_time text NOT NULL, user_name text NOT NULL, "
    "client_ip text NOT NULL, operation text NOT NULL, category text NOT NULL, "
    "result text NOT NULL, status integer, "
    "PRIMARY KEY (instance, sequence, time)) PARTITION BY RANGE (time);"
    "CREATE INDEX ON operation_log_row(time);"
    "CREATE VIEW operation_log AS SELECT time, iso_time, gateway, user_name AS \"user\", "
    "client_ip, operation, category, result, status, instance, sequence FROM operation_log_row",
};
constexpr int kVersion = int(std::size(kMigrations));

std::string dayText(int64_t day, const char* format) {
  const std::time_t time = day * kDaySeconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  return fmt::format(fmt::runtime(format), parts);
}

int versionOf(PostgresConnection& connection) {
  connection.run("CREATE TABLE IF NOT EXISTS operation_log_schema(version integer NOT NULL)");
  const auto versions =
      connection.run("SELECT coalesce(max(version), 0) FROM operation_log_schema");
  return versions.empty() ? 0 : std::stoi(versions[0]);
}

}  // namespace

void makeArchiveSchema(PostgresConnection& connection) {
  connection.run("BEGIN");
  connection.run(kLock);
  const int version = versionOf(connection);
  if (version > kVersion) {
    throw PostgresError(
        fmt::format("its tables are of version {}, this gateway knows {}: upgrade "
                    "the gateway",
                    version, kVersion));
  }
  for (int each = version; each < kVersion; ++each) {
    connection.run(kMigrations[each]);
    connection.run("INSERT INTO operation_log_schema VALUES($1)", {std::to_string(each + 1)});
  }
  connection.run("COMMIT");
}

// Attaching a table that was made by itself, unlike making a partition, waits for no reader.
void makeArchivePartitions(PostgresConnection& connection, const std::set<int64_t>& days) {
  connection.run("BEGIN");
  connection.run(kLock);
  for (const int64_t day : days) {
    const std::string name = "operation_log_" + dayText(day, "{:%Y%m%d}");
    if (connection.run("SELECT 1 WHERE to_regclass($1) IS NOT NULL", {name}).size() == 1) continue;
    connection.run(fmt::format("CREATE TABLE {0}(LIKE operation_log_row INCLUDING ALL); "
                               "ALTER TABLE operation_log_row ATTACH PARTITION {0} FOR VALUES "
                               "FROM ('{1} 00:00:00+00') TO ('{2} 00:00:00+00')",
                               name, dayText(day, "{:%Y-%m-%d}"), dayText(day + 1, "{:%Y-%m-%d}"))
                       .c_str());
  }
  connection.run("COMMIT");
}

void dropOldPartitions(PostgresConnection& connection, std::size_t days) {
  connection.run("BEGIN");
  connection.run(kLock);
  const auto old = connection.run(
      "SELECT relname FROM pg_inherits JOIN pg_class ON pg_class.oid = inhrelid "
      "WHERE inhparent = 'operation_log_row'::regclass AND relname ~ '^operation_log_[0-9]{8}$' "
      "AND to_date(right(relname, 8), 'YYYYMMDD') < (now() AT TIME ZONE 'UTC')::date - $1::int",
      {std::to_string(days)});
  for (const std::string& name : old) connection.run(("DROP TABLE " + name).c_str());
  connection.run("COMMIT");
}

}  // namespace qn
