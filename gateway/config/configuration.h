// The gateway's configuration as it was read from the TOML file: plain values, validated once, then
// shared unchanged. Everything in gateway/ reads it through configuration().
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "gateway/auth/digest.h"
#include "gateway/config/name_index.h"
#include "gateway/log/log.h"
#include "gateway/tls/tls_server.h"

namespace qn {

struct HttpOptions {
  std::string address = "127.0.0.1";
  uint16_t port = 8080;
  std::vector<std::string>
      trustedProxies;  // addresses and networks; their X-Forwarded-For is believed
  std::size_t headBytes = 16 * 1024;
  std::chrono::seconds headTime{10};  // for the whole head
  std::size_t bodyBytes = 10 * 1024 * 1024;
  std::chrono::seconds bodyTime{30};  // for the whole body
  std::chrono::seconds idleTime{60};  // keep-alive without a request
  std::size_t connections = 8192;
  std::size_t connectionsPerAddress = 1024;
  std::size_t requests = 4096;  // in flight; more are answered 503
  bool enabled = true;
  std::chrono::seconds drainTime{0};  // before a stop, while clients are led elsewhere

  bool operator==(const HttpOptions&) const = default;
};

// A certificate as the configuration names it, and what stands there.
struct CertificateConfig {
  std::string certificate;  // a file, as the key
  std::string key;
  TlsIdentity identity = {};
  std::chrono::system_clock::time_point expires = {};

  bool operator==(const CertificateConfig&) const = default;
};

// The same protocol over TLS, on a port of its own.
struct HttpsOptions : CertificateConfig {
  std::string address = "127.0.0.1";
  uint16_t port = 0;  // 0: off
  std::string minVersion = "1.2";
  std::vector<std::string> ciphers{kTls12Ciphers.begin(), kTls12Ciphers.end()};
  std::string clientCa;  // a file
  ClientCertificates clientCertificates = ClientCertificates::None;
  std::string clientAuthorities = {};                // what stands there
  uint16_t redirectPort = 0;                         // the port, or the one that is mapped to it
  bool redirect = false;                             // of what comes by HTTP
  std::size_t handshakes = 1024;                     // at once; the longest ends for a further one
  std::chrono::seconds handshakeTime{10};            // for a whole handshake
  std::vector<CertificateConfig> certificates = {};  // the others

  bool isOn() const { return port != 0; }
  TlsServerOptions tls() const;
  // Its own and the others; none while it is off.
  std::vector<CertificateConfig> inUse() const;
  bool operator==(const HttpsOptions&) const = default;
};

struct NetworkOptions {
  bool httpsEnabled = false;
  uint16_t httpsPort = 443;
  uint16_t rtspPort = 554;
  bool portMapping = false;
  uint16_t extHttpPort = 0;
  uint16_t extHttpsPort = 0;
  uint16_t extRtspPort = 0;
  uint16_t picturePort = 8090;
};

struct KavroOptions {
  int mode = 1;  // a KAVROMode
  std::string realm = "KAVRO";
  DigestAlgorithm algorithm = DigestAlgorithm::MD5;  // offered first
  bool mimeParts = false;                            // a line break before each further boundary
  std::string nonceKeyFile;
  // From that file: of all gateways that know each other's nonces. Empty: the process's own.
  std::string nonceKey;
};

struct LockOptions {
  int maxAttempts = 5;
  std::chrono::seconds lockTime{1800};
};

struct StorageOptions {
  std::string dataDir = "/var/lib/qn-gateway";
  std::size_t operationLogRows = 100000;  // the oldest are dropped
  std::string operationLog;               // the database that gets the rows; none: nowhere
  std::size_t operationLogDays = 90;      // that are kept there

  bool operator==(const StorageOptions&) const = default;
};

// What makes one gateway of several.
struct ClusterOptions {
  std::string name;   // this gateway's; none: that of the host
  std::string redis;  // what gateways share live state through; none: this one is by itself
  std::chrono::seconds leaseTime{5};  // on a device's alarms
};

// What the picture store keeps.
struct PictureOptions {
  enum class WhenFull { Refuse, DropOldest };

  std::size_t maxBytes = 256 * 1024 * 1024;
  std::size_t maxCount = 10000;
  WhenFull full = WhenFull::DropOldest;
};

// What the device-configuration bus allows each device.
struct BusOptions {
  std::size_t deviceConnections = 16;  // connections, so requests in flight
  std::size_t deviceQueue = 256;       // requests waiting for a connection
  std::size_t replyBytes = 16 * 1024 * 1024;
  // What requests that are not answered may hold; a single one may hold more.
  std::size_t deviceBytes = 32 * 1024 * 1024;
  std::size_t bytes = 256 * 1024 * 1024;        // of all devices
  std::size_t replyMemory = 256 * 1024 * 1024;  // what all long replies may hold at once
};

// Metrics, health and the operator's page, on a port of their own.
struct AdminOptions {
  std::string address = "127.0.0.1";
  uint16_t port = 0;  // 0: off
  std::string username = "admin";
  std::string password;      // empty, on loopback only: no login
  std::string metricsToken;  // also opens the metrics, for those who know no Digest

