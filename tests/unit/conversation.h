// One request through the module's entry on the fake platform.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>

#include "include/QNKAVROProtocol.h"
#include "tests/unit/fake/fake_platform.h"

// Every test starts and ends with the platform as new.
class PlatformTest : public testing::Test {
 protected:
  PlatformTest() { fake::reset(); }
  ~PlatformTest() override { fake::reset(); }
};

struct Outcome {
  int status = 0;
  int bodyIsXml = -1;
  int asyncReply = 0;
  std::string body;
  int handle = -1;

  // What a handler makes of a request, as far as it comes when it throws.
  template <typename Handler>
  void take(const QNHttpService::stHttpRes& request, const Handler& handler) {
    handle = request.exchange ? request.exchange->getHttpHandle() : -1;
    status = handler(bodyIsXml, body, asyncReply, request);
  }
  // What was sent through the exchange itself.
  fake::Answer answer() const { return fake::http().answer(handle); }
};

inline Outcome process(fake::Request request) {
  Outcome outcome;
  outcome.take(fake::http().open(std::move(request)), QN_Protocol_HTTPProcess);
  return outcome;
}

// The same by a handler of the test's own, for a device.
template <typename Handler>
Outcome processBy(Handler& handler, const QNHttpService::stHttpRes& request,
                  const std::string& devIndex = "1") {
  Outcome outcome;
  outcome.take(request, [&](auto&... all) { return handler.procProtocol(all..., devIndex); });
  return outcome;
}

// Runs an action with one of its allocations failing; false when std::bad_alloc came out of it.
using Failing = std::function<bool(const std::function<void()>& action)>;

// Calls step(n, failing) for n = 0, 1, ..., where the n-th allocation fails, until none is left to
// fail; returns how often.
inline int forEachFailedAllocation(const std::function<void(int n, const Failing& failing)>& step) {
  int n = 0;
  for (bool failed = true; failed; ++n) {
    step(n, [&](const std::function<void()>& action) {
      const fake::FailAllocation failure(n);
      bool returned = true;
      try {
        action();
      } catch (const std::bad_alloc&) {
        returned = false;
      }
      failed = failure.happened();
      return returned;
    });
  }
  return n;
}

inline Outcome get(std::string url) { return process({QNHttpService::HTTP_GET, std::move(url)}); }

// A claimed request whose device replies with `reply`.
inline fake::Answer converse(std::string url, std::string_view reply) {
  const Outcome outcome = get(std::move(url));
  EXPECT_EQ(outcome.asyncReply, 1);
  EXPECT_EQ(fake::deviceBus().reply(reply), 0);
  return outcome.answer();
}
