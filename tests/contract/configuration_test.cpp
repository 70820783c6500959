// The configuration file, the configuration in force, and what platform/config_mgr.h and
// platform/device_mgr.h promise about both.
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <thread>
#include <tuple>
#include <vector>

#include "gateway/config/configuration_file.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"
#include "tests/contract/folder.h"

namespace qn {
namespace {

Configuration read(const std::string& content) {
  return readConfiguration(Folder().write("test.toml", content));
}

std::string errorOf(const std::string& content) {
  const Folder folder;
  try {
    readConfiguration(folder.write("test.toml", content));
    return "no error";
  } catch (const ConfigurationError& error) {
    return error.what();
  }
}

using std::tuple;
using std::chrono::seconds;

TEST(ConfigurationFile, EveryKeyReachesItsMember) {
  const Configuration c = readConfiguration(QN_WHOLE_CONFIGURATION);
  const std::vector<std::string> proxies = {"10.0.0.1", "fe80::1"};
  EXPECT_EQ(c.http, (HttpOptions{"::", 8081, proxies, 2048, seconds(1), 4096, seconds(2),
                                 seconds(3), 4, 5, 6}));
  const NetworkOptions& n = c.network;
  EXPECT_EQ(tuple(n.httpsEnabled, n.httpsPort, n.rtspPort, n.portMapping),
            tuple(true, 8443, 8554, true));
  EXPECT_EQ(tuple(n.extHttpPort, n.extHttpsPort, n.extRtspPort, n.picturePort),
            tuple(1, 2, 3, 8091));
  EXPECT_EQ(tuple(c.kavro.mode, c.kavro.realm, c.kavro.algorithm),
            tuple(2, "My Realm", DigestAlgorithm::SHA256));
  EXPECT_EQ(tuple(c.lock.maxAttempts, c.lock.lockTime), tuple(7, seconds(60)));
  EXPECT_EQ(c.storage, (StorageOptions{"/tmp/x", 10}));
  EXPECT_EQ(tuple(c.pictures.maxBytes, c.pictures.maxCount, c.pictures.full),
            tuple(1048576, 3, PictureOptions::WhenFull::Refuse));
  EXPECT_EQ(tuple(c.bus.deviceConnections, c.bus.deviceQueue, c.bus.replyBytes), tuple(2, 0, 5000));
  EXPECT_EQ(tuple(c.bus.deviceBytes, c.bus.bytes, c.bus.replyMemory), tuple(6000, 7000, 8000));
  EXPECT_EQ(c.admin, (AdminOptions{"::", 8099, "ops", "54321", "0123456789abcdef"}));
  EXPECT_EQ(c.log.level, "warn");
  ASSERT_EQ(c.users.size(), 2U);
  EXPECT_EQ(c.users[0].ha1,
            hexDigest(DigestAlgorithm::SHA256, {"admin", "My Realm", "12345"}).text());
  EXPECT_EQ(c.users[0].device, "1");
  EXPECT_EQ(c.users[1].ha1, "abcdef" + std::string(56, '0') + "ff");
  EXPECT_EQ(c.users[1].devices, (std::vector<std::string>{"1", "cam-2"}));
  ASSERT_EQ(c.devices.size(), 2U);
  const DeviceConfig& d = c.devices[0];
  EXPECT_EQ(tuple(d.index, d.host, d.port, d.basePath), tuple("1", "127.0.0.1", 9001, "/a/b"));
  EXPECT_EQ(tuple(d.username, d.password, d.auth, d.httpPort, d.rtspPort),
            tuple("u", "p", DeviceAuth::Any, 9101, 9102));
  EXPECT_EQ(tuple(c.devices[1].host, c.devices[1].port, c.devices[1].basePath),
            tuple("::1", 80, ""));
  EXPECT_EQ(c.findDeviceByPort(9101), &c.devices[0]);
  EXPECT_EQ(c.findDeviceByPort(0), nullptr);
  EXPECT_EQ(c.findUser("operator"), &c.users[1]);
  EXPECT_EQ(c.findUser("nobody"), nullptr);
}

// The example that operators start from, as it is and with what is commented out said.
TEST(ConfigurationFile, TheExampleNamesEveryKeyWithItsDefault) {
  std::ifstream example(QN_EXAMPLE_CONFIGURATION);
  std::string said;
  for (std::string line; std::getline(example, line); said += '\n') {
    said += std::regex_replace(line, std::regex("^# ([a-z_]+ = .*)$"), "$1");
  }
  const Configuration plain = readConfiguration(QN_EXAMPLE_CONFIGURATION);
  HttpOptions http;
  http.address = plain.http.address;
  EXPECT_EQ(plain.http, http);
  const auto values = [](const Configuration& c) {
    return tuple(c.storage.dataDir, c.storage.operationLogRows, c.kavro.realm, c.kavro.mode,
                 c.lock.maxAttempts, c.lock.lockTime, c.network.httpsPort, c.network.rtspPort,
                 c.network.picturePort, c.pictures.maxBytes, c.pictures.maxCount, c.pictures.full,
                 c.bus.deviceConnections, c.bus.deviceQueue, c.bus.replyBytes, c.admin.address,
                 c.admin.port, c.admin.username, c.log.level);
  };
  EXPECT_EQ(read(said).http, http);
  EXPECT_EQ(values(read(said)), values(Configuration()));
  EXPECT_TRUE(read("").users.empty());
}

TEST(ConfigurationFile, ErrorsNameLineKeyAndWhatIsExpected) {
  const std::string device = "[[devices]]\nindex = \"1\"\nurl = \"http://h\"\n";
  const std::string user = "[[users]]\nname = \"a\"\ndevice = \"1\"\npassword = \"p\"\n";
  const std::pair<std::string, std::string> cases[] = {
      // the error after the file's name
      {"[http\n", ":1: "},
      {"[http]\nport = 1\nport = 2\n", ":3: "},
      {"\n[htpp]\n", ":2: htpp: unknown section"},
      {"http = 1\n", ":1: http: expected a section [http]"},
      {"[http]\n\nprot = 1\n", ":3: http.prot: unknown key"},
      {"[http]\nport = 0\n", ":2: http.port: expected an integer from 1 to 65535"},
      {"[http]\nport = 65536\n", ":2: http.port: expected an integer"},
      {"[http]\nport = \"80\"\n", ":2: http.port: expected an integer"},
      {"[http]\nport = 80.0\n", ":2: http.port: expected an integer"},
      {"[http]\naddress = \"localhost\"\n", ":2: http.address: expected a string: an IP address"},
      {"[http]\naddress = 1\n", ":2: http.address: expected a string"},
      {"[http]\ntrusted_proxies = \"::1\"\n", ":2: http.trusted_proxies: expected a list"},
      {"[http]\ntrusted_proxies = [\"x\"]\n", ":2: http.trusted_proxies: expected a string"},
      {"[http]\nhead_seconds = -1\n", ":2: http.head_seconds: expected an integer"},
      {"[http]\nport = 8090\n",
       ": network.picture_port: expected a value that is not taken, as http.port in line 2"},
      {"[http]\nport = 8090\n[network]\n", ": network.picture_port: expected a value that is not"},
      {"[network]\nhttps_enabled = 1\n", ":2: network.https_enabled: expected true or false"},
      {"[network]\npicture_port = 8080\n", ":2: network.picture_port: expected a value that is "},
      {"[kavro]\nmode = 3\n", ":2: kavro.mode: expected an integer from 1 to 2"},
      {"[kavro]\nrealm = \"a\\\"b\"\n", ":2: kavro.realm: expected a string"},
      {"[kavro]\nalgorithm = \"md5\"\n", ":2: kavro.algorithm: expected a string: \"MD5\" or"},
      {"[lock]\nmax_attempts = 0\n", ":2: lock.max_attempts: expected an integer from 1"},
      {"[pictures]\nmax_bytes = 1000\n", ":2: pictures.max_bytes: expected an integer from"},
      {"[pictures]\nfull = \"drop\"\n", ":2: pictures.full: expected a string: \"refuse\" or"},
      {"[admin]\nport = 8090\n", ":2: admin.port: expected a value that is not taken"},
      {"[admin]\nport = 9100\naddress = \"0.0.0.0\"\n",
       ":3: admin.address: expected a loopback address, or a password"},
      {"[admin]\nmetrics_token = \"short\"\n", ":2: admin.metrics_token: expected a string"},
      {"[log]\nlevel = \"all\"\n", ":2: log.level: expected a string: \"debug\""},
      {"users = 1\n", ":1: users: expected sections [[users]]"},
      {"[devices]\nindex = \"1\"\n", ":1: devices: expected sections [[devices]]"},
      {"[[users]]\nname = \"a\"\n", ":1: users.device: is missing"},
      {"[[users]]\nname = \"a\"\ndevice = \"1\"\n", ":1: users.password: expected either"},
      {user + "ha1 = \"00\"\n", ":4: users.password: expected either password or ha1"},
      {"[[users]]\nname = \"a\"\ndevice = \"1\"\nha1 = \"00\"\n", ":4: users.ha1: expected 32 hex"},
      {"[[users]]\nname = \"a:b\"\n", ":2: users.name: expected a string"},
      {user + user, ":6: users.name: expected a value that is not taken, as users.name in line 2"},
      {device + device, ":5: devices.index: expected a value that is not taken"},
      {device + "http_port = 8080\n", ":4: devices.http_port: expected a value that is not taken"},
      {device + "password = \"x\"\n", ":1: devices.username: expected a name"},
      {device + "password = \"a\\nb\"\n", ":4: devices.password: expected a string"},
      {device + "auth = \"none\"\n", ":4: devices.auth: expected a string: \"digest\","},
  };
  const auto expectError = [](const std::string& content, const std::string& error) {
    EXPECT_NE(errorOf(content).find(".toml" + error), std::string::npos)
        << content << "\n-> " << errorOf(content);
  };
  for (const auto& [content, error] : cases) expectError(content, error);
  for (const std::string index : {"\"\"", "\"a b\"", "\"a&b\"", "\"a+b\"", "\"\\u00e9\"", "1"}) {
    expectError("[[devices]]\nindex = " + index, ":2: devices.index: expected a string: 1 to 63");
  }
  const std::string longest(128, 'x');
  EXPECT_EQ(read("[kavro]\nrealm = \"" + longest + "\"").kavro.realm, longest);
  expectError("[kavro]\nrealm = \"x" + longest + "\"", ":2: kavro.realm: expected a string");
  expectError("[[users]]\nname = \"x" + longest + "\"", ":2: users.name: expected a string");
  EXPECT_EQ(read("[[devices]]\nindex = \"" + std::string(63, 'x') + "\"\nurl = \"http://h\"")
                .devices.size(),
            1u);
  expectError("[[devices]]\nindex = \"" + std::string(64, 'x') + "\"", ":2: devices.index");
  for (const char* url :
       {"", "https://h", "http://", "http://:80", "http://h:", "http://h:0", "http://h:65536",
        "http://h:80x", "http://u:p@h", "http://h/a?b", "http://h/a b", "http://::1/",
        "http://[::1", "http://[h]", "http://[::1]x"}) {
    expectError("[[devices]]\nindex = \"1\"\nurl = \"" + std::string(url) + "\"\n",
                ":3: devices.url: expected a string: http://");
  }
}

TEST(ConfigurationFile, AUserMayHaveAnAlgorithmOfTheOwn) {
  const std::string start = "[[users]]\nname = \"a\"\ndevice = \"1\"\n";
  const std::string ha1 = "ha1 = \"" + std::string(32, '0') + "\"\n";
  const std::string strong = "algorithm = \"SHA-256\"\n";
  // The user may log in with MD5, with SHA-256; the gateway offers MD5, SHA-256.
  const std::pair<std::string, tuple<bool, bool, bool, bool>> cases[] = {
      {start + "password = \"p\"\n", {true, true, true, false}},
      {start + ha1, {true, false, true, false}},
      {start + "password = \"p\"\n" + strong, {false, true, true, true}},
      {"[kavro]\n" + strong + start + "password = \"p\"\n", {false, true, false, true}},
      {"[kavro]\n" + strong + start + ha1 + "algorithm = \"MD5\"\n", {true, false, true, true}},
  };
  using enum DigestAlgorithm;
  for (const auto& [content, expected] : cases) {
    const Configuration made = read(content);
    const UserConfig& user = made.users.at(0);
    EXPECT_EQ(tuple(!user.ha1For(MD5).empty(), !user.ha1For(SHA256).empty(), made.offers(MD5),
                    made.offers(SHA256)),
              expected)
        << content;
  }
  EXPECT_NE(errorOf(start + ha1 + strong).find(":4: users.ha1: expected 64 hex"),
            std::string::npos);
}

TEST(ConfigurationFile, TheNonceKeyComesFromAFileThatIsTheOwnersAlone) {
  const Folder folder;
  const auto keyOf = [&](std::size_t bytes, unsigned mode) {
    const auto file = folder.write("key", std::string(bytes, 'k'));
    std::filesystem::permissions(file, std::filesystem::perms(mode));
    const auto content = "[kavro]\n\nnonce_key_file = \"" + file.string() + "\"\n";
    try {
      return read(content).kavro.nonceKey;
    } catch (const ConfigurationError& error) {
      EXPECT_NE(std::string(error.what()).find(":3: kavro.nonce_key_file: "), std::string::npos);
      return std::string();
    }
  };
  EXPECT_NE(keyOf(32, 0600), "");
  EXPECT_EQ(keyOf(32, 0600), keyOf(32, 0400));
  EXPECT_NE(keyOf(32, 0600), keyOf(33, 0600));
  for (const unsigned mode : {0640, 0604, 0620}) EXPECT_EQ(keyOf(32, mode), "") << mode;
  EXPECT_EQ(keyOf(31, 0600) + keyOf(5000, 0600), "");
  EXPECT_NE(errorOf("[kavro]\nnonce_key_file = \"/dev/zero\"").find("kavro.nonce_key_file"),
            std::string::npos);
}

TEST(ConfigurationFile, ErrorsNeverShowPasswords) {
  const std::string error =
      errorOf("[[users]]\nname = \"a\"\ndevice = \"1\"\npassword = \"secret\\n\"\n");
  EXPECT_NE(error.find("users.password"), error.npos);
  EXPECT_EQ(error.find("secret"), error.npos);
}

TEST(ConfigurationFile, DeepNestingAndLargeFilesAreErrorsAndNoCrash) {
  EXPECT_THROW(read("x = " + std::string(100000, '[')), ConfigurationError);
  std::string parts = "a";
  for (int i = 0; i < 100000; ++i) parts += ".a";
  const std::string error = ".toml:2: expected a key of fewer parts";
  for (const std::string& line :
       {'[' + parts + "]\n", parts + " = 1\n", "x = { \"#\\\"\" = 1, " + parts + " = 1 }\n"}) {
    EXPECT_NE(errorOf("\n" + line).find(error), std::string::npos) << line.substr(0, 40);
  }
  EXPECT_NE(errorOf("\nx = \"\"\"\n\"\"\"").find(".toml:2: expected strings of one line"),
            std::string::npos);
  EXPECT_EQ(read("[storage] # a.b.c.d.e.f.g.h.i.j.k\ndata_dir = '/a.b.c.d.e.f.g.h.i.j.k'\n")
                .storage.dataDir,
            "/a.b.c.d.e.f.g.h.i.j.k");
  for (const char* file : {"/nonexistent/x.toml", "/tmp", "/dev/zero"}) {
    EXPECT_THROW(readConfiguration(file), ConfigurationError) << file;
  }
  EXPECT_THROW(read("#" + std::string(kConfigurationFileBytes, ' ')), ConfigurationError);
}

DeviceConfig device(const std::string& index, uint16_t httpPort = 0) {
  DeviceConfig config;
  config.index = index;
  config.host = "127.0.0.1";
  config.httpPort = httpPort;
  return config;
}

void publish(std::vector<DeviceConfig> devices, const std::string& user = "admin") {
  const auto next = std::make_shared<Configuration>();
  next->http.port = 8123;
  next->kavro.mode = KAVRO_MODE_DEVICE_PORTS;
  next->users.push_back({user, "", "1", {}});
  next->devices = std::move(devices);
  publishConfiguration(next);
}

TEST(ConfigurationInForce, IsWhatTheGettersHandOut) {
  publish({device("b", 9002), device("a"), device("c", 9001)});
  EXPECT_TRUE(QN_ConfigMgr_GetUserCfg()->isActivated());
  EXPECT_EQ(QN_ConfigMgr_GetNetworkCfg()->getHttpPort(), 8123);
  EXPECT_EQ(QN_ConfigMgr_GetKAVROCfg()->getKAVROMode(), 2);
  EXPECT_EQ(QN_ConfigMgr_GetUserCfg(), QN_ConfigMgr_GetUserCfg());
  std::vector<CKAVROPort> ports;
  QN_DeviceMgr_GetAllKAVROPort(ports);
  ASSERT_EQ(ports.size(), 2U);
  EXPECT_EQ(ports[0].getDeviceIndex(), "b");
  EXPECT_EQ(ports[1].getHttpPort(), 9001);
  publish({}, "operator");
  EXPECT_FALSE(QN_ConfigMgr_GetUserCfg()->isActivated());
}

std::string addressFor(const std::string& configured) {
  const auto next = std::make_shared<Configuration>();
  next->http.address = configured;
  publishConfiguration(next);
  _NIC_INFO_V4 address{};
  EXPECT_EQ(QN_ConfigMgr_GetNetworkCfg()->getIPv4ByProtocol(address, DEVICE_PROTOCOL_KAVRO), 0);
  return address.address;
}

TEST(ConfigurationInForce, DevicesAreToldAnAddressThatTheyCanUse) {
  EXPECT_EQ(addressFor("192.0.2.200"), "192.0.2.200");
  EXPECT_EQ(addressFor("127.0.0.1"), "127.0.0.1");
  EXPECT_NE(addressFor("0.0.0.0"), "0.0.0.0");
  EXPECT_FALSE(addressFor("::").empty());
}

TEST(DeviceChanges, AreAnnouncedOnce) {
  publish({device("1"), device("2"), device("3")});
  std::vector<std::string> calls;
  const auto hear = [](tagNotifyType type, void* devIndex, const void* user) {
    static_cast<std::vector<std::string>*>(const_cast<void*>(user))
        ->push_back(std::to_string(type) + static_cast<const char*>(devIndex));
  };
  QN_DeviceMgr_NotifyAttach(hear, &calls);
  DeviceConfig moved = device("2");
  moved.port = 81;
  publish({device("4"), moved, device("3", 9000)});
  EXPECT_EQ(calls, (std::vector<std::string>{"11", "04", "22"}));
  QN_DeviceMgr_NotifyDetach(hear);
}

TEST(ConfigurationInForce, ReadersAlwaysSeeAWholeOne) {
  publish({device("1", 9001)});
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&stop] {
      while (!stop) {
        const auto current = configuration();
        for (const DeviceConfig& d : current->devices) {
          ASSERT_EQ(current->findDevice(d.index), &d);
          ASSERT_EQ(d.httpPort, 9000 + std::stoi(d.index));
        }
      }
    });
  }
  for (uint16_t n = 1; n <= 200; ++n) publish({device(std::to_string(n), uint16_t(9000 + n))});
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(configuration()->devices[0].index, "200");
}

}  // namespace
}  // namespace qn
