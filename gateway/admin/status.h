// What the operator's page shows, as JSON: devices, streams, logins and locks, alarms, rates.
// Asked by the admin listener.
#pragma once

#include <string>
#include <string_view>

#include "gateway/admin/observed.h"

namespace qn {

// At most so many entries of each list are told; the sums count all.
inline constexpr std::size_t kListedDevices = 200;
inline constexpr std::size_t kListedStreams = 100;
inline constexpr std::size_t kListedLocks = 100;

// Of the devices those that need attention come first, and only those whose index or host contains
// `search`. On a worker.
std::string statusJson(const Observed& observed, std::string_view search);

}  // namespace qn
