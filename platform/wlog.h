// The gateway's logger. The reference implementation is gateway/log.
#pragma once

// Levels.
enum WlogLevel : int {
  WLOG_DUMP = 2,   // data dumps
  WLOG_INFO = 3,   // traces and information
  WLOG_WARN = 4,   // tolerated anomalies
  WLOG_ERROR = 5,  // errors
};

// Writes one line under a module tag, printf-style. The level is tested before anything is
// formatted; control characters are escaped and lines cut at 8 KiB. Any thread; does not block on
// the reader of the log longer than the write takes. Never pass passwords, Authorization values or
// pictures.
void wlog_format(int level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
