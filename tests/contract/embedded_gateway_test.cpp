// include/embedded_gateway.h: the gateway as an object, with functions of the test as its module.
#include "include/embedded_gateway.h"

#include "tests/contract/folder.h"
#include "tests/contract/http_fixture.h"
#include "tests/contract/ports.h"

namespace qn {
namespace {

int started, stopped;

GatewayParts parts() {
  return {.module = {[] { return ++started; }, [] { return ++stopped; },
                     [](int&, std::string& body, int&, const stHttpRes& request) {
                       body = request.exchange->getUrl();
                       return 200;
                     }}};
}

class Embedded : public testing::Test {
 protected:
  GatewaySettings settings(int port) {
    GatewaySettings values;
    values.set("http.port", port).set("network.picture_port", port + 1);
    values.set("storage.data_dir", folder_.path().string());
    return values.add("users", {{"name", "admin"}, {"password", "x"}, {"device", "1"}});
  }
  int startOnFreePorts(bool withAdmin = false) {
    const int port = freePort(3);
    gateway_.start(settings(port).set("admin.port", withAdmin ? port + 2 : 0));
    return port;
  }
  static std::string ask(int port) { return RawClient(uint16_t(port)).ask(kGet).body; }

  Embedded() { started = stopped = 0; }

  Folder folder_;
  EmbeddedGateway gateway_{parts()};
};

TEST_F(Embedded, ServesEachTimeItIsStarted) {
  for (int times = 1; times <= 2; ++times) {
    const int port = startOnFreePorts();
    EXPECT_EQ(gateway_.port(), port);
    EXPECT_EQ(ask(port), "/a?b=1");
    EXPECT_THROW(gateway_.start(settings(port)), std::logic_error);
    EXPECT_THROW(EmbeddedGateway(parts()).start(settings(port + 2)), std::logic_error);
    gateway_.stop();
    gateway_.stop();
    EXPECT_FALSE(gateway_.isRunning());
    EXPECT_FALSE(RawClient(uint16_t(port)).connected());
    EXPECT_EQ(started, times);
    EXPECT_EQ(stopped, times);
  }
}

TEST_F(Embedded, ReloadChangesAllOrNothing) {
  EXPECT_EQ(gateway_.reload(settings(1)), "the gateway is not running");
  const int port = startOnFreePorts();
  const struct {
    GatewaySettings next;
    const char* refusal;
  } refused[] = {{settings(port).set("http.prot", 1), "settings:3:1: http.prot: unknown key"},
                 {settings(port).set("http.port", "x"), "http.port: expected"},
                 {GatewaySettings(), "expected the user \"admin\""},
                 {GatewaySettings::fromFile(folder_.path() / "none"), "cannot be read"}};
  for (const auto& [next, refusal] : refused) {
    EXPECT_NE(gateway_.reload(next).find(refusal), std::string::npos) << gateway_.reload(next);
    EXPECT_EQ(ask(port), "/a?b=1");
  }
  EXPECT_EQ(gateway_.reload(settings(port).set("kavro.realm", "other")), "");
  EXPECT_EQ(gateway_.reload(GatewaySettings::fromFile(
                folder_.write("gateway.toml", settings(port).set("log.level", "warn").toml()))),
            "");
  EXPECT_EQ(ask(port), "/a?b=1");
}

TEST_F(Embedded, AnOperatorsReloadIsTheProgramsToDo) {
  const std::string order = "POST /reload HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n";
  int port = startOnFreePorts(true);
  EXPECT_EQ(RawClient(uint16_t(port + 2)).ask(order).status, 503) << "nobody does it";
  gateway_.stop();

  Events asked;
  GatewayParts itself = parts();
  itself.reloadWanted = [&] { asked.signal(); };
  EmbeddedGateway other(itself);
  other.start(settings(port).set("admin.port", port + 2));
  RawClient operating(uint16_t(port + 2), order);
  ASSERT_TRUE(asked.wait());
  EXPECT_EQ(other.reload(settings(port).set("admin.port", port + 2)), "");
  EXPECT_EQ(operating.answer().status, 200);
}

TEST_F(Embedded, SettingsAreTheTextOfAFile) {
  GatewaySettings values;
  values.set("log.level", "a \"b\"\n").set("http.port", 1).set("http.port", 2);
  values.set("http.trusted_proxies", std::vector<std::string>{"a", "b"});
  values.add("users", {{"name", "x"}, {"devices", std::vector<std::string>{}}}).add("users", {});
  values.set("kavro.mime_parts", true);
  EXPECT_EQ(
      values.toml(),
      "[http]\nport = 2\ntrusted_proxies = [\"a\", \"b\"]\n[kavro]\nmime_parts = true\n"
      "[log]\nlevel = \"a \\\"b\\\"\\u000a\"\n[[users]]\ndevices = []\nname = \"x\"\n[[users]]\n");
  for (const char* key : {"", "port", "http.", ".port", "http.port.x", "http.po rt", "http]\n.x"}) {
    EXPECT_THROW(values.set(key, 1), std::invalid_argument) << key;
  }
  EXPECT_THROW(GatewaySettings::fromFile("f").set("http.port", 1), std::invalid_argument);
  EXPECT_THROW(GatewaySettings::fromFile(""), std::invalid_argument);
}

TEST_F(Embedded, ModuleIsWholeOrRefused) {
  GatewayParts some = parts();
  some.module.uninit = nullptr;
  EXPECT_THROW(EmbeddedGateway(some).start(settings(1)), std::logic_error);
  for (const char* file : {"/nonexistent.so", "libm.so.6"}) {
    EXPECT_THROW(EmbeddedGateway({.moduleFile = file}).start(settings(1)), std::runtime_error);
  }
}

}  // namespace
}  // namespace qn
