// See configuration_file.h.
#include "gateway/config/configuration_file.h"

#include <algorithm>
#include <map>
#include <optional>
#include <span>
#include <system_error>
#include <type_traits>
#include <utility>

#include "gateway/config/findings.h"
#include "gateway/config/key_tables.h"
#include "gateway/config/secret_file.h"
#include "gateway/config/toml_syntax.h"
#include "gateway/config/toml_table.h"
#include "gateway/log/log.h"

namespace qn {
namespace {

constexpr std::size_t kNonceKeyMin = 32;
constexpr std::string_view kExamplePassword = "change-me";

// Values that must be different from each other, with the key that has each.
template <class T>
class Distinct {
 public:
  explicit Distinct(Findings& findings) : findings_(findings) {}

  void add(const T& value, const Place& place) {
    if (findings_.hasErrorAt(place)) return;
    const auto [former, added] = taken_.try_emplace(value, place);
    if (added) return;
    const Place& other = former->second;
    findings_.error(place, "expected a value that is not taken, as " + other.key +
                               (other.line == 0 ? "" : " in line " + std::to_string(other.line)) +
                               " has it: " + tomlText(value));
  }

  bool has(const T& value) const { return taken_.contains(value); }

 private:
  Findings& findings_;
  std::map<T, Place> taken_;
};

// The place of a key's value, or of the table when the key is not there.
Place placeOfKey(const toml::table& table, const Place& at, const char* key) {
  const toml::node* const node = table.get(key);
  std::string name = at.key + '.' + key;
  return node ? placeOf(node->source().begin, std::move(name))
              : Place{at.line, at.column, std::move(name)};
}

// What the file says, before it is checked against itself.
struct Entries {
  bool haveSecrets = false;  // in the file itself
  std::vector<UserEntry> users;
  std::vector<DeviceEntry> devices;
};

class FileReader {
 public:
  FileReader(std::filesystem::path folder, const toml::table& root, Findings& findings)
      : folder_(std::move(folder)), root_(root), findings_(findings) {}

  Configuration read() {
    for (const auto& [name, node] : root_) readTopLevel(name, node);
    readNonceKey();
    checkCluster();
    // After the sections, because HA1s depend on the realm.
    claimPort("http", "port", result_.http.port);
    claimPort("network", "picture_port", result_.network.picturePort);
    checkAdmin();
    forEachTable("devices", [this](const auto& table, const Place& at) { addDevice(table, at); });
    forEachTable("users", [this](const auto& table, const Place& at) { addUser(table, at); });
    result_.buildIndexes();
    if (!result_.findUser(kAdministrator)) {
      findings_.warning({}, "there is no user \"" + std::string(kAdministrator) +
                                "\", so the gateway is not activated and serves nobody");
    }
    warnAboutHttps();
    return std::move(result_);
  }

  // After read().
  const Entries& entries() const { return entries_; }

 private:
  void readTopLevel(const toml::key& name, const toml::node& node) {
    const Place place = placeOf(name.source().begin, std::string(name.str()));
    std::vector<std::string_view> sections;
    bool known = false;
    forEachList([&](std::string_view section, auto, const auto&) {
      sections.push_back(section);
      known = known || section == place.key;
    });
    forEachSection([&](std::string_view section, auto, const auto& keys, auto member) {
      sections.push_back(section);
      if (section != place.key) return;
      known = true;
      if (node.is_table()) {
        readTable(*node.as_table(), keys, place, result_.*member, findings_);
      } else {
        findings_.error(place, "expected a section [" + place.key + "]");
      }
    });
    if (!known && !stoodForUnreadable(place.key)) {
      findings_.error(place, "unknown section" + didYouMean(place.key, sections));
    }
  }

  template <class Add>
  void forEachTable(const char* name, Add add) {
    const toml::node* const node = root_.get(name);
    if (!node) return;
    const std::string expected = std::string("expected sections [[") + name + "]]";
    const toml::array* const list = node->as_array();
    if (!list) return findings_.error(placeOf(node->source().begin, name), expected);
    for (const toml::node& entry : *list) {
      const Place at = placeOf(entry.source().begin, name);
      if (entry.is_table()) {
        add(*entry.as_table(), at);
      } else {
        findings_.error(at, expected);
      }
    }
  }

