// Bounds of the HTTP service that no operator needs to change; tests shorten them.
#pragma once

#include <chrono>
#include <cstddef>

#include "platform/slow_resources.h"

namespace qn {

struct HttpBounds {
  std::chrono::milliseconds answer = kAnswerTimeout;
  std::chrono::milliseconds stalled{60'000};   // a peer that takes nothing of what is written
  std::size_t slowestRate = 8 * 1024;          // bytes a second that it must take beyond that
  std::chrono::milliseconds silent{30'000};    // a stream without a successful write
  std::chrono::milliseconds linger{2'000};     // for the client to read the last answer
  std::chrono::milliseconds acceptPause{100};  // after accept failed for want of resources
  std::chrono::milliseconds reopen{3'000};     // between attempts to open a port that was taken
  // From then on an idle connection may be closed for a new one, when all places are taken.
  std::chrono::milliseconds takenBack{1'000};
  // Of all connections together. Apart from each other, because anybody can send bodies.
  std::size_t bodyMemory = 256 * 1024 * 1024;        // bodies not complete or waiting for a worker
  std::size_t bodyMemoryOfOne = bodyMemory / 4;      // of one user
  std::size_t answerMemory = 256 * 1024 * 1024;      // what clients have not taken of their answers
  std::size_t answerMemoryOfOne = answerMemory / 8;  // of one user, or of one network of strangers
  // Bodies of strangers: so many of the largest size in all, and one for each network.
  std::size_t strangersBodies = 4;
};

}  // namespace qn
