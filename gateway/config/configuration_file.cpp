#include "gateway/config/configuration_file.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <map>
#include <system_error>

#include "gateway/config/toml_table.h"
#include "gateway/log/log.h"

namespace qn {
namespace {

constexpr int64_t kMiB = 1024 * 1024;
constexpr Range kPort{1, 65535};
constexpr Range kPortOrNone{0, 65535};
constexpr Range kSeconds{1, 3600};
constexpr Range kCount{1, 1000000};
constexpr std::size_t kNonceKeyMin = 32;
constexpr std::size_t kNonceKeyMax = 4096;

constexpr Key<HttpOptions> kHttpKeys[] = {
    {"address", &HttpOptions::address, {}, &kAddressRule},
    {"port", &HttpOptions::port, kPort},
    {"trusted_proxies", &HttpOptions::trustedProxies, {}, &kNetworkRule},
    {"head_bytes", &HttpOptions::headBytes, {1024, kMiB}},
    {"head_seconds", &HttpOptions::headTime, kSeconds},
    {"body_bytes", &HttpOptions::bodyBytes, {1024, 1024 * kMiB}},
    {"body_seconds", &HttpOptions::bodyTime, kSeconds},
    {"idle_seconds", &HttpOptions::idleTime, kSeconds},
    {"connections", &HttpOptions::connections, kCount},
    {"connections_per_address", &HttpOptions::connectionsPerAddress, kCount},
    {"requests", &HttpOptions::requests, kCount},
};

constexpr Key<NetworkOptions> kNetworkKeys[] = {
    {"https_enabled", &NetworkOptions::httpsEnabled},
    {"https_port", &NetworkOptions::httpsPort, kPort},
    {"rtsp_port", &NetworkOptions::rtspPort, kPort},
    {"port_mapping", &NetworkOptions::portMapping},
    {"ext_http_port", &NetworkOptions::extHttpPort, kPortOrNone},
    {"ext_https_port", &NetworkOptions::extHttpsPort, kPortOrNone},
    {"ext_rtsp_port", &NetworkOptions::extRtspPort, kPortOrNone},
    {"picture_port", &NetworkOptions::picturePort, kPort},
};

constexpr Key<KavroOptions> kKavroKeys[] = {
    {"mode", &KavroOptions::mode, {1, 2}},
    {"realm", &KavroOptions::realm, {}, &kRealmRule},
    {"algorithm", &KavroOptions::algorithm, {}, &kAlgorithmRule},
    {"mime_parts", &KavroOptions::mimeParts},
    {"nonce_key_file", &KavroOptions::nonceKeyFile, {}, &kPathRule},
};

constexpr Key<LockOptions> kLockKeys[] = {
    {"max_attempts", &LockOptions::maxAttempts, {1, 1000}},
    {"lock_seconds", &LockOptions::lockTime, {1, 7 * 24 * 3600}},
};

constexpr Key<StorageOptions> kStorageKeys[] = {
    {"data_dir", &StorageOptions::dataDir, {}, &kPathRule},
    {"operation_log_rows", &StorageOptions::operationLogRows, {1, 1000000000}},
};

constexpr Key<PictureOptions> kPictureKeys[] = {
    {"max_bytes", &PictureOptions::maxBytes, {kMiB, kMiB* kMiB}},
    {"max_count", &PictureOptions::maxCount, kCount},
    {"full", &PictureOptions::full, {}, &kWhenFullRule},
};

constexpr Key<BusOptions> kBusKeys[] = {
    {"device_connections", &BusOptions::deviceConnections, {1, 1024}},
    {"device_queue", &BusOptions::deviceQueue, {0, 65536}},
    {"reply_bytes", &BusOptions::replyBytes, {1024, 1024 * kMiB}},
    {"device_bytes", &BusOptions::deviceBytes, {1024, kMiB* kMiB}},
    {"bytes", &BusOptions::bytes, {1024, kMiB* kMiB}},
    {"reply_memory", &BusOptions::replyMemory, {1024, kMiB* kMiB}},
};

constexpr Key<LogOptions> kLogKeys[] = {
    {"level", &LogOptions::level, {}, &kLevelRule},
    {"format", &LogOptions::format, {}, &kLogFormatRule},
    {"access", &LogOptions::access, {}, &kAccessRule},
    {"file", &LogOptions::file, {}, &kPathRule},
};

// With the keys that are not kept as they stand.
struct UserEntry : UserConfig {
  std::string password;
  DigestAlgorithm algorithm;  // the weakest that the user may log in with
};

constexpr Key<UserEntry> kUserKeys[] = {
    {"name", &UserEntry::name, {}, &kUserNameRule, true},
    {"password", &UserEntry::password, {}, &kPasswordRule},
    {"ha1", &UserEntry::ha1, {}, &kHa1Rule},
    {"algorithm", &UserEntry::algorithm, {}, &kAlgorithmRule},
    {"device", &UserEntry::device, {}, &kDeviceIndexRule, true},
    {"devices", &UserEntry::devices, {}, &kDeviceIndexRule},
};

struct DeviceEntry : DeviceConfig {
  std::string url;
};

constexpr Key<DeviceEntry> kDeviceKeys[] = {
    {"index", &DeviceEntry::index, {}, &kDeviceIndexRule, true},
    {"url", &DeviceEntry::url, {}, &kDeviceUrlRule, true},
    {"username", &DeviceEntry::username, {}, &kDeviceUserRule},
    {"password", &DeviceEntry::password, {}, &kDevicePasswordRule},
    {"auth", &DeviceEntry::auth, {}, &kDeviceAuthRule},
    {"http_port", &DeviceEntry::httpPort, kPortOrNone},
    {"rtsp_port", &DeviceEntry::rtspPort, kPortOrNone},
};

// Values that must be different from each other, with the key that has each.
template <class T>
class Distinct {
 public:
  void add(const T& value, const Place& place) {
    const auto [former, added] = taken_.try_emplace(value, place.key, place.line);
    if (added) return;
    const auto& [key, line] = former->second;
    place.fail("expected a value that is not taken, as " + key +
               (line == 0 ? " has it" : " in line " + std::to_string(line) + " has it"));
  }

