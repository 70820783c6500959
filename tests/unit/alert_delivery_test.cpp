// From the alarm bus's callback through the delivery pool to the streams.
#include "platform/wlog.h"
#include "tests/unit/alert_fixture.h"

namespace QNKAVROProtocol {
namespace {

class AlertDelivery : public AlertTest {
 protected:
  int callback(std::string alarm) {
    return CEventPto::fAlarmDataCallBack(alarm.data(), static_cast<int>(alarm.size()), &pto_);
  }
};

TEST_F(AlertDelivery, AlarmsBecomeParts) {
  const auto stream = open();
  std::vector<std::string> sent;
  for (const auto& [head, alert, expected] : casesOf("alarm_parts.txt")) {
    const std::string alarm = R"({"EventNotificationAlert":)" + alert + "}";
    const int length = static_cast<int>(alarm.size());
    EXPECT_EQ(fake::alarmBus().raise(alarm), expected == "(refused)" ? -1 : length) << alert;
    if (expected[0] != '(') sent.push_back(part(expected));
    EXPECT_EQ(parts(stream), sent) << alert;
  }
}

TEST_F(AlertDelivery, WhatIsNoAlarmIsAFault) {
  open();
  for (const char* text :
       {"", "{", "7", "[]", "null", "{}", "<a/>", "{\"EventNotificationAlert\""}) {
    EXPECT_EQ(callback(text), -1) << text;
  }
  EXPECT_EQ(callback(std::string(5000, '[')), -1);
  std::string text = alarmOf("1");
  EXPECT_EQ(CEventPto::fAlarmDataCallBack(nullptr, 5, &pto_), -1);
  EXPECT_EQ(CEventPto::fAlarmDataCallBack(text.data(), 5, nullptr), -1);
  EXPECT_EQ(CEventPto::fAlarmDataCallBack(text.data(), -1, &pto_), -1);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[fAlarmDataCallBack("));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "param error"));
  EXPECT_EQ(fake::runtime().queuedJobs(), 0);
}

TEST_F(AlertDelivery, ABrokenLinkEndsItsStreamOnlyAndTheLastTheDevice) {
  const auto first = open();
  const auto second = open();
  busCalls();
  fake::http().breakLink(first.handle);
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_EQ(parts(second).size(), 1u);
  ASSERT_EQ(sessions().size(), 1u);
  EXPECT_EQ(sessions()[0]->getHandle(), second.handle);
  EXPECT_EQ(busCalls(), Calls{});
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[fAlarmProcessThread("));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[DevIndex=1]link broken response fail."));

  fake::http().forget(second.handle);
  fake::alarmBus().raise(alarmOf("1"));
  fake::runtime().runJobs();
  EXPECT_TRUE(sessions().empty());
  EXPECT_EQ(busCalls(), (Calls{"DeleteDevice 0 1"}));
}

TEST_F(AlertDelivery, AFullStreamStaysAndItsFailuresAreCountedUntilOneSucceeds) {
  const auto stream = open();
  const auto session = sessions().at(0);
  for (int i = 0; i < CAlertStreamSession::kMaxFailedSends; ++i) session->setSendFailedTimes(7);
  EXPECT_FALSE(session->isTimeOut());
  const uint32_t before = session->getLastAlarmTime();
  fake::http().setFull(stream.handle, true);
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_TRUE(parts(stream).empty());
  EXPECT_EQ(sessions().size(), 1u);
  EXPECT_TRUE(session->isTimeOut());
  EXPECT_EQ(session->getLastAlarmTime(), before);

  fake::http().setFull(stream.handle, false);
  fake::runtime().tickMs = 0x1'0000'0123;
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_EQ(parts(stream).size(), 1u);
  EXPECT_FALSE(session->isTimeOut());
  EXPECT_EQ(session->getLastAlarmTime(), 0x123u);
}

TEST_F(AlertDelivery, JobsUnderWayOutliveTheirSessionsPlaceInTheTable) {
  const auto stream = open();
  fake::alarmBus().raise(alarmOf("1"));
  pto_.deleSessionByID(0);
  EXPECT_EQ(parts(stream).size(), 1u);
}

TEST_F(AlertDelivery, RefusedJobsAreFreedAndLogged) {
  const auto stream = open();
  open();
  fake::runtime().refuseJobs = true;
  const std::string alarm = alarmOf("1", "QRCodeEvent");
  EXPECT_EQ(fake::alarmBus().raise(alarm), static_cast<int>(alarm.size()));
  for (const char* id : {"0", "1"}) {
    const auto line = std::string("[devIndex=1,sessionId=") + id +
                      ", alarm={\"devIndex\":\"1\",\"eventType\":\"QRCodeEvent\"}\n"
                      "]ZRT_ThreadPoolFlex_Work failed.";
    EXPECT_TRUE(fake::logged(WLOG_ERROR, line)) << id;
  }
  EXPECT_TRUE(parts(stream).empty());
}

TEST_F(AlertDelivery, WithoutMemoryNothingMoreIsQueued) {
  open();
  open();
  const fake::FailNothrowAllocations failure;
  EXPECT_EQ(callback(alarmOf("1")), -1);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[fAlarmDataCallBack("));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "new CAlarmParam failed."));
  EXPECT_EQ(fake::runtime().queuedJobs(), 0);
}

// Whichever allocation fails, nothing escapes and the next alarm comes through.
TEST_F(AlertDelivery, EveryFailedAllocationLosesAtMostTheAlarm) {
  const auto stream = open();
  std::string alarm = alarmOf("1", std::string(100, 'x'));
  forEachFailedAllocation([&](int n, const Failing& failing) {
    EXPECT_TRUE(failing([&] {
      CEventPto::fAlarmDataCallBack(alarm.data(), static_cast<int>(alarm.size()), &pto_);
      fake::runtime().runJobs();
    })) << n;
    const std::size_t before = parts(stream).size();
    EXPECT_EQ(callback(alarm), static_cast<int>(alarm.size()));
    EXPECT_EQ(parts(stream).size(), before + 1) << n;
  });
}

TEST_F(AlertDelivery, OddJobs) {
  const auto stream = open();
  const auto session = sessions().at(0);
  EXPECT_EQ(CEventPto::fAlarmProcessThread(nullptr), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "pCAlarmParam is NULL"));
  const auto run = [this](const CEventPto::Session& to, void* user, int type) {
    return CEventPto::fAlarmProcessThread(
        new CAlarmParam("text", to, user, static_cast<ENUM_ALARM_TYPE>(type)));
  };
  EXPECT_EQ(run(nullptr, &pto_, ALARM_XML), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "getAlertStreamSession failed"));
  EXPECT_EQ(run(session, &pto_, 2), 0);
  EXPECT_EQ(parts(stream), Calls{"text"});
  fake::http().breakLink(stream.handle);
  EXPECT_EQ(run(session, nullptr, ALARM_JSON), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "getUserPtr failed"));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[DevIndex=1]link broken response fail."));
  EXPECT_EQ(sessions().size(), 1u);
}

}  // namespace
}  // namespace QNKAVROProtocol