  bool operator==(const AdminOptions&) const = default;
};

// The user whose presence activates the gateway.
inline constexpr std::string_view kAdministrator = "admin";

struct UserConfig {
  std::string name;
  std::string ha1;                   // hex digest of name:realm:password, of either algorithm
  std::string device;                // the user's own
  std::vector<std::string> devices;  // others that the user may use through their ports (mode 2)
  std::string strongHa1 = {};        // SHA-256, where ha1 is MD5 and the password is known

  // Empty when the user may not log in with it.
  std::string_view ha1For(DigestAlgorithm algorithm) const;
  bool operator==(const UserConfig&) const = default;
};

// How the gateway may log in at a device. Basic shows the password to everybody on the way, so it
// is used only where it is written.
enum class DeviceAuth { Digest, Basic, Any };

inline constexpr uint16_t kDeviceHttpPort = 80;
inline constexpr uint16_t kDeviceHttpsPort = 443;

struct DeviceConfig {
  std::string index;
  std::string host;                 // of the URL; an IPv6 address without its brackets
  uint16_t port = kDeviceHttpPort;  // of the URL
  std::string basePath;             // of the URL, without a trailing slash
  std::string username;
  std::string password;
  DeviceAuth auth = DeviceAuth::Digest;
  uint16_t httpPort = 0;  // the device's own KAVRO port in mode 2; 0: none
  uint16_t rtspPort = 0;
  bool tls = false;              // the URL is of https
  bool verify = true;            // who the device is, by one of:
  std::string authorities = {};  // certificates, PEM; empty: those of the system
  std::string fingerprint = {};  // SHA-256 of its certificate, in lower-case hexadecimal; or none

  // Whether requests go to the same place with the same login.
  bool sameServer(const DeviceConfig& other) const;
  bool operator==(const DeviceConfig&) const = default;
};

struct Configuration {
  std::vector<std::string> include;  // files with further users and devices
  HttpOptions http;
  HttpsOptions https;
  NetworkOptions network;
  KavroOptions kavro;
  LockOptions lock;
  StorageOptions storage;
  ClusterOptions cluster;
  PictureOptions pictures;
  BusOptions bus;
  AdminOptions admin;
  LogOptions log;
  std::vector<UserConfig> users;
  std::vector<DeviceConfig> devices;

  // Null when there is none.
  const UserConfig* findUser(std::string_view name) const;
  // By the hexadecimal digest of name:realm.
  const UserConfig* findHashedUser(std::string_view hash) const;
  const DeviceConfig* findDevice(std::string_view index) const;
  const DeviceConfig* findDeviceByPort(uint16_t httpPort) const;  // never for 0

  bool mayUse(const UserConfig& user, std::string_view device) const;
  // Whether what somebody was allowed who logged in before still is: the user is there, with the
  // same password, and may use the device.
  bool stillAllows(std::string_view user, std::string_view ha1, std::string_view device) const;

  // Whether any user may log in with it, or it is the gateway's own.
  bool offers(DigestAlgorithm algorithm) const;

  // What the look-ups use; call it after changing users or devices. Of two with one name the first
  // counts.
  void buildIndexes();

 private:
  // A user's hash, hashed again: the digests themselves would be most of what a user takes.
  struct HashedUser {
    std::size_t hash;
    uint32_t position;
    auto operator<=>(const HashedUser&) const = default;
  };

  NameIndex<UserConfig, &UserConfig::name> usersByName_;
  std::vector<HashedUser> usersByHash_;  // in order
  NameIndex<DeviceConfig, &DeviceConfig::index> devicesByIndex_;
  std::unordered_map<uint16_t, std::size_t> devicesByPort_;
  bool offersBoth_ = false;
};

// The configuration in force; an empty one before the first publish. Any thread, without a lock
// while nothing changes. The reference is the calling thread's own and good until its next call, so
// copy it to keep it.
const std::shared_ptr<const Configuration>& configuration();

// Makes a configuration whose look-ups are built the one in force and announces the difference in
// devices, on the calling thread, to the routines attached with QN_DeviceMgr_NotifyAttach. Called
// at start and on SIGHUP.
void publishConfiguration(const std::shared_ptr<const Configuration>& next);

}  // namespace qn
