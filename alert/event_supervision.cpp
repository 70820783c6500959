// See event_pto.h. Here: start and stop, heartbeats, and the removal of what has gone bad.
#include <new>

#include "alert/event_pto.h"
#include "platform/alarm_bus.h"
#include "protocol/log.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kSupervision = "checkAbnormalOnTimer";  // the operation that the log names

constexpr int kPoolThreads = 32;
constexpr int kPoolIdleMs = 30000;
constexpr int kPoolStackBytes = 0x40000;
constexpr int kHeartBeatPeriodMs = 1000;
constexpr int kSupervisePeriodMs = 10000;
constexpr uint32_t kSilenceMs = 4999;  // longer silence than this gets a heartbeat

void killTimer(std::atomic<int32_t>& timer) {
  const int32_t id = timer.exchange(-1);
  if (id != -1) ZRT_KillTimer(id);
}

}  // namespace

int CEventPto::start() {
  std::lock_guard guard(lifecycle_);
  if (pool_ != -1) return 0;
  pool_ =
      ZRT_ThreadPoolFlex_Create(kPoolThreads, kPoolIdleMs, fAlarmProcessThread, kPoolStackBytes);
  if (pool_ == -1) {
    QN_LOG(WLOG_ERROR, "fAlarmProcessThread create threadPoolFlex failed.");
    return 9;
  }
  int timer = -1;
  if (ZRT_SetTimer(sendHeartBeatOnTimer, this, kHeartBeatPeriodMs, timer, 0) == -1) {
    QN_LOG(WLOG_ERROR, "sendHeartBeatOnTimer zrt_settimer failed[%d]", ZRT_GetLastError());
    return 0;
  }
  heartBeatTimer_ = timer;
  if (ZRT_SetTimer(checkAbnormalOnTimer, this, kSupervisePeriodMs, timer, 0) == -1) {
    QN_LOG(WLOG_ERROR, "checkAbnormalOnTimer zrt_settimer failed[%d]", ZRT_GetLastError());
    return 0;
  }
  superviseTimer_ = timer;
  QN_DeviceMgr_NotifyAttach(devChangeCB, this);
  return 0;
}

int CEventPto::stop() {
  std::lock_guard guard(lifecycle_);
  const int64_t pool = pool_.exchange(-1);
  if (pool != -1) ZRT_ThreadPoolFlex_Destroy(pool);
  killTimer(heartBeatTimer_);
  killTimer(superviseTimer_);
  QN_DeviceMgr_NotifyDetach(devChangeCB);

  std::lock_guard subscription(subscription_);
  const int32_t id = subscribeId_;
  if (id == -1) return 0;
  std::string reply;
  if (QN_AlarmBus_UnSubscribe(reply, id, 1) != 0) {
    QN_LOG(WLOG_ERROR, "QN_AlarmBus_UnSubscribe failed");
  }
  subscribeId_ = -1;
  return 0;
}

int CEventPto::sendHeartBeatOnTimer(int timerId, void* user) {
  auto* const self = static_cast<CEventPto*>(user);
  if (!self || timerId != self->heartBeatTimer_) return 0;
  try {
    self->sendHeartBeats();
  } catch (const std::exception& error) {
    QN_LOG(WLOG_ERROR, "%s", error.what());
  }
  return 0;
}

// Only a successful push moves a session's last alarm time, so a stream whose pushes fail gets a
// heartbeat at every run. Nothing is queued before all are made: a stream that is pushed to right
// after it was looked at counts as silent for five seconds whenever the run then begins a little
// late, which moves it into the run of others. Each move is uneven by its place among those, and
// the runs grow longer with it.
void CEventPto::sendHeartBeats() {
  QNBase::CRWLock::ReadGuard guard(sessionLock_);
  for (auto& heartBeat : makeHeartBeats()) queueJob(heartBeat.release());
}

