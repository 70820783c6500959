// The module's log line: its tag, then function and line, then the message.
#pragma once

#include "platform/wlog.h"

// `function` names the operation that readers of the log know when the line stands in a part of it.
#define QN_LOG_IN(function, level, format, ...) \
  wlog_format(level, "QNW", "[%s(%d)] " format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define QN_LOG(level, format, ...) QN_LOG_IN(__func__, level, format __VA_OPT__(, ) __VA_ARGS__)