 private:
  std::map<T, std::pair<std::string, toml::source_index>> taken_;
};

// At most one byte more than a configuration may have.
std::string contentOf(const std::filesystem::path& file, const Place& place) {
  const auto reason = [] { return "cannot be read: " + std::generic_category().message(errno); };
  std::ifstream stream(file, std::ios::binary);
  if (!stream) place.fail(reason());
  std::string content(kConfigurationFileBytes + 1, '\0');
  stream.read(content.data(), std::streamsize(content.size()));
  if (stream.bad()) place.fail(reason());
  content.resize(std::size_t(stream.gcount()));
  return content;
}

class FileReader {
 public:
  FileReader(const std::string& file, const toml::table& root) : file_(file), root_(root) {}

  Configuration read() {
    for (const auto& [name, node] : root_) readTopLevel(name, node);
    readNonceKey();
    // After the sections, because HA1s depend on the realm.
    claimPort("http", "port", result_.http.port);
    claimPort("network", "picture_port", result_.network.picturePort);
    forEachTable("devices", [this](const auto& table, const Place& at) { addDevice(table, at); });
    forEachTable("users", [this](const auto& table, const Place& at) { addUser(table, at); });
    result_.buildIndexes();
    if (!result_.findUser(kAdministrator)) {
      logWarn("{}: there is no user \"{}\", so the gateway is not activated and serves nobody",
              file_, kAdministrator);
    }
    warnAboutMissingDevices();
    return std::move(result_);
  }

