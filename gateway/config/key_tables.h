// Every key of the configuration file, one row each: its name, where it goes, what it may be, what
// it is for. Read by configuration_file, which checks the file by it, and by key_texts, which makes
// the explanations, the example, the man page and the completion of it.
#pragma once

#include <string>

#include "gateway/config/configuration.h"
#include "gateway/config/toml_table.h"

namespace qn {

inline constexpr int64_t kMiB = 1024 * 1024;
inline constexpr Range kPort{1, 65535};
inline constexpr Range kPortOrNone{0, 65535};
inline constexpr Range kCount{1, 1000000};
inline constexpr Range kSeconds{1, 3600};
inline constexpr KeyTraits kInSeconds{.unit = "seconds"};
inline constexpr KeyTraits kInBytes{.unit = "bytes"};
inline constexpr KeyTraits kAtStart{.restart = true};

// Those of no section, at the file's top.
inline constexpr std::string_view kTopAbout = "at the top of the file, before all sections";
inline constexpr Key<Configuration> kTopKeys[] = {
    {"include",
     &Configuration::include,
     {},
     &kPathRule,
     "files with [[users]] and [[devices]], beside this one; commands write the first of them",
     {.example = "[\"accounts.toml\"]"}},
};

inline constexpr Key<HttpOptions> kHttpKeys[] = {
    {"address",
     &HttpOptions::address,
     {},
     &kAddressRule,
     "where to listen: one address of the host, or \"0.0.0.0\" or \"::\" for all"},
    {"port", &HttpOptions::port, kPort, {}, "where clients connect"},
    {"trusted_proxies",
     &HttpOptions::trustedProxies,
     {},
     &kNetworkRule,
     "proxies whose X-Forwarded-For is believed; they must append to it or overwrite it",
     {.example = "[\"10.0.0.0/8\"]"}},
    {"head_bytes",
     &HttpOptions::headBytes,
     {1024, kMiB},
     {},
     "the most that a request's head may have",
     kInBytes},
    {"head_seconds",
     &HttpOptions::headTime,
     kSeconds,
     {},
     "for a request's whole head to arrive",
     kInSeconds},
    {"body_bytes",
     &HttpOptions::bodyBytes,
     {1024, 1024 * kMiB},
     {},
     "the most that a request's body may have",
     kInBytes},
    {"body_seconds",
     &HttpOptions::bodyTime,
     kSeconds,
     {},
     "for a request's whole body to arrive",
     kInSeconds},
    {"idle_seconds",
     &HttpOptions::idleTime,
     kSeconds,
     {},
     "how long a connection is kept without a request",
     kInSeconds},
    {"drain_seconds",
     &HttpOptions::drainTime,
     {0, 600},
     {},
     "before a stop: not ready, answers end connections, alert streams end in small groups",
     kInSeconds},
    {"connections",
     &HttpOptions::connections,
     kCount,
     {},
     "of clients, open at once; further ones are told to come later"},
    {"connections_per_address",
     &HttpOptions::connectionsPerAddress,
     kCount,
     {},
     "of one client address (IPv6: of one /64)"},
    {"requests",
     &HttpOptions::requests,
     kCount,
     {},
     "of clients in flight at once; further ones are answered 503"},
    {"enabled", &HttpOptions::enabled, {}, {}, "false: clients come by HTTPS alone"},
};

inline constexpr Key<HttpsOptions> kHttpsKeys[] = {
    {"address",
     &HttpsOptions::address,
     {},
     &kAddressRule,
     "where to listen: one address of the host, or \"0.0.0.0\" or \"::\" for all"},
    {"port", &HttpsOptions::port, kPortOrNone, {}, "where clients connect; 0: there is no HTTPS"},
    {"certificate",
     &HttpsOptions::certificate,
     {},
     &kSecretFileRule,
     "a PEM file of the server's certificate and, behind it, those that lead to its authority",
     {.otherwise = "none", .example = "\"/etc/qn-gateway/tls/fullchain.pem\""}},
    {"key",
     &HttpsOptions::key,
     {},
     &kSecretFileRule,
     "a PEM file of its private key, without a passphrase",
     {.otherwise = "none", .example = "\"credential:secrets_tls-key\""}},
    {"min_version",
     &HttpsOptions::minVersion,
     {},
     &kTlsVersionRule,
     "the oldest TLS that clients may speak"},
    {"ciphers",
     &HttpsOptions::ciphers,
     {},
     &kCipherRule,
     "that clients of TLS 1.2 may choose from"},
    {"client_ca",
     &HttpsOptions::clientCa,
     {},
     &kSecretFileRule,
     "a PEM file of the authorities of clients' certificates",
     {.otherwise = "none", .example = "\"/etc/qn-gateway/tls/clients.pem\""}},
    {"client_certificates",
     &HttpsOptions::clientCertificates,
     {},
     &kClientCertificatesRule,
     "whether clients show certificates of client_ca, besides the login"},
    {"handshakes",
     &HttpsOptions::handshakes,
     kCount,
     {},
     "under way at once, a quarter of them for one address; the longest ends for a further one"},
    {"handshake_seconds",
     &HttpsOptions::handshakeTime,
     kSeconds,
     {},
     "for a whole handshake",
     kInSeconds},
    {"redirect",
     &HttpsOptions::redirect,
     {},
     {},
     "answers whatever comes to http.port with 308 and where it is here"},
};

inline constexpr Key<CertificateConfig> kCertificateKeys[] = {
    {"certificate",
     &CertificateConfig::certificate,
     {},
     &kSecretFileRule,
     "as https.certificate, for the server names that stand in it",
     {.required = true, .example = "\"/etc/qn-gateway/tls/other.pem\""}},
    {"key",
     &CertificateConfig::key,
     {},
     &kSecretFileRule,
     "its private key",
     {.required = true, .example = "\"/etc/qn-gateway/tls/other.key\""}},
};

inline constexpr Key<NetworkOptions> kNetworkKeys[] = {
    {"https_enabled",
     &NetworkOptions::httpsEnabled,
     {},
     {},
     "tells clients of https_port, where a proxy speaks TLS; https.port is told by itself"},
    {"https_port", &NetworkOptions::httpsPort, kPort, {}, "what clients are told"},
    {"rtsp_port", &NetworkOptions::rtspPort, kPort, {}, "what clients are told, in playback URIs"},
    {"port_mapping",
     &NetworkOptions::portMapping,
     {},
     {},
     "tells clients the ext_* ports, those of a router in front, instead of the gateway's"},
    {"ext_http_port",
     &NetworkOptions::extHttpPort,
     kPortOrNone,
     {},
     "the router's for http.port; 0: none"},
    {"ext_https_port",
     &NetworkOptions::extHttpsPort,
     kPortOrNone,
     {},
     "the router's for https_port; 0: none"},
    {"ext_rtsp_port",
     &NetworkOptions::extRtspPort,
     kPortOrNone,
     {},
     "the router's for rtsp_port; 0: none"},
    {"picture_port",
     &NetworkOptions::picturePort,
     kPort,
     {},
     "where devices fetch the face pictures that clients have uploaded"},
};

inline constexpr Key<KavroOptions> kKavroKeys[] = {
    {"mode",
     &KavroOptions::mode,
     {1, 2},
     {},
     "1: one port, each user has one device; 2: each device also has a port of its own"},
    {"realm",
     &KavroOptions::realm,
     {},
     &kRealmRule,
     "what the login is for; every ha1 is made with it, so change both together"},
    {"algorithm",
     &KavroOptions::algorithm,
     {},
     &kAlgorithmRule,
     "of the login's digests; offered first where users differ"},
    {"nonce_key_file",
     &KavroOptions::nonceKeyFile,
     {},
     &kSecretFileRule,
     "32 to 4096 random bytes for the owner alone: tells nonces of a former start from forged ones",
     {.otherwise = "a key of each start", .example = "\"/etc/qn-gateway/nonce.key\""}},
    {"mime_parts",
     &KavroOptions::mimeParts,
     {},
     nullptr,
     "CRLF before each further boundary of an alert stream, for standard MIME readers"},
};

inline constexpr Key<LockOptions> kLockKeys[] = {
    {"max_attempts",
     &LockOptions::maxAttempts,
     {1, 1000},
     {},
     "wrong logins from one client address until it is locked"},
    {"lock_seconds",
     &LockOptions::lockTime,
     {1, 7 * 24 * 3600},
     {},
     "how long it stays locked, and wrong logins are remembered",
     kInSeconds},
};

inline constexpr Key<StorageOptions> kStorageKeys[] = {
    {"data_dir",
     &StorageOptions::dataDir,
     {},
     &kPathRule,
     "the folder of the operation log and the pictures; of one gateway alone",
     kAtStart},
    {"operation_log_rows",
     &StorageOptions::operationLogRows,
     {1, 1000000000},
     {},
     "how many the operation log keeps; the oldest are dropped"},
    {"operation_log",
     &StorageOptions::operationLog,
     {},
     &kPostgresRule,
     "the PostgreSQL database that gets the operation log's rows too, from several gateways",
     {.secret = true,
      .restart = true,
      .otherwise = "rows stay in data_dir",
      .example = "\"postgresql://qn-gateway@db.example/qn?passfile=/etc/qn-gateway/pgpass\""}},
    {"operation_log_days",
     &StorageOptions::operationLogDays,
     {1, 36500},
     {},
     "whole days of rows that are kept in that database",
     {.restart = true, .unit = "days"}},
};

inline constexpr Key<ClusterOptions> kClusterKeys[] = {
    {"name",
     &ClusterOptions::name,
     {},
     &kGatewayNameRule,
     "of this gateway, different from all others'",
     {.restart = true, .otherwise = "the host's name", .example = "\"gateway-1\""}},
    {"redis",
     &ClusterOptions::redis,
     {},
     &kRedisRule,
     "the Redis server through which gateways share logins and alarms; needs kavro.nonce_key_file",
     {.secret = true,
      .restart = true,
      .otherwise = "this gateway is by itself",
      .example = "\"redis://:password@redis.example:6379/0\""}},
    {"lease_seconds",
     &ClusterOptions::leaseTime,
     {1, 60},
     {},
     "how long a gateway that is gone keeps the alarms of its devices from the others",
     {.restart = true, .unit = "seconds"}},
};

inline constexpr Key<PictureOptions> kPictureKeys[] = {
    {"max_bytes",
     &PictureOptions::maxBytes,
     {kMiB, kMiB* kMiB},
     {},
     "what all pictures may have together",
     kInBytes},
    {"max_count", &PictureOptions::maxCount, kCount, {}, "how many pictures there may be"},
    {"full", &PictureOptions::full, {}, &kWhenFullRule, "what a further picture meets then"},
};

inline constexpr Key<BusOptions> kBusKeys[] = {
    {"device_connections",
     &BusOptions::deviceConnections,
     {1, 1024},
     {},
     "to one device, so requests in flight there"},
    {"device_queue",
     &BusOptions::deviceQueue,
     {0, 65536},
     {},
     "requests that wait for a connection to one device"},
    {"reply_bytes",
     &BusOptions::replyBytes,
     {1024, 1024 * kMiB},
     {},
     "the most that a device's reply may have",
     kInBytes},
    {"device_bytes",
     &BusOptions::deviceBytes,
     {1024, kMiB* kMiB},
     {},
     "the most that one device's requests hold until they are answered",
     kInBytes},
    {"bytes",
     &BusOptions::bytes,
     {1024, kMiB* kMiB},
     {},
     "the most that all devices' requests hold until they are answered",
     kInBytes},
    {"reply_memory",
     &BusOptions::replyMemory,
     {1024, kMiB* kMiB},
     {},
     "the most that all long replies (64 KiB and more) hold, with what is made of them",
     kInBytes},
};

inline constexpr Key<AdminOptions> kAdminKeys[] = {
    {"address",
     &AdminOptions::address,
     {},
     &kAddressRule,
     "where operators and their tools connect; other than loopback needs a password"},
    {"port", &AdminOptions::port, kPortOrNone, {}, "0: there is no such listener"},
    {"username", &AdminOptions::username, {}, &kUserNameRule, "of the login there"},
    {"password",
     &AdminOptions::password,
     {},
     &kDevicePasswordRule,
     "of the login there",
     {.otherwise = "no login", .example = "\"change-me\""}},
    {"metrics_token",
     &AdminOptions::metricsToken,
     {},
     &kTokenRule,
     "lets whoever sends it as a Bearer token read /metrics without the login",
     {.otherwise = "none", .example = "\"0123456789abcdef\""}},
};

inline constexpr Key<LogOptions> kLogKeys[] = {
    {"level", &LogOptions::level, {}, &kLevelRule, "the least important lines that are written"},
    {"format", &LogOptions::format, {}, &kLogFormatRule, "of a line; json: one object a line"},
    {"access",
     &LogOptions::access,
     {},
     &kAccessRule,
     "requests that get a line: none, those answered with an error, all"},
    {"file",
     &LogOptions::file,
     {},
     &kPathRule,
     "where lines go; SIGUSR1 opens it anew",
     {.otherwise = "standard error", .example = "\"/var/log/qn-gateway/gateway.log\""}},
};

// With the keys that are not kept as they stand.
struct UserEntry : UserConfig {
  std::string password;
  std::string passwordFile;
  std::string ha1File;
  std::string ha1Sha256;
  DigestAlgorithm algorithm = DigestAlgorithm::MD5;  // the weakest that the user may log in with
};

inline constexpr std::string_view kSecretFileAbout =
    "a file with it instead, of one line; a relative path begins at this file's folder";

inline constexpr Key<UserEntry> kUserKeys[] = {
    {"name",
     &UserEntry::name,
     {},
     &kUserNameRule,
     "without a user named \"admin\" the gateway is not activated and serves nobody",
     {.required = true, .example = "\"admin\""}},
    {"password",
     &UserEntry::password,
     {},
     &kPasswordRule,
     "one of password, password_file, ha1 and ha1_file is needed",
     {.secret = true, .otherwise = "none", .example = "\"change-me\""}},
    {"password_file",
     &UserEntry::passwordFile,
     {},
     &kSecretFileRule,
     kSecretFileAbout,
     {.otherwise = "none", .example = "\"credential:secrets_admin\""}},
    {"ha1",
     &UserEntry::ha1,
     {},
     &kHa1Rule,
     "the hexadecimal digest of name:realm:password",
     {.secret = true, .otherwise = "none", .example = "\"<digest>\""}},
    {"ha1_file",
     &UserEntry::ha1File,
     {},
     &kSecretFileRule,
     kSecretFileAbout,
     {.otherwise = "none", .example = "\"credential:secrets_admin-ha1\""}},
    {"ha1_sha256",
     &UserEntry::ha1Sha256,
     {},
     &kHa1Rule,
     "the SHA-256 digest beside an MD5 one in ha1, for clients that prefer it",
     {.secret = true, .otherwise = "none", .example = "\"<digest>\""}},
    {"device",
     &UserEntry::device,
     {},
     &kDeviceIndexRule,
     "the index of the user's own device",
     {.required = true, .example = "\"1\""}},
    {"devices",
     &UserEntry::devices,
     {},
     &kDeviceIndexRule,
     "further devices that the user may reach through their own ports (mode 2)"},
    {"algorithm",
     &UserEntry::algorithm,
     {},
     &kAlgorithmRule,
     "the weakest that this user may log in with",
     {.otherwise = "that of [kavro]"}},
};

struct DeviceEntry : DeviceConfig {
  std::string url;
  std::string passwordFile;
  std::string caFile;
};

inline constexpr Key<DeviceEntry> kDeviceKeys[] = {
    {"index",
     &DeviceEntry::index,
     {},
     &kDeviceIndexRule,
     "the name of the device",
     {.required = true, .example = "\"1\""}},
    {"url",
     &DeviceEntry::url,
     {},
     &kDeviceUrlRule,
     "where it answers",
     {.required = true, .example = "\"http://192.0.2.10:80\""}},
    {"username",
     &DeviceEntry::username,
     {},
     &kDeviceUserRule,
     "of the gateway's login there",
     {.otherwise = "no login"}},
    {"password",
     &DeviceEntry::password,
     {},
     &kDevicePasswordRule,
     "of the gateway's login there",
     {.secret = true}},
    {"password_file",
     &DeviceEntry::passwordFile,
     {},
     &kSecretFileRule,
     kSecretFileAbout,
     {.otherwise = "none", .example = "\"credential:secrets_device-1\""}},
    {"auth",
     &DeviceEntry::auth,
     {},
     &kDeviceAuthRule,
     "how to log in there; all but \"digest\" show the password to everybody on the way"},
    {"ca_file",
     &DeviceEntry::caFile,
     {},
     &kSecretFileRule,
     "the certificates, PEM, of who vouches for the device's; for https",
     {.otherwise = "the system's authorities", .example = "\"cameras-ca.pem\""}},
    {"fingerprint",
     &DeviceEntry::fingerprint,
     {},
     &kFingerprintRule,
     "the SHA-256 of the device's certificate, which then needs nobody to vouch for it; for https",
     {.otherwise = "none", .example = "\"<digest>\""}},
    {"verify",
     &DeviceEntry::verify,
     {},
     {},
     "false: whoever answers is taken for the device; for https"},
    {"http_port",
     &DeviceEntry::httpPort,
     kPortOrNone,
     {},
     "a port of the gateway where clients reach this device (mode 2); 0: none"},
    {"rtsp_port",
     &DeviceEntry::rtspPort,
     kPortOrNone,
     {},
     "what clients of that port are told; 0: none"},
};

// Calls it with name, meaning, keys and member of the Configuration of each section that stands
// once.
template <class Visit>
void forEachSection(Visit visit) {
  visit("http", "the port of the protocol, and what clients may take of the gateway", kHttpKeys,
        &Configuration::http);
  visit("https", "the same with TLS, on a port of its own", kHttpsKeys, &Configuration::https);
  visit("network", "what the gateway tells clients about its ports", kNetworkKeys,
        &Configuration::network);
  visit("kavro", "the protocol and its login", kKavroKeys, &Configuration::kavro);
  visit("lock", "wrong logins", kLockKeys, &Configuration::lock);
  visit("storage", "what is kept on the disk", kStorageKeys, &Configuration::storage);
  visit("cluster", "several gateways as one", kClusterKeys, &Configuration::cluster);
  visit("pictures", "the face pictures that clients upload", kPictureKeys,
        &Configuration::pictures);
  visit("bus", "what each device may have", kBusKeys, &Configuration::bus);
  visit("admin", "metrics, health and the operators' page", kAdminKeys, &Configuration::admin);
  visit("log", "what goes to standard error", kLogKeys, &Configuration::log);
}

// The lists that the example has an entry of; what it shows of others is commented out.
inline constexpr std::string_view kListsInExample[] = {"users", "devices"};

// The same, without a member, for those that stand once for each user and device.
template <class Visit>
void forEachList(Visit visit) {
  visit("users", "one section for each user", kUserKeys);
  visit("devices", "one section for each device", kDeviceKeys);
  visit("certificates", "one section for each further certificate of HTTPS, by server name",
        kCertificateKeys);
}

}  // namespace qn
