// The configuration file, the configuration in force, and what platform/config_mgr.h and
// platform/device_mgr.h promise about both.
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <thread>
#include <tuple>
#include <vector>

#include "gateway/config/configuration_file.h"
#include "gateway/config/key_texts.h"
#include "gateway/config/redis_url.h"
#include "platform/config_mgr.h"
#include "platform/device_mgr.h"
#include "tests/contract/certificates.h"
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
  const HttpsOptions& s = c.https;
  EXPECT_EQ(tuple(s.address, s.isOn(), s.certificate, s.key, s.minVersion, s.clientCa),
            tuple("::1", false, "server.pem", "server.key", "1.3", "clients.pem"));
  EXPECT_EQ(tuple(s.ciphers.size(), s.clientCertificates, s.handshakes, s.handshakeTime),
            tuple(1U, ClientCertificates::Required, 7U, seconds(8)));
  const NetworkOptions& n = c.network;
  EXPECT_EQ(tuple(n.httpsEnabled, n.httpsPort, n.rtspPort, n.portMapping),
            tuple(true, 8443, 8554, true));
  EXPECT_EQ(tuple(n.extHttpPort, n.extHttpsPort, n.extRtspPort, n.picturePort),
            tuple(1, 2, 3, 8091));
  EXPECT_EQ(tuple(c.kavro.mode, c.kavro.realm, c.kavro.algorithm),
            tuple(2, "My Realm", DigestAlgorithm::SHA256));
  EXPECT_EQ(tuple(c.lock.maxAttempts, c.lock.lockTime), tuple(7, seconds(60)));
  EXPECT_EQ(c.storage, (StorageOptions{"/tmp/x", 10, "postgresql://u:p@h/d", 7}));
  EXPECT_EQ(c.cluster.name, "one");
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

