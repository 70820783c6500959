// What is counted, by the room that counts it. Each room owns its counts; gateway/admin reads them.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "gateway/metrics/counter.h"

namespace qn {

// What a request is for, by the beginning of its URL.
enum class ResourceFamily { System, Streaming, Ptz, Record, Event, Picture, Other };
inline constexpr std::array<const char*, 7> kFamilyNames{"system", "streaming", "ptz",  "record",
                                                         "event",  "picture",   "other"};
inline constexpr std::size_t kResourceFamilies = kFamilyNames.size();

// How a request was answered: the status's hundreds, and 5xx for all that is none of these.
enum class StatusClass { Success, ClientError, ServerError };
inline constexpr std::size_t kStatusClasses = 3;

// Methods that are counted apart; their numbers are those of platform/http_service.h.
inline constexpr std::size_t kCountedMethods = 5;  // GET, PUT, POST, DELETE, all others

constexpr ResourceFamily familyOf(std::string_view url) {
  constexpr std::string_view kRoot = "/KAVRO/";
  constexpr std::string_view kPictures = "/NovGatewayStorage/";
  if (!url.starts_with(kRoot)) {
    return url.starts_with(kPictures) ? ResourceFamily::Picture : ResourceFamily::Other;
  }
  url.remove_prefix(kRoot.size());
  if (url.starts_with("System/")) return ResourceFamily::System;
  if (url.starts_with("Streaming/")) return ResourceFamily::Streaming;
  if (url.starts_with("PTZCtrl/")) return ResourceFamily::Ptz;
  if (url.starts_with("ContentMgmt/")) return ResourceFamily::Record;
  if (url.starts_with("Event/")) return ResourceFamily::Event;
  return ResourceFamily::Other;
}

constexpr StatusClass classOf(int status) {
  if (status >= 200 && status < 400) return StatusClass::Success;
  return status >= 400 && status < 500 ? StatusClass::ClientError : StatusClass::ServerError;
}

// Microseconds.
inline constexpr std::array<uint64_t, 10> kGatewayTimes{50,    100,   200,    500,     1'000,
                                                        2'000, 5'000, 20'000, 100'000, 1'000'000};
inline constexpr std::array<uint64_t, 12> kDeviceTimes{
    1'000,   2'500,   5'000,     10'000,    25'000,     50'000,
    100'000, 250'000, 1'000'000, 2'500'000, 10'000'000, 60'000'000};

// Of the HTTP service.
struct HttpCounts {
  using OfMethod = std::array<Counter, kStatusClasses>;
  using OfFamily = std::array<OfMethod, kCountedMethods>;

  std::array<OfFamily, kResourceFamilies> answered;
  Counter abandoned;  // the client went before its answer
  // The gateway's own part of an answered request's time, without the waiting for a device.
  Histogram<kGatewayTimes> ownTime;
  std::array<Counter, 16> refused;  // by OwnAnswer: what never became a request
  Counter received;                 // bytes
  Counter sent;
  Counter accepted;  // connections
  Counter turnedAway;
  Counter handshakesFull;  // of TLS
  Counter handshakesResumed;
  Counter handshakesFailed;  // or not finished in time, or closed for others
  Counter streamsOpened;
  Counter streamsClosed;
  Counter partsSent;
  Counter partsDropped;

  void countAnswer(std::string_view url, int method, int status, std::chrono::nanoseconds own) {
    const auto column = std::min(static_cast<std::size_t>(method), kCountedMethods - 1);
    answered[static_cast<std::size_t>(familyOf(url))][column]
            [static_cast<std::size_t>(classOf(status))]
                .add();
    ownTime.add(own);
  }
};

// Of a login.
struct LoginCounts {
  Counter admitted;
  Counter withoutCredentials;  // or with such as are no guess
  Counter stale;
  Counter wrong;
  Counter whileLocked;  // right or not
  Counter notAllowed;   // right, but not for this device
  Counter locks;        // addresses that became locked
};

// Alarms between gateways.
struct SharedFeedCounts {
  Counter published;    // given to the engine for clients of others
  Counter unpublished;  // of these that it did not take, and what was dropped before
  Counter refused;      // by the engine: another gateway has the feed by now
  Counter received;     // of other gateways, as they came
  Counter filled;       // the same, found in the engine's stream after a gap
  Counter missed;       // gone before they were read
};

// Why a nonce of another gateway could not be taken over; its client gets a new one.
enum class NonceLoss { NoEngine, NoHolder, NotGiven, NoAnswer };
inline constexpr std::array<const char*, 4> kNonceLossNames{"no_engine", "no_holder", "not_given",
                                                            "no_answer"};

// Logins between gateways.
struct SharedLoginCounts {
  Counter failures;     // that were told to others
  Counter noncesTaken;  // from other gateways
  Counter noncesGiven;
  std::array<Counter, kNonceLossNames.size()> noncesLost;  // by NonceLoss
};

// What goes through the engine that several gateways share; each is its owner's.
struct ClusterCounts {
  const Counter& droppedCommands;
  const SharedFeedCounts& feeds;
  const SharedLoginCounts& logins;
};

// Of the device-configuration bus.
struct BusCounts {
  Histogram<kDeviceTimes> deviceTime;  // from the bus's yes to the answer, in the queue too
  Counter refusedFull;                 // by the device's or the bus's bounds
  Counter refusedReplies;              // long ones for which there was no memory in time
  Counter refusedOther;                // unknown device, wrong argument, stopping
};

// What ended a request without a device's reply.
enum class DeviceFailure : uint32_t { None, TimedOut, Unreachable, UnusableReply, LoginRefused };

// Of one device, from both buses.
struct DeviceCounts {
  std::atomic<std::size_t> inFlight{0};
  Counter answered;
  Counter nanoseconds;  // that answered and failed requests took, queue included
  Counter timedOut;
  Counter unreachable;
  Counter unusable;    // replies, connections that broke, refused credentials
  Counter turnedAway;  // requests for which there was no room
  Counter alarms;
  std::atomic<bool> feedWanted{false};  // somebody has subscribed to its alarms
  std::atomic<bool> alarmsFlow{false};  // its alert stream is open
  std::atomic<DeviceFailure> lastFailure{DeviceFailure::None};
  std::atomic<int64_t> lastFailureAt{0};  // seconds since the epoch

  void count(DeviceFailure failure, std::chrono::nanoseconds time) {
    nanoseconds.add(static_cast<uint64_t>(time.count()));
    if (failure == DeviceFailure::None) return answered.add();
    (failure == DeviceFailure::TimedOut      ? timedOut
     : failure == DeviceFailure::Unreachable ? unreachable
                                             : unusable)
        .add();
    lastFailure = failure;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    lastFailureAt = std::chrono::duration_cast<std::chrono::seconds>(now).count();
  }
};

}  // namespace qn
