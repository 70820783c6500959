// What platform/*.h promises wherever it is implemented: the same tests on the reference
// implementation, on the fake that the unit tests stand on, so that the fake cannot drift, and on a
// library that QN_CONTRACT_PLATFORM names.
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/alarm_bus.h"
#include "platform/config_mgr.h"
#include "platform/device_cfg_bus.h"
#include "platform/device_mgr.h"
#include "platform/http_service.h"
#include "platform/zrt.h"
#include QN_PLATFORM_DRIVER  // the class Platform, in whose words the tests speak

namespace qn {
namespace {

TEST_F(Platform, DeadExchangesAreHarmless) {
  for (const int handle : {-1, 0, 2147483647}) {
    CHttpExchange dead(handle);
    EXPECT_EQ(dead.getUrl() + dead.getHead("Host"), "");
    EXPECT_EQ(dead.getMethod(), 0u);
    EXPECT_EQ(dead.getHttpHandle(), -1);
    dead.setHead("A", "b");
    dead.setMIME();
    dead.setStatus(404);
    EXPECT_EQ(dead.response("x", 1), HTTP_LINK_BROKEN);
  }
}

TEST_F(Platform, ExchangeShowsItsRequestAndIsAnsweredOnce) {
  const int handle = open();
  CHttpExchange exchange(handle);
  EXPECT_EQ(exchange.getHttpHandle(), handle);
  EXPECT_EQ(exchange.getUrl(), "/a?b=1");
  EXPECT_EQ(exchange.getMethod(), 0u);
  EXPECT_EQ(exchange.getHead("x-oNE") + exchange.getHead("X-None"), "v");
  exchange.setHead("X-Good", "old");
  exchange.setHead("X-Good", "good");
  exchange.setHead("X-Good", "bad\r\nX-Injected: 1");
  exchange.setHead("X-Bad\n", "1");
  exchange.setStatus(404);
  EXPECT_EQ(exchange.response("text", 4), 4);
  EXPECT_EQ(exchange.response("more", 4), HTTP_LINK_BROKEN);
  EXPECT_EQ(CHttpExchange(handle).response("more", 4), HTTP_LINK_BROKEN);
  EXPECT_EQ(exchange.getUrl(), "/a?b=1") << "as long as the object";
  EXPECT_EQ(received(handle), "404 good text");
}

TEST_F(Platform, StreamTakesPartsUntilItsClientGoes) {
  const int handle = open();
  CHttpExchange exchange(handle);
  exchange.setMIME();
  exchange.setStatus(200);
  EXPECT_EQ(exchange.response(nullptr, 0), 0);
  EXPECT_EQ(exchange.getHead("X-One"), "") << "headers go when a stream starts";
  EXPECT_EQ(exchange.response("one", 3), 3);
  EXPECT_EQ(CHttpExchange(handle).response("two", 3), 3);
  EXPECT_EQ(receivedParts(handle, 6), "onetwo");
  clientGoes(handle);
  EXPECT_TRUE(
      comesTrue([&] { return CHttpExchange(handle).response("x", 1) == HTTP_LINK_BROKEN; }));
}

// Collects what callbacks of any thread are given.
struct Heard {
  void add(std::string text) {
    const std::lock_guard lock(mutex);
    texts.push_back(std::move(text));
  }
  std::vector<std::string> all() {
    const std::lock_guard lock(mutex);
    return texts;
  }
  static int take(void* data, int length, void* user) {
    static_cast<Heard*>(user)->add({static_cast<const char*>(data), std::size_t(length)});
    return length;
  }
  static int runJob(void* job) {
    static_cast<Heard*>(job)->add("ran");
    return 0;
  }

