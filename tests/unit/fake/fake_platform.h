// The gateway's libraries under a test's control, behind the same platform/*.h headers: nothing
// happens by itself, time moves when told. Every test begins with reset(). XML documents, URLs,
// the status table, text helpers and UUIDs are the real ones.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/alarm_bus.h"
#include "platform/config_mgr.h"
#include "platform/device_cfg_bus.h"
#include "platform/device_mgr.h"
#include "platform/gateway_cfg_bus.h"
#include "platform/http_service.h"
#include "platform/kavro_mgr_bus.h"

namespace fake {

// Everything to its state at program start: device "1" exists, every login succeeds for it, every
// bus accepts. Requests that the device bus still holds are answered first, as its stop would.
void reset();
// Its parts.
void resetHttp();
void resetBuses();
void resetGateway();
void resetRuntime();

// From now on the fakes record and copy next to nothing, so that what is measured is the module:
// no log, no answer headers, of requests to devices only the last, one snapshot of each
// configuration.
void beQuiet();
bool isQuiet();

// --- HTTP service -------------------------------------------------------------------------------

using Headers = std::map<std::string, std::string>;

struct Request {
  unsigned int method = QNHttpService::HTTP_GET;
  std::string url;
  std::string body = {};
  Headers headers = {{"Host", "gateway:8080"}, {"X-Forwarded-For", "192.0.2.7"}};
};

struct Answer {
  int count = 0;  // calls of response() that sent something; for a stream, 1 is the head
  int status = 0;
  bool stream = false;
  Headers headers;
  std::string body;                // of a plain answer
  std::vector<std::string> parts;  // of a stream
};

class Http {
 public:
  // A live exchange with its request record; the record refers to the service's copy of the body.
  QNHttpService::stHttpRes open(Request request);
  // What was answered on an exchange; empty for an unknown handle.
  Answer answer(int handle) const;
  // The client goes away: the exchange stays known, but sends nothing any more.
  void breakLink(int handle);
  // The service forgets the exchange: the handle is dead.
  void forget(int handle);
  // A stream that accepts no part (0 bytes) while set.
  void setFull(int handle, bool full);
};
Http& http();

// --- Device-configuration bus -------------------------------------------------------------------

struct BusRequest {
  unsigned char method = 0;
  std::string url;
  std::string body;
  int timeoutMs = 0;
  DeviceCfgCallBack callback = nullptr;  // null: a synchronous request
  void* userData = nullptr;
};

struct DeviceBus {
  // What ProcessAsyn and ProcessSyn return; non-zero: refused.
  int refusal = DEVCFGBUS_OK;
  // Set: ProcessAsyn runs the callback with this text before it returns.
  std::optional<std::string> replyInside;
  // The replies of ProcessSyn by URL; -1 for another URL.
  std::map<std::string, std::string> syncReplies;

  std::vector<BusRequest> seen;     // all accepted requests
  std::vector<BusRequest> pending;  // those not answered, oldest first

  // Answers the oldest pending request; returns the callback's result.
  int reply(std::string_view text);
};
DeviceBus& deviceBus();

// --- Login --------------------------------------------------------------------------------------

struct Login {
  int verdict = DIGEST_OK;
  tagDIGEST_RESULT result{};  // what the check fills in; devIndex "1"

  int checks = 0;
  std::string method;  // of the last check
  tagDIGEST_REQUEST request{};
  int mode = 0;

  void setChallenge(const char* text);
  void setDevIndex(const char* text);
};
Login& login();

// --- Configuration, devices, operation log ------------------------------------------------------

struct Config {
  bool present = true;  // false: the getters return null
  bool activated = true;
  std::string realm = "KAVRO";
  int httpPort = 8080;
  int httpsPort = 443;
  int rtspPort = 554;
  bool httpsEnabled = false;
  bool portMapping = false;
  int extHttpPort = 0;
  int extHttpsPort = 0;
  int extRtspPort = 0;
  int mode = KAVRO_MODE_ONE_PORT;

  int addressResult = 0;  // what getIPv4ByProtocol returns
  std::string address = "192.0.2.1";
  int picturePort = 0;  // never another process's, as the real check sees it
  // The outcome of each upload in turn: its storage error; nothing: stored, as are those beyond the
  // list's end, under "http://pictures/" and the upload's number, from 1.
  std::vector<std::optional<int>> uploadFaults;
  std::vector<std::string> uploads;

  std::set<std::string> devices = {"1"};
  std::vector<CKAVROPort> ports;
};
Config& config();

// Tells the attached routines of a change, as the device manager would.
void announceDevice(tagNotifyType type, std::string devIndex);
int attachedRoutines();

// What the operation log was given.
std::vector<tagLogInfo>& operationLog();

// --- Log ----------------------------------------------------------------------------------------

struct LogLine {
  int level;
  std::string text;
};
// Lines since reset().
std::vector<LogLine> logLines();
// True when a line of this level has the text in it.
bool logged(int level, std::string_view text);
// True when the function has written a line of this level with the text as its message.
bool loggedIn(std::string_view function, int level, std::string_view text);

// --- Time, timers, pool -------------------------------------------------------------------------

struct Runtime {
  uint64_t nowUs = 1'767'225'600'000'000;  // 2026-01-01T00:00:00Z
  uint64_t tickMs = 1000;
  bool refuseTimers = false;
  bool refusePools = false;
  bool refuseJobs = false;

  // Moves both clocks, running the timers that become due, each at its own time.
  void advance(uint64_t milliseconds);
  // Runs the jobs queued so far and those that they queue, oldest first; returns their number.
  int runJobs();
  int queuedJobs() const;
  int timers() const;
};
Runtime& runtime();

// --- Alarm bus ----------------------------------------------------------------------------------

struct AlarmBus {
  int refusal = 0;  // what Subscribe and AddDevice return
  bool valid = true;
  int unsubscribeResult = 0;  // non-zero: UnSubscribe fails and the subscription stays

  struct Subscription {
    std::string request;
    AlarmDataCallBack callback = nullptr;
    void* user = nullptr;
    bool started = false;
    std::map<std::string, std::string> added;  // devIndex -> request
  };
  std::map<int, Subscription> subscriptions;
  int lastId = -1;
  std::vector<std::string> calls;  // accepted or not, as "AddDevice 0 2 {request}"; checks excepted

  // Delivers an alarm to every started subscription; returns the last callback's result.
  int raise(std::string_view json);
};
AlarmBus& alarmBus();

// --- Memory -------------------------------------------------------------------------------------

// While it lives, the n-th (from 0) allocation through operator new on this thread fails. Nothing
// fails inside the fakes' own logs.
class FailAllocation {
 public:
  explicit FailAllocation(int n);
  ~FailAllocation();
  bool happened() const;
};
// While it lives, allocations with std::nothrow give null.
class FailNothrowAllocations {
 public:
  FailNothrowAllocations();
  ~FailNothrowAllocations();
};
// While it lives, allocations on this thread succeed: for what a test's own bookkeeping needs.
class AllocationShelter {
 public:
  AllocationShelter();
  ~AllocationShelter();

 private:
  int saved_;
};

}  // namespace fake