std::string textOf(const char* file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(ConfigurationFile, TheExampleIsMadeOfTheKeysAndTheirDefaults) {
  const std::string example = textOf(QN_EXAMPLE_CONFIGURATION);
  EXPECT_EQ(example, exampleConfiguration()) << "qn-gateway --print-defaults makes it";
  const Configuration plain = read(example);
  EXPECT_EQ(tuple(plain.http, plain.storage), tuple(HttpOptions(), StorageOptions()));
  EXPECT_EQ(tuple(plain.users.size(), plain.devices.size()), tuple(1U, 1U));
  // With the defaults said, it says the same.
  const std::regex said(
      "(^|\n)# ((?!include|trusted_proxies|nonce_key|operation_log "
      "=|redis|password|ha1|certificate|key|"
      "client_ca|ca_file|fingerprint)[a-z_]+ = )");
  const Configuration full = read(std::regex_replace(example, said, "$1$2"));
  EXPECT_EQ(tuple(full.http, full.storage), tuple(HttpOptions(), StorageOptions()));
  const auto others = [](const Configuration& c) {
    return tuple(c.kavro.realm, c.kavro.mode, c.lock.maxAttempts, c.lock.lockTime,
                 c.network.httpsPort, c.pictures.maxBytes, c.pictures.full, c.bus.deviceQueue,
                 c.log.level, c.devices.at(0).auth);
  };
  EXPECT_EQ(others(full), others(plain));
}

TEST(ConfigurationFile, RedisIsNamedByAUrl) {
  const auto parts = [](const char* url) {
    const auto address = parseRedisUrl(url);
    return address ? address->host + ' ' + std::to_string(address->port) + ' ' + address->username +
                         ' ' + address->password + ' ' + std::to_string(address->database)
                   : std::string();
  };
  EXPECT_EQ(parts("redis://h"), "h 6379   0");
  EXPECT_EQ(parts("redis://:p%40:x@h:1/15"), "h 1  p@:x 15");
  EXPECT_EQ(parts("redis://u:p@[::1]:2/"), "::1 2 u p 0");
  for (const char* bad : {"", "h", "redis://", "redis://h:", "redis://h:0", "redis://h:99999",
                          "redis://u@h", "redis://:p%4@h", "redis://:p%zz@h", "redis://[::1",
                          "redis://h/x", "redis://h/-1", "redis://h/9999", "rediss://h"}) {
    EXPECT_EQ(parts(bad), "") << bad;
  }
  EXPECT_NE(errorOf("[cluster]\nredis = \"redis://h\"\n").find("nonce_key_file"),
            std::string::npos);
}

TEST(ConfigurationFile, EveryKeyIsExplained) {
  std::size_t keys = 0;
  for (const SectionFacts& section : sectionFacts()) {
    EXPECT_FALSE(section.about.empty()) << section.name;
    for (const KeyFacts& key : section.keys) {
      EXPECT_TRUE(key.about.size() > 10 && key.about.size() <= 100) << key.name;
      EXPECT_NE(explanationOf(key.name).find(key.about), std::string::npos);
      EXPECT_NE(manualPage().find(key.name.substr(key.name.find('.') + 1)), std::string::npos);
      ++keys;
    }
  }
  EXPECT_GE(keys, 50U);
  EXPECT_EQ(explanationOf("http.prot"), "");
  const std::pair<const char*, const char*> guesses[] = {
      {"http.prot", "http.port"}, {"level", "log.level"}, {"htp", "http"}, {"zzz", ""}};
  for (const auto& [name, guess] : guesses) {
    const std::string said = *guess ? "; did you mean \"" + std::string(guess) + "\"?" : "";
    EXPECT_EQ(didYouMeanKey(name), said);
  }
}

TEST(ConfigurationFile, CertificatesAreCheckedWithTheirKeys) {
  Authority authority;
  const PemPair good = authority.issue("good", "DNS:One.test,DNS:*.two.test,IP:127.0.0.1");
  const PemPair other = authority.issue("other", "DNS:other.test");
  const Folder folder;
  folder.write("good.pem", contentOfPem(good.certificate));
  folder.write("good.key", contentOfPem(good.key));
  folder.write("other.key", contentOfPem(other.key));
  folder.write("broken.pem",
               contentOfPem(good.certificate) + "-----BEGIN CERTIFICATE-----\nAAAA\n");
  folder.write("empty.pem", "");
  const auto read = [&](const std::string& certificate, const std::string& key,
                        const std::string& more = {}) {
    return readConfiguration(folder.write("test.toml", "[https]\nport = 443\n" +
                                                           ("certificate = \"" + certificate) +
                                                           "\"\nkey = \"" + key + "\"\n" + more));
  };
  const Configuration c = read("good.pem", "good.key");
  EXPECT_EQ(factsOf(c.https.identity).names, (std::vector<std::string>{"one.test", "*.two.test"}));
  EXPECT_GT(c.https.expires, std::chrono::system_clock::now());
  const std::string client = "client_certificates = \"required\"\n";
  const struct {
    std::string certificate, key, more, error;
  } cases[] = {
      {"none.pem", "good.key", "", ":3:15: https.certificate: "},
      {"empty.pem", "good.key", "", "empty.pem: is empty"},
      {"broken.pem", "good.key", "", "the one after the first 1 cannot be read"},
      {"good.pem", "good.pem", "", ":4:7: https.key: "},
      {"good.pem", "other.key", "", "other.key: expected the key of the certificate"},
      {"good.pem", "good.key", client, "https.client_ca: expected a file"},
      {"good.pem", "good.key", client + "client_ca = \"good.key\"", "expected a certificate"},
      {"good.pem", "good.key", "ciphers = []", "https.ciphers: expected at least one"},
      {"good.pem", "good.key", "ciphers = [\"AES128-SHA\"]", "https.ciphers: expected a string"},
      {"good.pem", "good.key", "redirect = true\n[http]\nenabled = false",
       "https.redirect: expected"},
      {"good.pem", "good.key", "[network]\npicture_port = 443",
       "expected a value that is not taken"},
      {"good.pem", "good.key", "[[certificates]]\ncertificate = \"good.pem\"",
       "certificates.key: is m"},
  };
  for (const auto& [certificate, key, more, error] : cases) {
    try {
      read(certificate, key, more);
      ADD_FAILURE() << error;
    } catch (const ConfigurationError& found) {
      EXPECT_NE(std::string(found.what()).find(error), std::string::npos) << found.what();
    }
  }
  // What clients are told follows the listener, unless ports are mapped.
  for (const bool mapped : {false, true}) {
    publishConfiguration(std::make_shared<const Configuration>(
        read("good.pem", "good.key", mapped ? "[network]\nport_mapping = true" : "")));
    const auto told = QN_ConfigMgr_GetNetworkCfg();
    EXPECT_EQ(tuple(told->getHttpsEnable(), told->getHttpsPort()), tuple(!mapped, 443));
  }
}

TEST(ConfigurationFile, ErrorsNameLineKeyAndWhatIsExpected) {
  const std::string device = "[[devices]]\nindex = \"1\"\nurl = \"http://h\"\n";
  const std::string user = "[[users]]\nname = \"a\"\ndevice = \"1\"\npassword = \"p\"\n";
  const std::string tls = "[[devices]]\nindex = \"1\"\nurl = \"https://h\"\n";
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
      {"[http]\nenabled = false\n", ": https.port: expected one, because http.enabled is false"},
      {"[https]\nredirect = true\n", ": https.port: expected one, because redirect is true"},
      {"[https]\nmin_version = \"1.1\"\n", ":2: https.min_version: expected a string: \"1.2\""},
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
      {device + "fingerprint = \"" + std::string(64, 'a') + "\"\n",
       ":4: devices.fingerprint: expected beside an https:// url"},
      {tls + "fingerprint = \"ab\"\n", ":4: devices.fingerprint: expected a string: 64 hex"},
      {tls + "fingerprint = \"" + std::string(64, 'a') + "\"\nverify = false\n",
       ":3: devices.url: expected one of ca_file, fingerprint and verify"},
      {tls + "ca_file = \"none\"\n", ":4: devices.ca_file: "},
      {user + "ha1_sha256 = \"00\"\n", ":5: users.ha1_sha256: expected beside ha1"},
      {device + "auth = \"none\"\n", ":4: devices.auth: expected a string: \"digest\","},
  };
  const auto expectError = [](const std::string& content, const std::string& error) {
    const std::string found =  // without the column
        std::regex_replace(errorOf(content), std::regex("(\\.toml:\\d+):\\d+"), "$1");
    EXPECT_NE(found.find(".toml" + error), std::string::npos) << content << "\n-> " << found;
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
       {"", "ftp://h", "https://", "http://", "http://:80", "http://h:", "http://h:0",
        "http://h:65536", "http://h:80x", "http://u:p@h", "http://h/a?b", "http://h/a b",
        "http://::1/", "http://[::1", "http://[h]", "http://[::1]x"}) {
    expectError("[[devices]]\nindex = \"1\"\nurl = \"" + std::string(url) + "\"\n",
                ":3: devices.url: expected a string: http://");
  }
}

