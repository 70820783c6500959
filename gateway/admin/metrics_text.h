// The gateway's metrics in Prometheus' text format. Asked by the admin listener; docs/monitoring.md
// says what each means.
#pragma once

#include <string>

#include "gateway/admin/observed.h"

namespace qn {

inline constexpr char kMetricsType[] = "text/plain; version=0.0.4; charset=utf-8";

// So many series at most, whatever clients do; tested with all of them.
inline constexpr std::size_t kSeries = 230;
inline constexpr std::size_t kSeriesOfDevice = 12;

// On a worker: its time grows with the number of devices.
std::string metricsText(const Observed& observed);

}  // namespace qn
