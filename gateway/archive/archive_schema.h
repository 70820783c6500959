// The operation log's tables in PostgreSQL, made and kept by the gateways themselves: all of them
// agree by an advisory lock of the database. Used by postgres_archive.cpp.
#pragma once

#include <cstdint>
#include <set>

#include "gateway/archive/postgres_connection.h"

namespace qn {

// Makes the tables, or brings those of a former version up. Throws PostgresError, also for tables
// of a version that is not known yet.
void makeArchiveSchema(PostgresConnection& connection);

// Makes the partitions of the days (since the epoch, UTC) that are not there yet.
void makeArchivePartitions(PostgresConnection& connection, const std::set<int64_t>& days);

// Drops the partitions of the days before the last `days` whole ones, by the database's clock.
void dropOldPartitions(PostgresConnection& connection, std::size_t days);

}  // namespace qn
