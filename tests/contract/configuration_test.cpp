// The configuration file, the configuration in force, and what platform/config_mgr.h and
// platform/device_mgr.h promise about both.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "gateway/config/configuration_file.h"
#include "gateway/config/picture_uploader.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"

namespace qn {
namespace {

class File {
 public:
  explicit File(const std::string& content)
      : path_(std::filesystem::temp_directory_path() /
              ("qn_configuration_" + std::to_string(getpid()) + ".toml")) {
    std::ofstream(path_, std::ios::binary) << content;
  }
  ~File() { std::filesystem::remove(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  const std::filesystem::path path_;
};

Configuration read(const std::string& content) { return readConfiguration(File(content).path()); }

std::string errorOf(const std::string& content) {
  try {
    read(content);
    return "no error";
  } catch (const ConfigurationError& error) {
    return error.what();
  }
}

constexpr const char* kWhole = R"([http]
address = "::"
port = 8081
trusted_proxies = ["10.0.0.1", "fe80::1"]
head_bytes = 2048
head_seconds = 1
body_bytes = 4096
body_seconds = 2
idle_seconds = 3
connections = 4
connections_per_address = 5
requests = 6
[network]
https_enabled = true
https_port = 8443
rtsp_port = 8554
port_mapping = true
ext_http_port = 1
ext_https_port = 2
ext_rtsp_port = 3
picture_port = 8091
[kavro]
mode = 2
realm = "My Realm"
algorithm = "SHA-256"
[lock]
max_attempts = 7
lock_seconds = 60
[storage]
data_dir = "/tmp/x"
operation_log_rows = 10
[pictures]
max_bytes = 1048576
max_count = 3
full = "refuse"
[bus]
device_connections = 2
device_queue = 0
reply_bytes = 5000
[log]
level = "warn"
[[users]]
name = "admin"
password = "12345"
device = "1"
[[users]]
name = "operator"
ha1 = "ABCDEF00000000000000000000000000000000000000000000000000000000ff"
device = "gone"
devices = ["1", "cam-2"]
[[devices]]
index = "1"
url = "http://127.0.0.1:9001/a/b/"
username = "u"
password = "p"
http_port = 9101
rtsp_port = 9102
[[devices]]
index = "cam-2"
url = "http://[::1]"
)";

TEST(ConfigurationFile, EveryKeyReachesItsMember) {
  const Configuration c = read(kWhole);
  using std::chrono::seconds;
  EXPECT_EQ(c.http.address, "::");
  EXPECT_EQ(c.http.port, 8081);
  EXPECT_EQ(c.http.trustedProxies, (std::vector<std::string>{"10.0.0.1", "fe80::1"}));
  EXPECT_EQ(c.http.headBytes, 2048U);
  EXPECT_EQ(c.http.headTime, seconds(1));
  EXPECT_EQ(c.http.bodyBytes, 4096U);
  EXPECT_EQ(c.http.bodyTime, seconds(2));
  EXPECT_EQ(c.http.idleTime, seconds(3));
  EXPECT_EQ(c.http.connections, 4U);
  EXPECT_EQ(c.http.connectionsPerAddress, 5U);
  EXPECT_EQ(c.http.requests, 6U);
  EXPECT_TRUE(c.network.httpsEnabled);
  EXPECT_EQ(c.network.httpsPort, 8443);
  EXPECT_EQ(c.network.rtspPort, 8554);
  EXPECT_TRUE(c.network.portMapping);
  EXPECT_EQ(c.network.extHttpPort, 1);
  EXPECT_EQ(c.network.extHttpsPort, 2);
  EXPECT_EQ(c.network.extRtspPort, 3);
  EXPECT_EQ(c.network.picturePort, 8091);
  EXPECT_EQ(c.kavro.mode, 2);
  EXPECT_EQ(c.kavro.realm, "My Realm");
  EXPECT_EQ(c.kavro.algorithm, DigestAlgorithm::SHA256);
  EXPECT_EQ(c.lock.maxAttempts, 7);
  EXPECT_EQ(c.lock.lockTime, seconds(60));
  EXPECT_EQ(c.storage.dataDir, "/tmp/x");
  EXPECT_EQ(c.storage.operationLogRows, 10U);
  EXPECT_EQ(c.pictures.maxBytes, 1048576U);
  EXPECT_EQ(c.pictures.maxCount, 3U);
  EXPECT_EQ(c.pictures.full, PictureOptions::WhenFull::Refuse);
  EXPECT_EQ(c.bus.deviceConnections, 2U);
  EXPECT_EQ(c.bus.deviceQueue, 0U);
  EXPECT_EQ(c.bus.replyBytes, 5000U);
  EXPECT_EQ(c.log.level, "warn");
  ASSERT_EQ(c.users.size(), 2U);
  EXPECT_EQ(c.users[0].ha1,
            hexDigest(DigestAlgorithm::SHA256, {"admin", "My Realm", "12345"}).text());
  EXPECT_EQ(c.users[0].device, "1");
  EXPECT_EQ(c.users[1].ha1, "abcdef00000000000000000000000000000000000000000000000000000000ff");
  EXPECT_EQ(c.users[1].devices, (std::vector<std::string>{"1", "cam-2"}));
  ASSERT_EQ(c.devices.size(), 2U);
  EXPECT_EQ(c.devices[0].host, "127.0.0.1");
  EXPECT_EQ(c.devices[0].port, 9001);
  EXPECT_EQ(c.devices[0].basePath, "/a/b");
  EXPECT_EQ(c.devices[0].username, "u");
  EXPECT_EQ(c.devices[0].password, "p");
  EXPECT_EQ(c.devices[0].httpPort, 9101);
  EXPECT_EQ(c.devices[0].rtspPort, 9102);
  EXPECT_EQ(c.devices[1].host, "::1");
  EXPECT_EQ(c.devices[1].port, 80);
  EXPECT_EQ(c.devices[1].basePath, "");
  EXPECT_EQ(c.findDeviceByPort(9101), &c.devices[0]);
  EXPECT_EQ(c.findDeviceByPort(0), nullptr);
  EXPECT_EQ(c.findUser("operator"), &c.users[1]);
  EXPECT_EQ(c.findUser("nobody"), nullptr);
}

TEST(ConfigurationFile, AnEmptyFileGivesTheDefaults) {
  const Configuration c = read("");
  EXPECT_EQ(c.http.port, 8080);
  EXPECT_EQ(c.kavro.realm, "KAVRO");
  EXPECT_TRUE(c.users.empty());
}

TEST(ConfigurationFile, ErrorsNameLineKeyAndWhatIsExpected) {
  struct Case {
    std::string content;
    std::string error;  // after the file's name
  };
  const std::string device = "[[devices]]\nindex = \"1\"\nurl = \"http://h\"\n";
  const std::string user = "[[users]]\nname = \"a\"\ndevice = \"1\"\npassword = \"p\"\n";
  const auto url = [](const std::string& text) {
    return "[[devices]]\nindex = \"1\"\nurl = \"" + text + "\"\n";
  };
  const std::string urlError = ":3: devices.url: expected a string: http://";
  const auto index = [](const std::string& text) { return "[[devices]]\nindex = " + text; };
  const std::string indexError = ":2: devices.index: expected a string: 1 to 63";
  const Case cases[] = {
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
      {"[network]\nhttps_enabled = 1\n", ":2: network.https_enabled: expected true or false"},
      {"[network]\npicture_port = 8080\n", ":2: network.picture_port: expected a value that is "},
      {"[kavro]\nmode = 3\n", ":2: kavro.mode: expected an integer from 1 to 2"},
      {"[kavro]\nrealm = \"a\\\"b\"\n", ":2: kavro.realm: expected a string"},
      {"[kavro]\nalgorithm = \"md5\"\n", ":2: kavro.algorithm: expected a string: \"MD5\" or"},
      {"[lock]\nmax_attempts = 0\n", ":2: lock.max_attempts: expected an integer from 1"},
      {"[pictures]\nmax_bytes = 1000\n", ":2: pictures.max_bytes: expected an integer from"},
      {"[pictures]\nfull = \"drop\"\n", ":2: pictures.full: expected a string: \"refuse\" or"},
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
      {index("\"\""), indexError},
      {index("\"a b\""), indexError},
      {index("\"a&b\""), indexError},
      {index("\"\\u00e9\""), indexError},
      {index("\"" + std::string(64, 'x') + "\""), indexError},
      {index("1"), indexError},
      {url(""), urlError},
      {url("https://h"), urlError},
      {url("http://"), urlError},
      {url("http://:80"), urlError},
      {url("http://h:"), urlError},
      {url("http://h:0"), urlError},
      {url("http://h:65536"), urlError},
      {url("http://h:80x"), urlError},
      {url("http://u:p@h"), urlError},
      {url("http://h/a?b"), urlError},
      {url("http://h/a b"), urlError},
      {url("http://::1/"), urlError},
      {url("http://[::1"), urlError},
      {url("http://[h]"), urlError},
      {url("http://[::1]x"), urlError},
  };
  for (const Case& c : cases) {
    EXPECT_NE(errorOf(c.content).find(".toml" + c.error), std::string::npos)
        << c.content << "\n-> " << errorOf(c.content);
  }
}

TEST(ConfigurationFile, ErrorsNeverShowPasswords) {
  const std::string error =
      errorOf("[[users]]\nname = \"a\"\ndevice = \"1\"\npassword = \"secret\\n\"\n");
  EXPECT_NE(error.find("users.password"), error.npos);
  EXPECT_EQ(error.find("secret"), error.npos);
}

TEST(ConfigurationFile, DeepNestingIsAnErrorAndNoCrash) {
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
}

TEST(ConfigurationFile, MustBeAReadableFileOfBoundedSize) {
  EXPECT_THROW(readConfiguration("/nonexistent/x.toml"), ConfigurationError);
  EXPECT_THROW(readConfiguration("/tmp"), ConfigurationError);
  EXPECT_THROW(readConfiguration("/dev/zero"), ConfigurationError);
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
  EXPECT_EQ(QN_ConfigMgr_GetUserCfg()->getRealm(), "KAVRO");
  EXPECT_EQ(QN_ConfigMgr_GetNetworkCfg()->getHttpPort(), 8123);
  EXPECT_EQ(QN_ConfigMgr_GetKAVROCfg()->getKAVROMode(), 2);
  EXPECT_EQ(QN_ConfigMgr_GetUserCfg(), QN_ConfigMgr_GetUserCfg());
  EXPECT_EQ(QN_DeviceMgr_GetDevice("a")->getDeviceIndex(), "a");
  EXPECT_EQ(QN_DeviceMgr_GetDevice("A"), nullptr);
  std::vector<CKAVROPort> ports(3, CKAVROPort("old", 1, 1));
  QN_DeviceMgr_GetAllKAVROPort(ports);
  ASSERT_EQ(ports.size(), 2U);
  EXPECT_EQ(ports[0].getDeviceIndex(), "b");
  EXPECT_EQ(ports[1].getHttpPort(), 9001);

  const auto before = QN_ConfigMgr_GetUserCfg();
  publish({}, "operator");
  EXPECT_TRUE(before->isActivated()) << "a snapshot does not change";
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

TEST(ConfigurationInForce, PicturesGoToTheInstalledUploader) {
  publish({});
  const auto network = QN_ConfigMgr_GetNetworkCfg();
  int error = 7;
  std::string url;
  EXPECT_FALSE(network->uploadFacetoPss(error, url, "picture", "/u"));
  EXPECT_EQ(error, 0);
  setPictureUploader([](int& errorOut, std::string& urlOut, const std::string& picture,
                        const std::string& clientUrl) {
    errorOut = 3610;
    urlOut = picture + clientUrl;
    return true;
  });
  EXPECT_TRUE(network->uploadFacetoPss(error, url, "picture", "/u"));
  EXPECT_EQ(error, 3610);
  EXPECT_EQ(url, "picture/u");
  setPictureUploader({});
  EXPECT_FALSE(network->uploadFacetoPss(error, url, "picture", "/u"));
}

struct Heard {
  std::vector<std::string> calls;
  bool inForce = true;  // the change was in force at each call
};

void hear(tagNotifyType type, void* devIndex, const void* user) {
  Heard& heard = *static_cast<Heard*>(const_cast<void*>(user));
  const std::string index = static_cast<const char*>(devIndex);
  heard.calls.push_back(std::to_string(type) + index);
  heard.inForce &= (QN_DeviceMgr_GetDevice(index) == nullptr) == (type == DEVICE_REMOVED);
}

TEST(DeviceChanges, AreAnnouncedOnceInForce) {
  publish({device("1"), device("2"), device("3")});
  Heard former;
  Heard heard;
  QN_DeviceMgr_NotifyAttach(hear, &former);
  QN_DeviceMgr_NotifyAttach(hear, &heard);
  DeviceConfig moved = device("2");
  moved.port = 81;
  publish({device("4"), moved, device("3", 9000)});
  EXPECT_EQ(heard.calls, (std::vector<std::string>{"11", "04", "22"}));
  EXPECT_TRUE(heard.inForce);
  EXPECT_TRUE(former.calls.empty());

  QN_DeviceMgr_NotifyDetach(hear);
  QN_DeviceMgr_NotifyDetach(hear);
  publish({});
  EXPECT_EQ(heard.calls.size(), 3U);
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