 private:
  void readTopLevel(const toml::key& name, const toml::node& node) {
    const Place place{file_, name.source().begin.line, std::string(name.str())};
    if (place.key == "users" || place.key == "devices") return;
    const bool known = readSection("http", kHttpKeys, result_.http, place, node) ||
                       readSection("network", kNetworkKeys, result_.network, place, node) ||
                       readSection("kavro", kKavroKeys, result_.kavro, place, node) ||
                       readSection("lock", kLockKeys, result_.lock, place, node) ||
                       readSection("storage", kStorageKeys, result_.storage, place, node) ||
                       readSection("pictures", kPictureKeys, result_.pictures, place, node) ||
                       readSection("bus", kBusKeys, result_.bus, place, node) ||
                       readSection("log", kLogKeys, result_.log, place, node);
    if (!known) place.fail("unknown section");
  }

  // False when the place is another section.
  template <class S, std::size_t N>
  static bool readSection(std::string_view name, const Key<S> (&keys)[N], S& target,
                          const Place& place, const toml::node& node) {
    if (place.key != name) return false;
    if (!node.is_table()) place.fail("expected a section [" + place.key + "]");
    readTable(*node.as_table(), keys, place, target);
    return true;
  }

  template <class Add>
  void forEachTable(const char* name, Add add) {
    const toml::node* const node = root_.get(name);
    if (!node) return;
    const auto placeOf = [&](const toml::node& at) {
      return Place{file_, at.source().begin.line, name};
    };
    const std::string expected = std::string("expected sections [[") + name + "]]";
    if (!node->is_array()) placeOf(*node).fail(expected);
    for (const toml::node& entry : *node->as_array()) {
      if (!entry.is_table()) placeOf(entry).fail(expected);
      add(*entry.as_table(), placeOf(entry));
    }
  }

  // The place of a key of a table, or of the table when the key is not there.
  static Place placeOfKey(const toml::table& table, const Place& at, const char* key) {
    const toml::node* const node = table.get(key);
    return Place{at.file, node ? node->source().begin.line : at.line, at.key + '.' + key};
  }

  void claimPort(const char* section, const char* key, uint16_t port) {
    const toml::node* const table = root_.get(section);
    const Place at{file_, 0, section};
    ports_.add(port, table ? placeOfKey(*table->as_table(), at, key)
                           : Place{file_, 0, at.key + '.' + key});
  }

  void readNonceKey() {
    const std::string& file = result_.kavro.nonceKeyFile;
    if (file.empty()) return;
    const Place place =
        placeOfKey(*root_.get("kavro")->as_table(), {file_, 0, "kavro"}, "nonce_key_file");
    std::error_code error;
    const auto facts = std::filesystem::status(file, error);
    const auto others = std::filesystem::perms::group_all | std::filesystem::perms::others_all;
    const bool own = !error && is_regular_file(facts) &&
                     (facts.permissions() & others) == std::filesystem::perms::none;
    const std::string key = own ? contentOf(file, place) : std::string();
    if (key.size() < kNonceKeyMin || key.size() > kNonceKeyMax) {
      place.fail("expected a file of " + std::to_string(kNonceKeyMin) + " to " +
                 std::to_string(kNonceKeyMax) + " bytes that nobody but its owner may read");
    }
    result_.kavro.nonceKey = hexDigest(DigestAlgorithm::SHA256, {key}).text();
  }

  void addDevice(const toml::table& table, const Place& at) {
    DeviceEntry entry;
    readTable(table, kDeviceKeys, at, entry);
    parseDeviceUrl(entry.url, entry);
    indexes_.add(entry.index, placeOfKey(table, at, "index"));
    if (entry.httpPort != 0) ports_.add(entry.httpPort, placeOfKey(table, at, "http_port"));
    if (entry.username.empty() && !entry.password.empty()) {
      placeOfKey(table, at, "username").fail("expected a name to go with the password");
    }
    result_.devices.push_back(std::move(entry));
  }

