// Start and stop, heartbeats and supervision under a stepped clock.
#include "platform/wlog.h"
#include "tests/unit/alert_fixture.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kUnsubscribeLine = "[0]QN_AlarmBus_UnSubscribe failed.";

class Supervision : public AlertTest {
 protected:
  // Seconds until the stream has got this many parts; -1 when it does not within a minute.
  static int secondsUntil(const Outcome& stream, std::size_t count) {
    for (int seconds = 1; seconds <= 60; ++seconds) {
      fake::runtime().advance(1000);
      if (parts(stream).size() >= count) return seconds;
    }
    return -1;
  }
  static void fail(const CEventPto::Session& session, int times) {
    for (int i = 0; i < times; ++i) session->setSendFailedTimes(1);
  }
  // To the end of the supervision run that comes next, without running jobs.
  static void supervise() { fake::runtime().advance(10000); }
};

TEST_F(Supervision, HeartBeatDocument) {
  fake::runtime().nowUs = 0;
  const auto stream = open();
  secondsUntil(stream, 3);
  const auto sent = parts(stream);
  ASSERT_GE(sent.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    const auto time = inside("dataTime", sent[i]);
    EXPECT_GE(time.size(), 19u) << time;
    EXPECT_EQ(sent[i], part("xml <dataTime>" + time + "</dataTime><activePostCount>" +
                            std::to_string(i + 1) +
                            "</activePostCount><eventType>heartBeat</eventType>"
                            "<eventState>active</eventState>"
                            "<eventDescription>Heart Beat</eventDescription>"));
  }
}

// The time of day's low bits against ticks: a seed that lies ahead counts as long past.
TEST_F(Supervision, TheFirstHeartBeatDependsOnTheTimeOfDayAndTheNextComeEveryFiveSeconds) {
  const struct {
    int64_t seedBehindTick;  // the low 32 bits of the time, as ticks before now
    int firstSeconds;
  } cases[] = {{0, 5},        {-1, 6 /* 4999 ms is not yet silence */},
               {1, 5},        {4000, 1},
               {3999, 2},     {-2000, 1},
               {1'000'000, 1}};
  // Before the seed is reached by the clock every run finds it long past; -1 is passed by the
  // first.
  for (const auto& [behind, first] : cases) {
    const auto low = static_cast<uint32_t>(static_cast<int64_t>(fake::runtime().tickMs) - behind);
    fake::runtime().nowUs = (uint64_t{411} << 32) + low;
    const auto stream = open("seed" + std::to_string(behind));
    EXPECT_EQ(secondsUntil(stream, 1), first) << behind;
    EXPECT_EQ(secondsUntil(stream, 2), 5) << behind;
    EXPECT_EQ(secondsUntil(stream, 3), 5) << behind;
  }
}

TEST_F(Supervision, AlarmsPutHeartBeatsOffAndStreamsCountOnTheirOwn) {
  fake::runtime().nowUs = 0;
  const auto busy = open("1");
  const auto idle = open("2");
  secondsUntil(busy, 1);
  for (int i = 0; i < 5; ++i) {
    fake::runtime().advance(4000);
    alarm();
  }
  EXPECT_EQ(parts(busy).size(), 6u);
  EXPECT_EQ(inside("activePostCount", parts(idle).back()), std::to_string(parts(idle).size()));
  EXPECT_GE(parts(idle).size(), 4u);
  EXPECT_EQ(secondsUntil(busy, 7), 5);
  EXPECT_EQ(inside("activePostCount", parts(busy).back()), "2");
}

TEST_F(Supervision, AFullStreamGetsAHeartBeatEverySecond) {
  fake::runtime().nowUs = 0;
  const auto stream = open();
  secondsUntil(stream, 1);
  fake::http().setFull(stream.handle, true);
  fake::runtime().advance(4000);
  EXPECT_EQ(fake::runtime().runJobs(), 0);
  for (int i = 0; i < 3; ++i) {
    fake::runtime().advance(1000);
    EXPECT_EQ(fake::runtime().runJobs(), 1);
  }
  fake::http().setFull(stream.handle, false);
  EXPECT_EQ(secondsUntil(stream, 2), 1);
  EXPECT_EQ(inside("activePostCount", parts(stream).back()), "5");
  fake::http().breakLink(stream.handle);
  fake::runtime().advance(6000);
  fake::runtime().runJobs();
  EXPECT_TRUE(sessions().empty()) << "the heartbeat found that the client is gone";
}