TEST(ConfigurationFile, AllErrorsComeAtOnceInTheirOrderWithColumnValueAndAGuess) {
  const std::string content =
      "[http]\nprot = 80\nport = 99999\n[kavro]\nalgorithm = \"md5\"\nrealm = \"a\n  mode = 3\n"
      "[[users]]\npasword = \"hunter2\"\n[[devices\nindex = 1\n[log]\nlevel = \"warning\"\n"
      "[[devices]]\nurl = \"http://u:pw@h\"\n[lgo]\nx = [\n[bus]\nbytes = 1\n";
  const Folder folder;
  const auto file = folder.write("test.toml", content);
  const std::pair<const char*, const char*> expected[] = {
      {"2:1: http.prot: unknown key", "; did you mean \"port\"?"},
      {"3:8: http.port: expected an integer from 1 to 65535, not 99999", ""},
      {"5:13: kavro.algorithm: expected", ", not \"md5\"; did you mean \"MD5\"?"},
      {"6:", ""},
      {"7:10: kavro.mode: expected an integer", ", not 3"},
      {"9:1: users.pasword: unknown key", "; did you mean \"password\"?"},
      {"10:", ""},
      {"13:9: log.level: expected", ", not \"warning\"; did you mean \"warn\"?"},
      {"15:7: devices.url: expected a string: ", ""},
      {"16:2: lgo: unknown section", "; did you mean \"log\"?"},
      {"18:2: ", ""},
      {"18:2: ", "what follows was not read"},
  };
  try {
    readConfiguration(file);
    FAIL();
  } catch (const ConfigurationError& error) {
    ASSERT_EQ(error.lines().size(), std::size(expected)) << error.what();
    for (std::size_t i = 0; i < std::size(expected); ++i) {
      EXPECT_TRUE(error.lines()[i].starts_with(file.string() + ':' + expected[i].first) &&
                  error.lines()[i].ends_with(expected[i].second))
          << error.lines()[i];
    }
    EXPECT_EQ(std::string(error.what()).find("hunter2"), std::string::npos);
    EXPECT_EQ(std::string(error.what()).find("pw@"), std::string::npos);
  }
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "x" + std::to_string(i) + " = 1\n";
  EXPECT_NE(errorOf(many).find(": 900 more errors are not shown"), std::string::npos);
}