// In ascending order of the sessions' ids.
std::vector<std::unique_ptr<CAlarmParam>> CEventPto::makeHeartBeats() {
  const auto silent = silentStreams();
  std::vector<std::unique_ptr<CAlarmParam>> made;
  made.reserve(silent.size());
  for (const Session* session : silent) {
    std::string text;
    (*session)->getHeartBeat(text);
    made.emplace_back(new (std::nothrow) CAlarmParam(text, *session, this, ALARM_XML));
    if (made.back()) continue;
    QN_LOG_IN("sendHeartBeatOnTimer", WLOG_ERROR, "new CAlarmParam failed.");
    made.pop_back();
    break;
  }
  return made;
}

// Good while sessionLock_ is held.
std::vector<const CEventPto::Session*> CEventPto::silentStreams() const {
  std::vector<const Session*> silent;
  for (const auto& [id, session] : sessions_.byId()) {
    const auto now = static_cast<uint32_t>(ZRT_GetTimeTick());
    if (now - session->getLastAlarmTime() > kSilenceMs) silent.push_back(&session);
  }
  return silent;
}

int CEventPto::checkAbnormalOnTimer(int timerId, void* user) {
  auto* const self = static_cast<CEventPto*>(user);
  if (!self || timerId != self->superviseTimer_) return 0;
  try {
    self->superviseStreams();
  } catch (const std::exception& error) {
    QN_LOG(WLOG_ERROR, "%s", error.what());
  }
  return 0;
}

void CEventPto::superviseStreams() {
  std::lock_guard guard(subscription_);
  const int32_t id = subscribeId_;
  if (id != -1 && QN_AlarmBus_CheckIDValid(id) == 0) {
    dropLostSubscription(id);
    return;
  }
  for (const auto& devIndex : removeTimedOut()) {
    if (hasStream(devIndex)) continue;
    std::string reply;
    QN_AlarmBus_DeleteDevice(reply, subscribeId_, devIndex);
  }
  unsubscribeWhenEmpty();
}

void CEventPto::dropLostSubscription(int subscribeId) {
  std::string reply;
  // The message belongs to the zero result here.
  if (QN_AlarmBus_UnSubscribe(reply, subscribeId, 1) == 0) {
    QN_LOG_IN(kSupervision, WLOG_ERROR, "[%d]QN_AlarmBus_UnSubscribe failed.", subscribeId);
  }
  subscribeId_ = -1;
  QNBase::CRWLock::WriteGuard guard(sessionLock_);
  sessions_.clear();
}

// The device indexes of the sessions removed, one for each.
std::vector<std::string> CEventPto::removeTimedOut() {
  std::vector<std::string> devices;
  QNBase::CRWLock::WriteGuard guard(sessionLock_);
  sessions_.eraseIf([&](const CAlertStreamSession& session) {
    const bool goes = session.isTimeOut();
    if (goes) devices.push_back(session.getDeviceIndex());
    return goes;
  });
  return devices;
}

void CEventPto::unsubscribeWhenEmpty() {
  {
    QNBase::CRWLock::ReadGuard guard(sessionLock_);
    if (!sessions_.empty()) return;
  }
  const int32_t id = subscribeId_;
  if (id == -1) return;
  std::string reply;
  if (QN_AlarmBus_UnSubscribe(reply, id, 1) == 0) {
    QN_LOG_IN(kSupervision, WLOG_ERROR, "[%d]QN_AlarmBus_UnSubscribe failed.", id);
  }
  subscribeId_ = -1;
}

void CEventPto::devChangeCB(tagNotifyType type, void* devIndex, const void* user) {
  if (!devIndex || !user || type != DEVICE_REMOVED) return;
  auto* const self = const_cast<CEventPto*>(static_cast<const CEventPto*>(user));
  try {
    std::lock_guard guard(self->subscription_);
    std::vector<Session> gone;
    self->getSessionByDev(gone, static_cast<const char*>(devIndex));
    for (const auto& session : gone) self->deleSessionByID(session->getSessionID());
  } catch (const std::exception& error) {
    QN_LOG(WLOG_ERROR, "%s", error.what());
  }
}

}  // namespace QNKAVROProtocol