TEST_F(Supervision, WithoutMemoryOrPoolHeartBeatsAreSkipped) {
  fake::runtime().nowUs = 0;
  const auto stream = open("1");
  open("2");
  {
    const fake::FailNothrowAllocations failure;
    fake::runtime().advance(6000);
  }
  EXPECT_EQ(fake::runtime().queuedJobs(), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[sendHeartBeatOnTimer("));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "new CAlarmParam failed."));
  fake::runtime().refuseJobs = true;
  fake::runtime().advance(1000);
  fake::runtime().refuseJobs = false;
  EXPECT_EQ(secondsUntil(stream, 1), 1);
}

TEST_F(Supervision, RunsOfOtherTimersAreIgnored) {
  open();
  fake::runtime().tickMs += 100'000;
  fake::alarmBus().valid = false;
  for (void* user : {static_cast<void*>(&pto_), static_cast<void*>(nullptr)}) {
    EXPECT_EQ(CEventPto::sendHeartBeatOnTimer(-5, user), 0);
    EXPECT_EQ(CEventPto::checkAbnormalOnTimer(-5, user), 0);
  }
  EXPECT_EQ(fake::runtime().queuedJobs(), 0);
  EXPECT_EQ(sessions().size(), 1u);
}

TEST_F(Supervision, AStreamIsGivenUpAfterMoreThan204800FailedPushesAndADeviceWithItsLast) {
  open("1");
  open("1");
  open("2");
  fail(sessions()[1], 204800);
  busCalls();
  supervise();
  EXPECT_EQ(sessions().size(), 2u);
  fail(sessions()[1], 1);
  supervise();
  EXPECT_EQ(sessions("1").size(), 1u);
  EXPECT_EQ(busCalls(), Calls{});
  open("1");
  for (const auto& session : sessions()) fail(session, 204801);
  supervise();
  EXPECT_TRUE(sessions("1").empty());
  EXPECT_EQ(sessions("2").size(), 1u);
  EXPECT_EQ(busCalls(), (Calls{"DeleteDevice 0 1", "DeleteDevice 0 1"})) << "once for each stream";
}

TEST_F(Supervision, ALostSubscriptionDropsAllStreams) {
  for (const int result : {0, -1}) {
    open("1");
    open("2");
    busCalls();
    fake::alarmBus().valid = false;
    fake::alarmBus().unsubscribeResult = result;
    supervise();
    EXPECT_EQ(busCalls(), (Calls{"UnSubscribe " + std::to_string(fake::alarmBus().lastId)}));
    EXPECT_EQ(fake::logged(WLOG_ERROR, "QN_AlarmBus_UnSubscribe failed."), result == 0)
        << "logged on success only";
    EXPECT_EQ(fake::logged(WLOG_ERROR, "[checkAbnormalOnTimer("), result == 0);
    EXPECT_TRUE(sessions("1").empty() && sessions("2").empty());
    fake::alarmBus().valid = true;
    EXPECT_EQ(open("2").status, 200);
    EXPECT_TRUE(busCalls().at(0).starts_with("Subscribe 1 "));
    fake::runtime().runJobs();  // nobody else frees them
    fake::resetRuntime();       // the log with it
    fake::alarmBus().unsubscribeResult = 0;
    pto_.stop();
    pto_.start();
  }
}

TEST_F(Supervision, WithoutStreamsTheSubscriptionEndsAndTheNextStreamSubscribesAgain) {
  open();
  supervise();
  pto_.deleSessionByID(0);
  busCalls();
  supervise();
  EXPECT_EQ(busCalls(), (Calls{"UnSubscribe 0"}));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, kUnsubscribeLine));
  supervise();
  EXPECT_EQ(busCalls(), Calls{});
  const auto stream = open();
  EXPECT_EQ(busCalls().size(), 2u);
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_EQ(parts(stream).size(), 1u);
}

TEST_F(Supervision, ARemovedDeviceLosesItsStreamsAndNoOther) {
  open("1");
  open("2");
  open("1");
  busCalls();
  for (const auto type : {DEVICE_ADDED, DEVICE_CHANGED}) fake::announceDevice(type, "1");
  CEventPto::devChangeCB(DEVICE_REMOVED, nullptr, &pto_);
  std::string device = "1";
  CEventPto::devChangeCB(DEVICE_REMOVED, device.data(), nullptr);
  EXPECT_EQ(sessions().size(), 2u);
  fake::announceDevice(DEVICE_REMOVED, "1");
  EXPECT_TRUE(sessions("1").empty());
  EXPECT_EQ(sessions("2").size(), 1u);
  EXPECT_EQ(busCalls(), Calls{});
}

TEST_F(Supervision, StopRunsWhatIsQueuedAndKeepsTheTable) {
  const auto stream = open();
  fake::alarmBus().raise(alarmOf("1"));
  busCalls();
  EXPECT_EQ(pto_.stop(), 0);
  EXPECT_EQ(stream.answer().parts.size(), 1u);
  EXPECT_EQ(busCalls(), (Calls{"UnSubscribe 0"}));
  EXPECT_FALSE(fake::logged(WLOG_ERROR, "QN_AlarmBus_UnSubscribe failed"));
  EXPECT_EQ(fake::runtime().timers(), 0);
  EXPECT_EQ(fake::attachedRoutines(), 0);
  EXPECT_EQ(sessions().size(), 1u);
  std::string late = alarmOf("1");
  EXPECT_EQ(CEventPto::fAlarmDataCallBack(late.data(), static_cast<int>(late.size()), &pto_),
            static_cast<int>(late.size()))
      << "its job is refused and freed";

  EXPECT_EQ(pto_.start(), 0);
  fail(sessions()[0], 204801);
  supervise();
  EXPECT_EQ(busCalls(), (Calls{"DeleteDevice -1 1"})) << "also without a subscription";

  open();
  fake::alarmBus().unsubscribeResult = -1;
  EXPECT_EQ(pto_.stop(), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[stop("));
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "QN_AlarmBus_UnSubscribe failed"));
}

TEST_F(Supervision, StartAndStopInAnyOrderAndWithoutResources) {
  EXPECT_EQ(pto_.start(), 0) << "twice";
  EXPECT_EQ(fake::runtime().timers(), 2);
  EXPECT_EQ(pto_.stop(), 0);
  EXPECT_EQ(pto_.stop(), 0);
  EXPECT_EQ(fake::runtime().timers(), 0);
  fake::runtime().refusePools = true;
  EXPECT_EQ(pto_.start(), 9);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "fAlarmProcessThread create threadPoolFlex failed."));
  fake::runtime().refusePools = false;
  fake::runtime().refuseTimers = true;
  EXPECT_EQ(pto_.start(), 0);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "sendHeartBeatOnTimer zrt_settimer failed["));
  EXPECT_FALSE(fake::logged(WLOG_ERROR, "checkAbnormalOnTimer"));
  EXPECT_EQ(fake::attachedRoutines(), 0);
}

}  // namespace
}  // namespace QNKAVROProtocol