  std::mutex mutex;
  std::vector<std::string> texts;
};
using Texts = std::vector<std::string>;

TEST_F(Platform, DeviceBusCallsBackOnceWithTheReply) {
  addDevice("1", "{\"a\":1}");
  Heard heard;
  ASSERT_EQ(QN_DeviceCfgBus_ProcessAsyn(0, "/a?devIndex=1", "", Heard::take, &heard, 20000), 0);
  EXPECT_TRUE(comesTrue([&] { return heard.all().size() == 1; }));
  pass(10ms);
  EXPECT_EQ(heard.all(), Texts{"{\"a\":1}"});
  std::string reply = "untouched";
  EXPECT_EQ(QN_DeviceCfgBus_ProcessSyn(0, "/a?devIndex=1", "", reply, 20000), 0);
  EXPECT_EQ(reply, "{\"a\":1}");
}

TEST_F(Platform, DeviceBusAnswersWhatItHoldsWhenItStops) {
  addDevice("1", nullptr);
  Heard heard;
  std::string reply = "untouched";
  EXPECT_EQ(QN_DeviceCfgBus_ProcessSyn(0, "/a?devIndex=1", "", reply, 100), -1);
  EXPECT_EQ(reply, "untouched");
  ASSERT_EQ(QN_DeviceCfgBus_ProcessAsyn(0, "/a?devIndex=1", "", Heard::take, &heard, 20000), 0);
  EXPECT_EQ(heard.all(), Texts{});
  stopDeviceBus();
  ASSERT_EQ(heard.all().size(), 1u);
  for (const char* member :
       {"\"statusCode\"", "\"errorCode\"", "\"statusString\"", "\"subStatusCode\""}) {
    EXPECT_NE(heard.all()[0].find(member), std::string::npos) << heard.all()[0];
  }
}

TEST_F(Platform, AlarmsComeBetweenStartAndUnSubscribe) {
  const auto alarm = [](const std::string& type) {
    return R"({"EventNotificationAlert":{"devIndex":"1","eventType":")" + type + R"("}})";
  };
  const std::string request =
      R"({"SubscribeDeviceMgmt":{"DevEventList":[{"Dev":{"devIndex":"1"}}]}})";
  addDevice("1", nullptr);
  addDevice("2", nullptr);
  Heard heard, witness;
  std::string reply;
  int id = -7, other = -7;
  ASSERT_EQ(QN_AlarmBus_Subscribe(reply, request, Heard::take, &heard, 1, id), 0);
  ASSERT_EQ(QN_AlarmBus_Subscribe(reply, request, Heard::take, &witness, 1, other), 0);
  EXPECT_GE(id, 0);
  EXPECT_NE(id, other);
  EXPECT_EQ(QN_AlarmBus_StartUploadData(other), 0);
  raise("1", alarm("before"));
  EXPECT_TRUE(comesTrue([&] { return witness.all().size() == 1; }));
  EXPECT_EQ(heard.all(), Texts{});
  EXPECT_EQ(QN_AlarmBus_StartUploadData(id), 0);
  raise("1", alarm("within"));
  EXPECT_TRUE(comesTrue([&] { return heard.all().size() == 1 && witness.all().size() == 2; }));
  EXPECT_NE(heard.all().at(0).find("within"), std::string::npos);

  for (int i = 0; i < 2; ++i) EXPECT_EQ(QN_AlarmBus_AddDevice(reply, id, "2", "{}"), 0);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(QN_AlarmBus_DeleteDevice(reply, id, "2"), 0);
  EXPECT_NE(QN_AlarmBus_CheckIDValid(id), 0);
  EXPECT_EQ(QN_AlarmBus_UnSubscribe(reply, id, 1), 0);
  EXPECT_NE(QN_AlarmBus_UnSubscribe(reply, id, 1), 0);
  EXPECT_EQ(QN_AlarmBus_CheckIDValid(id), 0);
  EXPECT_NE(QN_AlarmBus_StartUploadData(id), 0);
  EXPECT_NE(QN_AlarmBus_AddDevice(reply, id, "1", ""), 0);
  EXPECT_NE(QN_AlarmBus_DeleteDevice(reply, id, "1"), 0);
  raise("1", alarm("after"));
  EXPECT_TRUE(comesTrue([&] { return witness.all().size() == 3; }));
  EXPECT_EQ(heard.all().size(), 1u);
  EXPECT_EQ(QN_AlarmBus_UnSubscribe(reply, other, 1), 0);
}

void hear(tagNotifyType type, void* devIndex, const void* user) {
  const std::string index = static_cast<const char*>(devIndex);
  const bool inForce = (QN_DeviceMgr_GetDevice(index) == nullptr) == (type == DEVICE_REMOVED);
  static_cast<Heard*>(const_cast<void*>(user))
      ->add(std::to_string(type) + index + (inForce ? "" : " too early"));
}

TEST_F(Platform, ConfigurationIsSnapshotsAndDevicesAreAnnounced) {
  setRealm("before");
  const auto snapshot = QN_ConfigMgr_GetUserCfg();
  setRealm("after");
  EXPECT_EQ(snapshot->getRealm(), "before");
  EXPECT_EQ(QN_ConfigMgr_GetUserCfg()->getRealm(), "after");
  EXPECT_TRUE(snapshot->isActivated());
  EXPECT_EQ(QN_ConfigMgr_GetKAVROCfg()->getKAVROMode(), KAVRO_MODE_ONE_PORT);
  EXPECT_EQ(QN_ConfigMgr_GetNetworkCfg()->getRtspPort(), 554);

  Heard former, heard;
  QN_DeviceMgr_NotifyAttach(hear, &former);
  QN_DeviceMgr_NotifyAttach(hear, &heard);
  addDevice("a", nullptr);
  addDevice("b", nullptr, 9001);
  EXPECT_EQ(QN_DeviceMgr_GetDevice("a")->getDeviceIndex(), "a");
  EXPECT_EQ(QN_DeviceMgr_GetDevice("A"), nullptr);
  std::vector<CKAVROPort> ports(3, CKAVROPort("old", 1, 1));
  QN_DeviceMgr_GetAllKAVROPort(ports);
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports[0].getDeviceIndex() + std::to_string(ports[0].getHttpPort()), "b9001");
  removeDevices();
  EXPECT_EQ(heard.all(), (Texts{"0a", "0b", "1a", "1b"}));
  QN_DeviceMgr_NotifyDetach(hear);
  QN_DeviceMgr_NotifyDetach(hear);
  addDevice("c", nullptr);
  EXPECT_EQ(heard.all().size(), 4u);
  EXPECT_EQ(former.all(), Texts{});
}

TEST_F(Platform, TimersRunUntilTheyAreKilled) {
  struct Runs {
    int id = -1;
    std::atomic<int> count{0};
  } runs;
  const auto routine = [](int timerId, void* user) {
    auto& own = *static_cast<Runs*>(user);
    EXPECT_EQ(timerId, own.id) << "set before the first run";
    ++own.count;
    return 0;
  };
  int none = 7;
  for (const int period : {0, -1}) EXPECT_EQ(ZRT_SetTimer(routine, &runs, period, none, 0), -1);
  EXPECT_EQ(ZRT_SetTimer(nullptr, &runs, 1, none, 0), -1);
  const uint64_t start = ZRT_GetTimeTick();
  ASSERT_EQ(ZRT_SetTimer(routine, &runs, 5, runs.id, 0), 0);
  EXPECT_GE(runs.id, 0);
  EXPECT_TRUE(comesTrue([&] { return runs.count >= 3; }));
  EXPECT_GE(ZRT_GetTimeTick() - start, 14u);
  EXPECT_EQ(ZRT_KillTimer(runs.id), 0);
  EXPECT_EQ(ZRT_KillTimer(runs.id), -1);
  const int killed = runs.count;
  pass(20ms);
  EXPECT_EQ(runs.count, killed);
}

TEST_F(Platform, PoolRunsWhatItTookAndNothingMore) {
  EXPECT_EQ(ZRT_ThreadPoolFlex_Create(0, 1000, Heard::runJob, 0), -1);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Create(1, -1, Heard::runJob, 0), -1);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Create(1, 1000, nullptr, 0), -1);
  Heard job;
  const int64_t pool = ZRT_ThreadPoolFlex_Create(1, 1000, Heard::runJob, 0);
  ASSERT_NE(pool, -1);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Work(pool, &job), 0);
  EXPECT_TRUE(comesTrue([&] { return job.all().size() == 1; }));
  for (int i = 0; i < 9; ++i) EXPECT_EQ(ZRT_ThreadPoolFlex_Work(pool, &job), 0);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Destroy(pool), 0);
  EXPECT_EQ(job.all().size(), 10u);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Work(pool, &job), -1);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Destroy(pool), -1);
  EXPECT_EQ(ZRT_ThreadPoolFlex_Destroy(-1), -1);
}

}  // namespace
}  // namespace qn