TEST(ConfigurationFile, SecretsComeFromFiles) {
  const Folder folder;
  const auto credentials = folder.path() / "credentials";
  std::filesystem::create_directory(credentials);
  std::ofstream(credentials / "admin") << "from systemd\n";
  setenv("CREDENTIALS_DIRECTORY", credentials.c_str(), 1);
  folder.write("pw", "from file\r\n");
  folder.write("ha1", std::string(32, 'A') + "\n");
  folder.write("two", "a\nb\n");
  folder.write("long", std::string(5000, 'x'));
  folder.write("empty", "\n");
  const std::string user = "[[users]]\nname = \"admin\"\ndevice = \"1\"\n";
  const std::string device = "[[devices]]\nindex = \"1\"\nurl = \"http://h\"\nusername = \"u\"\n";
  const auto ha1 = [](const char* password) {
    return std::string(hexDigest(DigestAlgorithm::MD5, {"admin", "KAVRO", password}).text());
  };
  struct Case {
    std::string content;
    std::string result;  // the user's HA1 or the device's password; else part of the error
  };
  const Case cases[] = {
      {user + "password_file = \"pw\"\n", ha1("from file")},
      {user + "password_file = \"credential:admin\"\n", ha1("from systemd")},
      {user + "ha1_file = \"ha1\"\n", std::string(32, 'a')},
      {device + "password_file = \"pw\"\n", "from file"},
      {user + "password_file = \"two\"\n", ":4:17: users.password_file: "},
      {user + "ha1_file = \"pw\"\n", "pw: expected one line: the hexadecimal digest"},
      {device + "password_file = \"long\"\n", "long: expected at most 4096 bytes"},
      {device + "password_file = \"empty\"\n", "empty: expected one line"},
      {device + "password_file = \"none\"\n", "none cannot be read: No such file"},
      {device + "password_file = \"/dev/zero\"\n", "/dev/zero: expected a file"},
      {device + "password = \"p\"\npassword_file = \"pw\"\n", "expected either password or pass"},
      {user + "password = \"p\"\nha1_file = \"ha1\"\n", "expected either password or ha1"},
      {user + "password_file = \"credential:../pw\"\n", "expected the name of a credential"},
  };
  for (const Case& c : cases) {
    std::string result;
    try {
      const auto read = examineConfiguration(folder.write("gateway.toml", c.content));
      result = read.configuration.users.empty() ? read.configuration.devices.at(0).password
                                                : read.configuration.users.at(0).ha1;
    } catch (const ConfigurationError& error) {
      result = error.what();
      EXPECT_EQ(result.find("from"), std::string::npos);
    }
    EXPECT_NE(result.find(c.result), std::string::npos) << c.content << "\n-> " << result;
  }
  unsetenv("CREDENTIALS_DIRECTORY");
}

