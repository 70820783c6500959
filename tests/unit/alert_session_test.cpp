// Opening alert streams: who is admitted, what the alarm bus is asked, what a refusal says.
#include <new>

#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/error_code.h"
#include "tests/unit/alert_fixture.h"

namespace QNKAVROProtocol {
namespace {

using AlertSession = AlertTest;

constexpr const char* kSubscribeOne =
    R"(Subscribe 1 {"SubscribeDeviceMgmt":{"DevEventList":[{"Dev":{"devIndex":"1","uploadMode":"all"}}],"eventMode":"device"}})"
    "\n";

void expectStream(const Outcome& outcome) {
  EXPECT_EQ(outcome.status, 200);
  EXPECT_EQ(outcome.asyncReply, 1);
  EXPECT_EQ(outcome.bodyIsXml, -1) << "not this handler's to set";
  EXPECT_EQ(outcome.body, "");
  const auto answer = outcome.answer();
  EXPECT_TRUE(answer.stream);
  EXPECT_EQ(answer.count, 1);
  EXPECT_EQ(answer.status, 200);
}

// With the document of the code for the URL; without a body for no URL.
void expectRefused(const Outcome& outcome, unsigned int code, const char* url = kStreamUrl) {
  EXPECT_EQ(outcome.status, getHttpStatusCodeByErrorNo(code));
  EXPECT_EQ(outcome.asyncReply, 0);
  EXPECT_EQ(outcome.body,
            url ? CProtocolBase::getResponseByError(static_cast<int>(code), url) : "");
  EXPECT_EQ(outcome.answer().count, 0);
}

const unsigned int kTooMany = CProtocolBase::getPtoErrorCode(BUS_TOO_MANY_STREAMS);

TEST_F(AlertSession, AnotherUrlIsAnInternalError) {
  expectRefused(open("1", "/else"), ERROR_INTERNAL, "/else");
  EXPECT_TRUE(busCalls().empty());
}

TEST_F(AlertSession, TheBusIsAskedOnceForEachDevice) {
  expectStream(open("1"));
  EXPECT_EQ(busCalls(), (Calls{kSubscribeOne, "StartUploadData 0"}));
  EXPECT_TRUE(fake::logged(WLOG_INFO, "[subscibeId=0]QN_AlarmBus_Subscribe success."));
  EXPECT_TRUE(fake::logged(WLOG_INFO, "[procAlertStream("));
  expectStream(open("2"));
  EXPECT_EQ(busCalls(),
            (Calls{R"(AddDevice 0 2 {"SubscribeDevEvent":{"devIndex":"2","uploadMode":"all"}})"
                   "\n"}));
  expectStream(open("1"));
  expectStream(open("2"));
  EXPECT_EQ(busCalls(), Calls{});
}

TEST_F(AlertSession, AThirdStreamOfADeviceIsRefusedAndTheOthersStay) {
  const auto first = open();
  const auto second = open();
  expectRefused(open(), kTooMany);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "[procAlertStream("));
  EXPECT_TRUE(
      fake::logged(WLOG_ERROR, "[devIndx=1]This device alertstream number is over max value."));
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_EQ(parts(first).size(), 1u);
  EXPECT_EQ(parts(second).size(), 1u);
  pto_.deleSessionByID(0);
  expectStream(open());
}

TEST_F(AlertSession, AStreamThatIsClosedGivesItsPlaceAtOnce) {
  const auto first = open();
  const auto second = open();
  fake::http().forget(first.handle);
  const auto third = open();
  expectStream(third);
  expectRefused(open(), kTooMany);
  busCalls();
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_EQ(parts(second).size(), 1u);
  EXPECT_EQ(parts(third).size(), 1u);
  EXPECT_EQ(sessions().size(), 2u);
  EXPECT_EQ(busCalls(), Calls{}) << "the device stays on the bus";
}