  void addUser(const toml::table& table, const Place& at) {
    UserEntry entry;
    entry.algorithm = result_.kavro.algorithm;
    readTable(table, kUserKeys, at, entry);
    names_.add(entry.name, placeOfKey(table, at, "name"));
    if (entry.password.empty() == entry.ha1.empty()) {
      placeOfKey(table, at, "password").fail("expected either password or ha1");
    }
    const DigestAlgorithm algorithm = entry.algorithm;
    const auto ha1 = [&](DigestAlgorithm each) {
      return std::string(hexDigest(each, {entry.name, result_.kavro.realm, entry.password}).text());
    };
    if (entry.ha1.empty()) {
      entry.ha1 = ha1(algorithm);
      if (algorithm == DigestAlgorithm::MD5) entry.strongHa1 = ha1(DigestAlgorithm::SHA256);
    }
    if (entry.ha1.size() != hexLength(algorithm)) {
      placeOfKey(table, at, "ha1")
          .fail("expected " + std::to_string(hexLength(algorithm)) + " hexadecimal digits, a " +
                std::string(algorithmName(algorithm)) + " digest");
    }
    std::transform(entry.ha1.begin(), entry.ha1.end(), entry.ha1.begin(),
                   [](char c) { return c >= 'A' && c <= 'F' ? char(c - 'A' + 'a') : c; });
    result_.users.push_back(std::move(entry));
  }

  void warnAboutMissingDevices() const {
    const auto warn = [this](const UserConfig& user, const std::string& device) {
      if (result_.findDevice(device)) return;
      logWarn("{}: the user \"{}\" may use the device \"{}\", which is not configured", file_,
              user.name, device);
    };
    for (const UserConfig& user : result_.users) {
      warn(user, user.device);
      for (const std::string& device : user.devices) warn(user, device);
    }
  }

  const std::string& file_;
  const toml::table& root_;
  Configuration result_;
  Distinct<std::string> names_;
  Distinct<std::string> indexes_;
  Distinct<uint16_t> ports_;
};

// How often a line names a part of a part, strings and comments aside. The TOML library recurses
// for each part of a key and bounds only arrays and inline tables; no key of ours has many.
constexpr int kDotsInALine = 8;

// The text from the end of the string that it begins with; empty when that has no end.
std::string_view afterString(std::string_view text) {
  const char quote = text[0];
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == quote) return text.substr(i + 1);
    if (text[i] == '\\' && quote == '"') ++i;
  }
  return {};
}

void checkLine(std::string_view line, const Place& place) {
  int dots = 0;
  while (!line.empty() && line[0] != '#') {
    if (line.starts_with("\"\"\"") || line.starts_with("'''")) {
      place.fail("expected strings of one line");
    }
    dots += line[0] == '.' ? 1 : 0;
    const bool string = line[0] == '"' || line[0] == '\'';
    line = string ? afterString(line) : line.substr(1);
  }
  if (dots > kDotsInALine) place.fail("expected a key of fewer parts");
}

void checkLines(std::string_view content, const std::string& file) {
  toml::source_index number = 0;
  while (!content.empty()) {
    const std::size_t end = std::min(content.find('\n'), content.size());
    checkLine(content.substr(0, end), Place{file, ++number, ""});
    content.remove_prefix(std::min(end + 1, content.size()));
  }
}

}  // namespace

Configuration readConfiguration(const std::filesystem::path& file) {
  const Place place{file.native(), 0, ""};
  const std::string content = contentOf(file, place);
  if (content.size() > kConfigurationFileBytes) {
    place.fail("expected at most " + std::to_string(kConfigurationFileBytes) + " bytes");
  }
  return parseConfiguration(content, file.string());
}

Configuration parseConfiguration(std::string_view content, const std::string& name) {
  checkLines(content, name);
  try {
    const toml::table root = toml::parse(content, name);
    return FileReader(name, root).read();
  } catch (const toml::parse_error& error) {
    Place{name, error.source().begin.line, ""}.fail(std::string(error.description()));
  }
}

void checkReload(const Configuration& inForce, const Configuration& next, const std::string& file) {
  if (!inForce.findUser(kAdministrator) || next.findUser(kAdministrator)) return;
  Place{file, 0, ""}.fail("expected the user \"" + std::string(kAdministrator) +
                          "\", without whom a running gateway would serve nobody");
}

}  // namespace qn