TEST(ConfigurationFile, WhatIsProbablyNotMeantSoIsAWarning) {
  const Folder folder;
  const std::string user = "[[users]]\nname = \"admin\"\ndevice = \"1\"\n";
  const std::string device = "[[devices]]\nindex = \"1\"\nurl = \"http://h\"\n";
  const auto good = device + user + "password = \"p\"\n";
  struct Case {
    std::string content;
    unsigned mode;
    std::string warning;  // empty: none
  };
  folder.write("pw", "x");
  std::filesystem::permissions(folder.path() / "pw", std::filesystem::perms(0644));
  const Case cases[] = {
      {good, 0640, ""},
      {good, 0644, ": everybody may read it"},
      {device, 0600, "there is no user \"admin\""},
      {device + user + "password = \"change-me\"\n", 0600, ":7:12: users.password: is the one of"},
      {user + "password = \"p\"\n", 0600, "device \"1\", which is not configured"},
      {device + user + "password_file = \"pw\"\n", 0644, "pw may be read by everybody"},
      {good + "[network]\nhttps_enabled = true\n", 0600, ":9:17: network.https_enabled: clients"},
      {good + "[network]\nhttps_enabled = true\n[http]\ntrusted_proxies = [\"::1\"]\n", 0600, ""},
  };
  for (const Case& c : cases) {
    const auto file = folder.write("gateway.toml", c.content);
    std::filesystem::permissions(file, std::filesystem::perms(c.mode));
    const auto warnings = examineConfiguration(file).warnings;
    ASSERT_EQ(warnings.size(), c.warning.empty() ? 0U : 1U) << c.content;
    for (const auto& each : warnings) EXPECT_NE(each.find(c.warning), each.npos) << each;
  }
}

TEST(ConfigurationFile, AUserMayHaveAnAlgorithmOfTheOwn) {
  const std::string start = "[[users]]\nname = \"a\"\ndevice = \"1\"\n";
  const std::string ha1 = "ha1 = \"" + std::string(32, '0') + "\"\n";
  const std::string sha256 = "ha1_sha256 = \"" + std::string(64, 'A') + "\"\n";
  const std::string strong = "algorithm = \"SHA-256\"\n";
  // The user may log in with MD5, with SHA-256; the gateway offers MD5, SHA-256.
  const std::pair<std::string, tuple<bool, bool, bool, bool>> cases[] = {
      {start + "password = \"p\"\n", {true, true, true, false}},
      {start + ha1, {true, false, true, false}},
      {start + ha1 + sha256, {true, true, true, false}},
      {start + ha1 + sha256 + strong, {false, true, true, true}},
      {start + sha256 + strong, {false, true, true, true}},
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
  EXPECT_NE(errorOf(start + ha1 + strong).find(":4:7: users.ha1: expected 64 hex"),
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
      EXPECT_NE(std::string(error.what()).find(":3:18: kavro.nonce_key_file: "), std::string::npos);
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

TEST(Configuration, LookUpsFindEveryNameAndTheFirstOfTwo) {
  Configuration made;
  EXPECT_EQ(made.findUser("0"), nullptr);  // nothing is built
  EXPECT_EQ(made.findHashedUser(""), nullptr);
  for (int i = 0; i < 1000; ++i) {
    made.users.push_back({std::to_string(i % 900), "", std::to_string(i), {}});
    made.devices.push_back(device(std::to_string(i % 900)));
    made.devices.back().host = std::to_string(i);
  }
  made.buildIndexes();
  const Configuration copy = made;
  made = {};
  for (int i = 0; i < 900; ++i) {
    const std::string name = std::to_string(i);
    ASSERT_TRUE(copy.findUser(name) && copy.findDevice(name)) << name;
    EXPECT_EQ(copy.findUser(name)->device, name);
    EXPECT_EQ(copy.findDevice(name)->host, name);
    for (const auto algorithm : {DigestAlgorithm::MD5, DigestAlgorithm::SHA256}) {
      const HexDigest hash = hexDigest(algorithm, {name, copy.kavro.realm});
      EXPECT_EQ(copy.findHashedUser(hash.text()), copy.findUser(name));
    }
  }
  for (const char* name : {"", "900", "00", "0 "}) {
    EXPECT_FALSE(copy.findUser(name) || copy.findDevice(name) || copy.findHashedUser(name)) << name;
  }
}

void publish(std::vector<DeviceConfig> devices, const std::string& user = "admin") {
  const auto next = std::make_shared<Configuration>();
  next->http.port = 8123;
  next->kavro.mode = KAVRO_MODE_DEVICE_PORTS;
  next->users.push_back({user, "", "1", {}});
  next->devices = std::move(devices);
  next->buildIndexes();
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
