// The gateway-configuration bus: the operation log. Called by the request frame; the reference
// implementation is gateway/oplog.
#pragma once

#include <cstdint>
#include <string>

struct tagLogInfo {
  uint64_t time = 0;  // seconds since the epoch
  std::string user;
  std::string clientIp;
  std::string operation;
  std::string isoTime;
  std::string category;
  std::string result;
};

// Queues the record for the log database and returns at once; any thread. 0, or -1 when the bounded
// queue is full or the log is stopped (the record is lost then, and counted in the log).
int QN_GatewayCfgBus_InsertLogInfo(const tagLogInfo& info);
