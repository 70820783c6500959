// CEventPto, the alert-stream handler: the one long-lived handler of the module. Clients open
// streams through it (event_pto.cpp), the alarm bus and the delivery pool push alarms down them
// (event_delivery.cpp), two timers and the device manager supervise them (event_supervision.cpp).
#pragma once

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "alert/alarm_param.h"
#include "alert/session_table.h"
#include "alert/singleton.h"
#include "document/table.h"
#include "json/value.h"
#include "platform/device_mgr.h"
#include "platform/rw_lock.h"
#include "platform/xml_base.h"
#include "platform/zrt.h"
#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {

// The alarm document's table, for the reference.
extern const table::Row kAlarm;

class CEventPto final : public CProtocolBase, public CSingleton<CEventPto> {
 public:
  using Session = SessionTable::Session;

  static constexpr std::size_t kMaxStreamsPerDevice = 2;

  CEventPto() = default;
  ~CEventPto() = default;

  // Starting twice, stopping without a start and starting again are harmless.
  int start();  // 0, or 9 without a delivery pool
  int stop();   // 0; the session table stays

  int checkUrlAndMethod(const std::string& url, unsigned int method) override;
  int procProtocol(int& bodyIsXml, std::string& body, int& asyncReply, const stHttpRes& request,
                   const std::string& devIndex) override;
  int procAlertStream(std::string& body, int& asyncReply, const stHttpRes& request,
                      const std::string& devIndex);

  std::string getSubscribeReq(const std::string& devIndex);
  std::string getSubscribeDeviceReq(const std::string& devIndex);
  int getSessionByDev(std::vector<Session>& out, const std::string& devIndex);  // ascending ids
  int deleSessionByID(int id);

  // The alarm bus's callback: length when the alarm was consumed, -1 on a fault.
  static int fAlarmDataCallBack(void* data, int length, void* user);
  // The delivery pool's routine; frees the job.
  static int fAlarmProcessThread(void* job);
  // Whether clients get the alarm as XML; otherwise as the JSON that the device sent.
  static bool needConvertToXml(const qn::json::Value& alarm);

  // Writes the XML form of an alarm under the root that `xml` has entered; 1, or 0 when the alarm
  // does not fit its tables.
  static int convertAlarmData(const qn::json::Value& alarm, QNBase::CXmlBase& xml);
  static int convertCommonAlarmData(const qn::json::Value& alarm, QNBase::CXmlBase& xml);
  static int convertDetectionRegionListAlarmData(const qn::json::Value& alarm,
                                                 QNBase::CXmlBase& xml);
  static int convertAudioExceptionDetectionAlarmData(const qn::json::Value& alarm,
                                                     QNBase::CXmlBase& xml);
  // The same as a document of its own; false, with `xml` as it was, when the alarm does not fit.
  static bool alarmDocument(std::string& xml, const qn::json::Value& alarm);

  static int sendHeartBeatOnTimer(int timerId, void* user);
  static int checkAbnormalOnTimer(int timerId, void* user);
  static void devChangeCB(tagNotifyType type, void* devIndex, const void* user);

 private:
  enum class Admission { Admitted, BusRefused, TooMany };

  int nextSessionId();
  int openStream(std::string& body, int& asyncReply, const stHttpRes& request,
                 const std::string& devIndex, SessionTable& session);
  bool subscribeFirst(int& asyncReply, const stHttpRes& request, const std::string& devIndex);
  Admission admit(const std::string& devIndex);
  void answerStream(int& asyncReply, const stHttpRes& request);
  bool hasStream(const std::string& devIndex);

  int consumeAlarm(const qn::json::Value& alarm);
  int queueAlarm(const std::string& text, ENUM_ALARM_TYPE type, const std::string& devIndex);
  bool queueJob(CAlarmParam* job);
  static void push(const AlarmPart& part, CAlertStreamSession& session, void* user);
  void dropBrokenStream(const CAlertStreamSession& session);

  void sendHeartBeats();
  std::vector<std::unique_ptr<CAlarmParam>> makeHeartBeats();
  std::vector<const Session*> silentStreams() const;
  void superviseStreams();
  void dropLostSubscription(int subscribeId);
  std::vector<std::string> removeTimedOut();
  void unsubscribeWhenEmpty();

  std::atomic<int32_t> subscribeId_{-1};
  ZRT_Mutex sessionMutex_;
  int32_t sessionIdCounter_ = -1;  // guarded by sessionMutex_
  QNBase::CRWLock sessionLock_;
  SessionTable sessions_;  // guarded by sessionLock_
  std::atomic<int64_t> pool_{-1};
  std::atomic<int32_t> heartBeatTimer_{-1};
  std::atomic<int32_t> superviseTimer_{-1};

  // Serialises what decides about the subscription, so that two first streams do not subscribe
  // twice and a stream that ends does not take away the device of one that begins. Never taken with
  // sessionLock_ held, nor by the alarm callback.
  std::mutex subscription_;
  std::mutex lifecycle_;  // start and stop
};

}  // namespace QNKAVROProtocol