  Place placeIn(const char* section, const char* key) const {
    const toml::node* const node = root_.get(section);
    const Place at{0, 0, section};
    return node && node->is_table() ? placeOfKey(*node->as_table(), at, key)
                                    : Place{0, 0, at.key + '.' + key};
  }

  void claimPort(const char* section, const char* key, uint16_t port) {
    ports_.add(port, placeIn(section, key));
  }

  // Whoever reaches it sees who is locked out and can let them in.
  void checkAdmin() {
    const AdminOptions& admin = result_.admin;
    if (admin.port == 0) return;
    claimPort("admin", "port", admin.port);
    if (!admin.password.empty() || isLoopback(admin.address)) return;
    findings_.error(placeIn("admin", "address"),
                    "expected a loopback address, or a password in this section");
  }

  // By the key gateways know each other's nonces.
  void checkCluster() {
    if (result_.cluster.redis.empty() || !result_.kavro.nonceKeyFile.empty()) return;
    findings_.error(placeIn("cluster", "redis"),
                    "expected kavro.nonce_key_file beside it, the same on all gateways");
  }

  void readNonceKey() {
    const std::string& name = result_.kavro.nonceKeyFile;
    if (name.empty()) return;
    const Place place = placeIn("kavro", "nonce_key_file");
    const SecretFile file(name, std::filesystem::path());
    const bool own = file.isCredential() || isOwnersAlone(file.path());
    const std::string key = own ? file.read(place, findings_) : std::string();
    if (findings_.hasErrorAt(place)) return;
    if (key.size() < kNonceKeyMin) {
      return findings_.error(place, "expected a file of " + std::to_string(kNonceKeyMin) + " to " +
                                        std::to_string(SecretFile::kMost) +
                                        " bytes that nobody but its owner may read, not " +
                                        file.path().string());
    }
    result_.kavro.nonceKey = hexDigest(DigestAlgorithm::SHA256, {key}).text();
  }

  static bool isOwnersAlone(const std::filesystem::path& file) {
    using std::filesystem::perms;
    std::error_code error;
    const auto facts = std::filesystem::status(file, error);
    return !error && is_regular_file(facts) &&
           (facts.permissions() & (perms::group_all | perms::others_all)) == perms::none;
  }

  // Takes a secret from the file that is named for it; without one it stays as it is.
  void readSecret(const std::string& file, const Place& place, const TextRule& rule,
                  std::string& secret) {
    if (file.empty()) return;
    const SecretFile source(file, folder_);
    std::string content = source.readLine(place, findings_);
    if (findings_.hasErrorAt(place)) return;
    if (content.empty() || !rule.holds(content)) {
      return findings_.error(place,
                             source.path().string() + ": expected one line: " + rule.expected);
    }
    secret = std::move(content);
  }

  void addDevice(const toml::table& table, const Place& at) {
    DeviceEntry entry;
    readTable(table, kDeviceKeys, at, entry, findings_);
    parseDeviceUrl(entry.url, entry);
    indexes_.add(entry.index, placeOfKey(table, at, "index"));
    if (entry.httpPort != 0) ports_.add(entry.httpPort, placeOfKey(table, at, "http_port"));
    const Place file = placeOfKey(table, at, "password_file");
    if (!entry.password.empty() && !entry.passwordFile.empty()) {
      findings_.error(file, "expected either password or password_file");
    }
    readSecret(entry.passwordFile, file, kDevicePasswordRule, entry.password);
    if (entry.username.empty() && !entry.password.empty()) {
      findings_.error(placeOfKey(table, at, "username"), "expected a name to go with the password");
    }
    warnAboutExample(entry.password, placeOfKey(table, at, "password"));
    entries_.haveSecrets |= table.contains("password");
    result_.devices.push_back(entry);
    entries_.devices.push_back(std::move(entry));
  }

  void addUser(const toml::table& table, const Place& at) {
    UserEntry entry;
    entry.algorithm = result_.kavro.algorithm;
    readTable(table, kUserKeys, at, entry, findings_);
    names_.add(entry.name, placeOfKey(table, at, "name"));
    entries_.haveSecrets |= table.contains("password") || table.contains("ha1");
    entries_.users.push_back(entry);
    makeHa1(table, at, entry);
    warnAboutExample(entry.password, placeOfKey(table, at, "password"));
    warnAboutMissingDevices(entry, table, at);
    result_.users.push_back(std::move(entry));
  }