TEST_F(AlertSession, IdsGrowForRefusedRequestsToo) {
  open();
  open();
  open();  // refused
  EXPECT_EQ(pto_.deleSessionByID(1), 0);
  EXPECT_EQ(pto_.deleSessionByID(1), 0) << "absent";
  open();
  const auto streams = sessions();
  ASSERT_EQ(streams.size(), 2u);
  EXPECT_EQ(streams[0]->getSessionID(), 0);
  EXPECT_EQ(streams[1]->getSessionID(), 3);
}

TEST_F(AlertSession, ARefusedSubscriptionStoresNothing) {
  fake::alarmBus().refusal = -1;
  expectRefused(open(), ERROR_RESOURCE_NOT_FOUND);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "QN_AlarmBus_Subscribe failed."));
  EXPECT_TRUE(sessions().empty());
  fake::alarmBus().refusal = 0;
  busCalls();
  expectStream(open());
  EXPECT_EQ(busCalls(), (Calls{kSubscribeOne, "StartUploadData 0"}));
  fake::alarmBus().refusal = 5;
  expectRefused(open("2"), ERROR_RESOURCE_NOT_FOUND, nullptr);
  EXPECT_TRUE(fake::logged(WLOG_ERROR, "QN_AlarmBus_AddDevice failed."));
  EXPECT_TRUE(sessions("2").empty());
}

TEST_F(AlertSession, NoMemoryForTheSession) {
  for (int n : {0, 1}) {  // the session and its table entry
    const auto record = fake::http().open({QNHttpService::HTTP_GET, kStreamUrl});
    const std::string device = "1";
    Outcome outcome;
    {
      const fake::FailAllocation failure(n);
      outcome = processBy(pto_, record, device);
      EXPECT_TRUE(failure.happened());
    }
    expectRefused(outcome, CProtocolBase::getPtoErrorCode(BUS_NO_RESOURCES));
    EXPECT_TRUE(fake::logged(WLOG_ERROR, "make_shared session error"));
  }
  EXPECT_TRUE(busCalls().empty());
}

// Whichever allocation fails: a stream that was begun gets alarms, and one that was not leaves
// nothing that keeps the next from being opened.
TEST_F(AlertSession, EveryFailedAllocationLeavesAWholeStreamOrNone) {
  for (const bool subscribed : {false, true}) {
    forEachFailedAllocation([&](int n, const Failing& failing) {
      pto_.stop();
      fake::reset();
      for (const auto& session : sessions()) pto_.deleSessionByID(session->getSessionID());
      pto_.start();
      if (subscribed) open("2");
      const auto record = fake::http().open({QNHttpService::HTTP_GET, kStreamUrl});
      Outcome first;
      const std::string device = "1";
      failing([&] {
        first.take(record, [&](auto&... all) { return pto_.procProtocol(all..., device); });
      });
      const Outcome retry = open();
      EXPECT_EQ(retry.status, 200) << n;
      fake::alarmBus().raise(alarmOf("1"));
      EXPECT_EQ(parts(retry).size(), 1u) << n;
      EXPECT_EQ(parts(first).size(), first.status == 200 ? 1u : 0u) << n;
      pto_.stop();
      EXPECT_TRUE(fake::alarmBus().subscriptions.empty()) << n;
    });
  }
}

// The whole way: entry, login, stream, alarm.
TEST_F(AlertSession, ThroughTheEntry) {
  QN_Protocol_Init();
  const auto stream = get(kStreamUrl);
  EXPECT_EQ(stream.status, 200);
  EXPECT_EQ(stream.asyncReply, 1);
  EXPECT_EQ(fake::login().checks, 1);
  fake::alarmBus().raise(alarmOf("1"));
  EXPECT_EQ(parts(stream).size(), 1u);
  fake::http().forget(stream.handle);
  fake::alarmBus().raise(alarmOf("1"));
  fake::runtime().runJobs();
  QN_Protocol_Uninit();
}

}  // namespace
}  // namespace QNKAVROProtocol