  // Of one of the four keys that say it.
  void makeHa1(const toml::table& table, const Place& at, UserEntry& entry) {
    const char* const keys[] = {"password", "password_file", "ha1", "ha1_file"};
    if (std::ranges::count_if(keys, [&](const char* key) { return table.contains(key); }) != 1) {
      return findings_.absence(
          placeOfKey(table, at, "password"),
          "expected either password or ha1, or one of password_file and ha1_file");
    }
    readSecret(entry.passwordFile, placeOfKey(table, at, "password_file"), kPasswordRule,
               entry.password);
    readSecret(entry.ha1File, placeOfKey(table, at, "ha1_file"), kHa1Rule, entry.ha1);
    const DigestAlgorithm algorithm = entry.algorithm;
    const auto ha1 = [&](DigestAlgorithm each) {
      return std::string(hexDigest(each, {entry.name, result_.kavro.realm, entry.password}).text());
    };
    if (!entry.password.empty()) {
      entry.ha1 = ha1(algorithm);
      if (algorithm == DigestAlgorithm::MD5) entry.strongHa1 = ha1(DigestAlgorithm::SHA256);
    }
    const Place place = placeOfKey(table, at, entry.ha1File.empty() ? "ha1" : "ha1_file");
    if (!entry.ha1.empty() && entry.ha1.size() != hexLength(algorithm)) {
      findings_.error(place, "expected " + std::to_string(hexLength(algorithm)) +
                                 " hexadecimal digits, a " + std::string(algorithmName(algorithm)) +
                                 " digest");
    }
    std::transform(entry.ha1.begin(), entry.ha1.end(), entry.ha1.begin(),
                   [](char c) { return c >= 'A' && c <= 'F' ? char(c - 'A' + 'a') : c; });
  }

  void warnAboutExample(std::string_view password, const Place& place) {
    if (password != kExamplePassword) return;
    findings_.warning(place, "is the one of the example, which everybody knows: choose another");
  }

  void warnAboutMissingDevices(const UserConfig& user, const toml::table& table, const Place& at) {
    const auto warn = [&](const std::string& device, const char* key) {
      if (device.empty() || indexes_.has(device)) return;
      findings_.warning(placeOfKey(table, at, key), "the user \"" + user.name +
                                                        "\" may use the device \"" + device +
                                                        "\", which is not configured");
    };
    warn(user.device, "device");
    for (const std::string& device : user.devices) warn(device, "devices");
  }

  void warnAboutHttps() {
    const bool proxied = !result_.http.trustedProxies.empty();
    if (!result_.network.httpsEnabled || proxied) return;
    findings_.warning(placeIn("network", "https_enabled"),
                      "clients are told that port " + std::to_string(result_.network.httpsPort) +
                          " speaks HTTPS, where the gateway itself does not listen: put a proxy "
                          "there and name it in http.trusted_proxies, or say false");
  }

  const std::filesystem::path folder_;
  const toml::table& root_;
  Findings& findings_;
  Configuration result_;
  Entries entries_;
  Distinct<std::string> names_{findings_};
  Distinct<std::string> indexes_{findings_};
  Distinct<uint16_t> ports_{findings_};
};

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

[[noreturn]] void fail(const std::string& line) { throw ConfigurationError({line}); }

// Reads it all and hands what it found to `take`, while the file's tables still stand.
template <class Take>
auto examined(std::string_view content, const std::string& name, Take take) {
  Findings findings(name);
  const toml::table root = parseToml(content, findings);
  FileReader reader(std::filesystem::path(name).parent_path(), root, findings);
  auto result = reader.read();
  if (findings.hasErrors()) throw ConfigurationError(findings.errors());
  return take(std::move(result), reader.entries(), findings);
}

std::string contentOfFile(const std::filesystem::path& file) {
  std::string content;
  try {
    content = contentOf(file, kConfigurationFileBytes);
  } catch (const std::system_error& error) {
    fail(file.string() + ": cannot be read: " + error.code().message());
  }
  if (content.size() <= kConfigurationFileBytes) return content;
  fail(file.string() + ": expected at most " + std::to_string(kConfigurationFileBytes) + " bytes");
}

// The value of a member as --print shows it.
template <class Value>
std::string printed(const Value& value) {
  if constexpr (std::is_same_v<Value, std::string>) return value;
  return tomlText(value);
}

// Collects what a key of one section has in some entries of it.
template <class S, std::size_t N>
void collect(const Key<S> (&keys)[N], std::string_view name, const auto& entries,
             std::optional<std::vector<std::string>>& values) {
  const auto key = std::ranges::find(keys, name, &Key<S>::name);
  if (key == std::end(keys) || key->traits.secret) return;
  values.emplace();
  for (const S& entry : entries) {
    std::visit([&](auto member) { values->push_back(printed(entry.*member)); }, key->member);
  }
}

}  // namespace

ConfigurationError::ConfigurationError(std::vector<std::string> lines)
    : std::runtime_error(joined(lines)), lines_(std::move(lines)) {}

ReadConfiguration examineConfiguration(const std::filesystem::path& file) {
  return examined(
      contentOfFile(file), file.string(),
      [&](Configuration read, const Entries& entries, Findings& findings) {
        if (isReadableByOthers(file) && entries.haveSecrets) {
          findings.warning(
              {}, "everybody may read it, and it holds passwords: chmod o-rwx " + file.string());
        }
        return ReadConfiguration{std::move(read), findings.warnings()};
      });
}

Configuration readConfiguration(const std::filesystem::path& file) {
  ReadConfiguration read = examineConfiguration(file);
  for (const std::string& line : read.warnings) logWarn("{}", line);
  return std::move(read.configuration);
}

Configuration parseConfiguration(std::string_view content, const std::string& name) {
  return examined(content, name,
                  [](Configuration read, const Entries&, const Findings&) { return read; });
}

std::optional<std::vector<std::string>> configuredValues(const std::filesystem::path& file,
                                                         std::string_view key) {
  const std::size_t dot = std::min(key.find('.'), key.size());
  const std::string_view name = key.substr(std::min(dot + 1, key.size()));
  std::optional<std::vector<std::string>> values;
  examined(contentOfFile(file), file.string(),
           [&](const Configuration& read, const Entries& entries, const Findings&) {
             const std::string_view section = key.substr(0, dot);
             forEachSection([&](std::string_view each, auto, const auto& keys, auto member) {
               if (each == section) collect(keys, name, std::span(&(read.*member), 1), values);
             });
             if (section == "users") collect(kUserKeys, name, entries.users, values);
             if (section == "devices") collect(kDeviceKeys, name, entries.devices, values);
             return 0;
           });
  return values;
}

std::vector<std::string> keepUntilRestart(const Configuration& inForce, Configuration& next) {
  std::vector<std::string> kept;
  forEachSection([&](std::string_view section, auto, const auto& keys, auto sectionMember) {
    for (const auto& key : keys) {
      if (!key.traits.restart) continue;
      std::visit(
          [&](auto member) {
            auto& wanted = next.*sectionMember.*member;
            const auto& current = inForce.*sectionMember.*member;
            if (wanted == current) return;
            wanted = current;
            kept.push_back(std::string(section) + '.' + std::string(key.name));
          },
          key.member);
    }
  });
  return kept;
}

std::vector<std::string> changedKeys(const Configuration& before, const Configuration& after) {
  std::vector<std::string> changed;
  forEachSection([&](std::string_view section, auto, const auto& keys, auto sectionMember) {
    for (const auto& key : keys) {
      const bool same = std::visit(
          [&](auto member) {
            return before.*sectionMember.*member == after.*sectionMember.*member;
          },
          key.member);
      if (!same) changed.push_back(std::string(section) + '.' + std::string(key.name));
    }
  });
  if (before.users != after.users) changed.emplace_back("users");
  if (before.devices != after.devices) changed.emplace_back("devices");
  return changed;
}

void checkReload(const Configuration& inForce, const Configuration& next, const std::string& file) {
  if (!inForce.findUser(kAdministrator) || next.findUser(kAdministrator)) return;
  fail(file + ": expected the user \"" + std::string(kAdministrator) +
       "\", without whom a running gateway would serve nobody");
}

}  // namespace qn
