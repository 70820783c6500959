// See configuration_file.h.
#include "gateway/config/configuration_file.h"

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
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
#include "gateway/tls/tls_server.h"
#include "text/ascii.h"

namespace qn {
namespace {

constexpr std::size_t kNonceKeyMin = 32;
constexpr std::size_t kCertificateBytes = 256 * 1024;  // with its chain, or of authorities
constexpr std::size_t kPrivateKeyBytes = 32 * 1024;
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
                               otherFile(other, place) + " has it: " + tomlText(value));
  }

  bool has(const T& value) const { return taken_.contains(value); }

 private:
  std::string otherFile(const Place& other, const Place& place) const {
    if (other.includedFile() == place.includedFile()) return {};
    return " of " + (other.file ? *other.file : findings_.file());
  }

  Findings& findings_;
  std::map<T, Place> taken_;
};

// The place of a key's value, or of the table when the key is not there.
Place placeOfKey(const toml::table& table, const Place& at, const char* key) {
  const toml::node* const node = table.get(key);
  std::string name = at.key + '.' + key;
  return node ? placeOf(node->source(), std::move(name))
              : Place{at.line, at.column, std::move(name), at.file};
}

// What the file and those that it includes say, before it is checked against itself.
struct Entries {
  std::set<std::filesystem::path> withSecrets;  // files that hold some
  std::vector<UserEntry> users;
  std::vector<DeviceEntry> devices;
};

// The files as TOML.
struct Documents {
  toml::table root;
  std::vector<toml::table> included;
};

constexpr std::string_view kInclude = "include";

std::vector<std::string> namesOfIncluded(const toml::table& root) {
  std::vector<std::string> names;
  const toml::array* const list = root.get_as<toml::array>(kInclude);
  if (!list) return names;
  for (const toml::node& entry : *list) {
    if (const auto* const name = entry.as_string()) names.push_back(name->get());
  }
  return names;
}

// Empty, with an error at the place, when it cannot be read.
std::string contentOfIncluded(const std::filesystem::path& file, const Place& place,
                              Findings& findings) {
  std::error_code ignored;
  const auto facts = status(file, ignored);
  if (exists(facts) && !is_regular_file(facts)) {  // a pipe would block, a device would not end
    findings.error(place, file.string() + ": expected a file");
    return {};
  }
  try {
    std::string content = contentOf(file, kConfigurationFileBytes);
    if (content.size() <= kConfigurationFileBytes) return content;
    findings.error(place, file.string() + ": expected at most " +
                              std::to_string(kConfigurationFileBytes) + " bytes");
  } catch (const std::system_error& error) {
    findings.error(place, file.string() + " cannot be read: " + error.code().message());
  }
  return {};
}

// With the files that it includes. What is wrong with the list's form is an error.
Documents readDocuments(std::string_view content, const Examination& examination,
                        Findings& findings) {
  Documents documents{parseToml(content, findings), {}};
  const toml::node* const node = documents.root.get(kInclude);
  if (!node) return documents;
  const Place place = placeOf(node->source(), std::string(kInclude));
  std::vector<std::string> names;
  const ValueReader reader{*node, place, {}, &kPathRule, false, findings};
  reader.into(names);
  if (names.size() > kIncludedFiles) {
    findings.error(place, "expected at most " + std::to_string(kIncludedFiles) + " files");
    return documents;
  }
  const auto folder = std::filesystem::path(findings.file()).parent_path();
  for (const std::string& name : names) {
    const std::filesystem::path file = folder / name;
    const IncludedText* const given = examination.instead;
    const std::string text =
        given && given->file == file ? given->content : contentOfIncluded(file, place, findings);
    documents.included.push_back(
        parseToml(text, findings, std::make_shared<const std::string>(file.string())));
  }
  return documents;
}

class FileReader {
 public:
  FileReader(const Documents& documents, const Examination& examination, Findings& findings)
      : root_(documents.root),
        included_(documents.included),
        examination_(examination),
        findings_(findings) {}

  Configuration read() {
    result_.include = namesOfIncluded(root_);
    for (const auto& [name, node] : root_) readTopLevel(name, node);
    for (const toml::table& document : included_) checkIncluded(document);
    readNonceKey();
    checkCluster();
    // After the sections, because HA1s depend on the realm.
    if (result_.http.enabled) claimPort("http", "port", result_.http.port);
    readHttps();
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
    const Place place = placeOf(name.source(), std::string(name.str()));
    std::vector<std::string_view> sections{kInclude};
    bool known = place.key == kInclude;
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

  void checkIncluded(const toml::table& document) {
    for (const auto& [name, node] : document) {
      const std::string_view list = name.str();
      if (list == "users" || list == "devices" || stoodForUnreadable(list)) continue;
      findings_.error(placeOf(name.source(), std::string(name.str())),
                      "an included file has [[users]] and [[devices]] only");
    }
  }

  template <class Add>
  void forEachTable(const char* name, Add add) {
    forEachTableOf(root_, name, add);
    for (const toml::table& document : included_) forEachTableOf(document, name, add);
  }
  template <class Add>
  void forEachTableOf(const toml::table& document, const char* name, Add add) {
    const toml::node* const node = document.get(name);
    if (!node) return;
    const std::string expected = std::string("expected sections [[") + name + "]]";
    const toml::array* const list = node->as_array();
    if (!list) return findings_.error(placeOf(node->source(), name), expected);
    for (const toml::node& entry : *list) {
      const Place at = placeOf(entry.source(), name);
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

  void readHttps() {
    HttpsOptions& https = result_.https;
    const Place port = placeIn("https", "port");
    if (!https.isOn()) {
      if (!result_.http.enabled)
        findings_.error(port, "expected one, because http.enabled is false");
      if (https.redirect) findings_.error(port, "expected one, because redirect is true");
      return;
    }
    claimPort("https", "port", https.port);
    const NetworkOptions& network = result_.network;
    const bool mapped = network.portMapping && network.extHttpsPort != 0;
    https.redirectPort = mapped ? network.extHttpsPort : https.port;
    readIdentity(https, placeIn("https", "certificate"), placeIn("https", "key"));
    forEachTable("certificates", [this](const auto& table, const Place& at) {
      CertificateConfig& added = result_.https.certificates.emplace_back();
      readTable(table, kCertificateKeys, at, added, findings_);
      readIdentity(added, placeOfKey(table, at, "certificate"), placeOfKey(table, at, "key"));
    });
    readClientAuthorities();
    if (https.ciphers.empty())
      findings_.error(placeIn("https", "ciphers"), "expected at least one");
    if (https.redirect && !result_.http.enabled) {
      findings_.error(placeIn("https", "redirect"),
                      "expected false, because http.enabled is false");
    }
  }

  void readIdentity(CertificateConfig& to, const Place& certificate, const Place& key) {
    to.identity.chain = readPem(to.certificate, certificate, &SecretFile::read, kCertificateBytes);
    to.identity.key = readPem(to.key, key, &SecretFile::readPrivate, kPrivateKeyBytes);
    if (to.identity.chain.empty() || to.identity.key.empty()) return;
    const TlsIdentityFault fault = faultOf(to.identity);
    if (!fault.inChain.empty()) return faultInFile(certificate, to.certificate, fault.inChain);
    if (!fault.inKey.empty()) return faultInFile(key, to.key, fault.inKey);
    to.expires = factsOf(to.identity).expires;
    if (to.expires > std::chrono::system_clock::now()) return;
    findings_.warning(certificate, "has expired: no client will trust " + to.certificate);
  }

  // Empty, with an error at the place unless the service manager has it, when it cannot be had.
  std::string readPem(const std::string& name, const Place& place,
                      std::string (SecretFile::*reading)(const Place&, Findings&, std::size_t)
                          const,
                      std::size_t most) {
    if (name.empty()) {
      findings_.absence(place, "expected a file, because https.port is not 0");
      return {};
    }
    const SecretFile source(name, fileOf(place).parent_path());
    if (isElsewhere(source, place)) return {};
    std::string content = (source.*reading)(place, findings_, most);
    if (content.empty() && !findings_.hasErrorAt(place)) faultInFile(place, name, "is empty");
    return content;
  }

  void faultInFile(const Place& place, const std::string& name, const std::string& what) {
    const SecretFile source(name, fileOf(place).parent_path());
    findings_.error(place, source.path().string() + ": " + what);
  }

  void readClientAuthorities() {
    HttpsOptions& https = result_.https;
    if (https.clientCertificates == ClientCertificates::None) return;
    const Place place = placeIn("https", "client_ca");
    https.clientAuthorities = readPem(https.clientCa, place, &SecretFile::read, kCertificateBytes);
    if (https.clientAuthorities.empty()) return;
    const std::string fault = faultOfAuthorities(https.clientAuthorities);
    if (!fault.empty()) faultInFile(place, https.clientCa, fault);
  }

  void readNonceKey() {
    const std::string& name = result_.kavro.nonceKeyFile;
    if (name.empty()) return;
    const Place place = placeIn("kavro", "nonce_key_file");
    const SecretFile file(name, std::filesystem::path());
    if (isElsewhere(file, place)) return;
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

  // The service manager gives it to the service alone.
  bool isElsewhere(const SecretFile& file, const Place& place) {
    if (!examination_.outsideOfService || !file.isMissingCredential()) return false;
    findings_.warning(place, "is not checked: the service manager gives it to the service alone");
    return true;
  }

  std::filesystem::path fileOf(const Place& place) const {
    return place.file ? *place.file : findings_.file();
  }

  void noteSecrets(const toml::table& table, const Place& at,
                   std::initializer_list<const char*> keys) {
    const auto has = [&](const char* key) { return table.contains(key); };
    if (std::ranges::any_of(keys, has)) entries_.withSecrets.insert(fileOf(at));
  }

  // Takes a secret from the file that is named for it; without one it stays as it is.
  void readSecret(const std::string& file, const Place& place, const TextRule& rule,
                  std::string& secret) {
    if (file.empty()) return;
    const SecretFile source(file, fileOf(place).parent_path());
    if (isElsewhere(source, place)) return;
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
    noteSecrets(table, at, {"password"});
    readVerification(table, at, entry);
    result_.devices.push_back(entry);
    entries_.devices.push_back(std::move(entry));
  }

  // How a device over https proves who it is.
  void readVerification(const toml::table& table, const Place& at, DeviceEntry& entry) {
    entry.fingerprint = plainFingerprint(entry.fingerprint);
    int said = 0;
    const auto note = [&](const char* key, bool isSaid) {
      if (!isSaid) return;
      ++said;
      if (!entry.tls)
        findings_.error(placeOfKey(table, at, key), "expected beside an https:// url");
    };
    note("ca_file", !entry.caFile.empty());
    note("fingerprint", !entry.fingerprint.empty());
    note("verify", !entry.verify);
    if (said > 1) {
      findings_.error(placeOfKey(table, at, "url"),
                      "expected one of ca_file, fingerprint and verify = false");
    }
    if (!entry.verify) {
      findings_.warning(placeOfKey(table, at, "verify"),
                        "whoever answers in place of the device \"" + entry.index +
                            "\" is believed: pin its fingerprint");
    }
    if (!entry.caFile.empty()) readAuthorities(placeOfKey(table, at, "ca_file"), entry);
  }

  void readAuthorities(const Place& place, DeviceEntry& entry) {
    const SecretFile file(entry.caFile, fileOf(place).parent_path());
    if (isElsewhere(file, place)) return;
    entry.authorities = file.read(place, findings_, kCertificateBytes);
    if (findings_.hasErrorAt(place)) return;
    const std::string fault = faultOfAuthorities(entry.authorities);
    if (!fault.empty()) findings_.error(place, file.path().string() + ": " + fault);
  }

  void addUser(const toml::table& table, const Place& at) {
    UserEntry entry;
    entry.algorithm = result_.kavro.algorithm;
    readTable(table, kUserKeys, at, entry, findings_);
    names_.add(entry.name, placeOfKey(table, at, "name"));
    noteSecrets(table, at, {"password", "ha1", "ha1_sha256"});
    entries_.users.push_back(entry);
    makeHa1(table, at, entry);
    warnAboutExample(entry.password, placeOfKey(table, at, "password"));
    warnAboutMissingDevices(entry, table, at);
    result_.users.push_back(std::move(entry));
  }

  // Of one of the four keys that say it; a SHA-256 digest may stand beside an MD5 one.
  void makeHa1(const toml::table& table, const Place& at, UserEntry& entry) {
    const char* const keys[] = {"password", "password_file", "ha1", "ha1_file"};
    const auto given =
        std::ranges::count_if(keys, [&](const char* key) { return table.contains(key); });
    const bool strongIsEnough =
        entry.algorithm == DigestAlgorithm::SHA256 && !entry.ha1Sha256.empty();
    if (given > 1 || (given == 0 && !strongIsEnough)) {
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
    takeStrongHa1(table, at, entry);
    checkDigest(entry.ha1, algorithm,
                placeOfKey(table, at, entry.ha1File.empty() ? "ha1" : "ha1_file"));
  }

  void takeStrongHa1(const toml::table& table, const Place& at, UserEntry& entry) {
    if (entry.ha1Sha256.empty()) return;
    const Place place = placeOfKey(table, at, "ha1_sha256");
    if (!entry.password.empty()) return findings_.error(place, "expected beside ha1 or ha1_file");
    checkDigest(entry.ha1Sha256, DigestAlgorithm::SHA256, place);
    const bool weakIsUsed = entry.algorithm == DigestAlgorithm::MD5;
    (weakIsUsed ? entry.strongHa1 : entry.ha1) = entry.ha1Sha256;
  }

  void checkDigest(std::string& digest, DigestAlgorithm algorithm, const Place& place) {
    if (!digest.empty() && digest.size() != hexLength(algorithm)) {
      findings_.error(place, "expected " + std::to_string(hexLength(algorithm)) +
                                 " hexadecimal digits, a " + std::string(algorithmName(algorithm)) +
                                 " digest");
    }
    std::ranges::transform(digest, digest.begin(), text::lower);
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
    if (!result_.network.httpsEnabled || proxied || result_.https.isOn()) return;
    findings_.warning(placeIn("network", "https_enabled"),
                      "clients are told that port " + std::to_string(result_.network.httpsPort) +
                          " speaks HTTPS, where the gateway itself does not listen: put a proxy "
                          "there and name it in http.trusted_proxies, or say false");
  }

  const toml::table& root_;
  const std::vector<toml::table>& included_;
  const Examination& examination_;
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
auto examined(std::string_view content, const std::string& name, const Examination& examination,
              Take take) {
  Findings findings(name);
  const Documents documents = readDocuments(content, examination, findings);
  FileReader reader(documents, examination, findings);
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

template <class S, std::size_t N>
ListedEntries listed(const Key<S> (&keys)[N], const std::vector<S>& entries) {
  ListedEntries result;
  result.rows.resize(entries.size());
  const S standard{};
  for (const Key<S>& key : keys) {
    if (key.traits.secret) continue;
    result.keys.emplace_back(key.name);
    std::visit(
        [&](auto member) {
          result.standard.push_back(tomlText(standard.*member));
          for (std::size_t i = 0; i < entries.size(); ++i) {
            result.rows[i].push_back(tomlText(entries[i].*member));
          }
        },
        key.member);
  }
  return result;
}

}  // namespace

ConfigurationError::ConfigurationError(std::vector<std::string> lines)
    : std::runtime_error(joined(lines)), lines_(std::move(lines)) {}

ReadConfiguration examineConfiguration(const std::filesystem::path& file,
                                       const Examination& examination) {
  return examined(
      contentOfFile(file), file.string(), examination,
      [&](Configuration read, const Entries& entries, Findings& findings) {
        for (const auto& each : entries.withSecrets) {
          if (!isReadableByOthers(each)) continue;
          const Place place{0, 0, {}, std::make_shared<const std::string>(each.string())};
          findings.warning(
              place, "everybody may read it, and it holds passwords: chmod o-rwx " + each.string());
        }
        return ReadConfiguration{std::move(read), findings.warnings()};
      });
}

std::vector<std::filesystem::path> includedFiles(const std::filesystem::path& file) {
  Findings findings(file.string());
  const toml::table root = parseToml(contentOfFile(file), findings);
  if (findings.hasErrors()) throw ConfigurationError(findings.errors());
  std::vector<std::filesystem::path> files;
  for (const std::string& name : namesOfIncluded(root)) {
    files.push_back(file.parent_path() / name);
  }
  return files;
}

Configuration readConfiguration(const std::filesystem::path& file) {
  ReadConfiguration read = examineConfiguration(file);
  for (const std::string& line : read.warnings) logWarn("{}", line);
  return std::move(read.configuration);
}

Configuration readConfiguration(std::string_view content, const std::string& name) {
  return examined(content, name, {},
                  [](Configuration read, const Entries&, const Findings& findings) {
                    for (const std::string& line : findings.warnings()) logWarn("{}", line);
                    return read;
                  });
}

Configuration parseConfiguration(std::string_view content, const std::string& name) {
  return examined(content, name, {},
                  [](Configuration read, const Entries&, const Findings&) { return read; });
}

std::optional<std::vector<std::string>> configuredValues(const std::filesystem::path& file,
                                                         std::string_view key) {
  const std::size_t dot = std::min(key.find('.'), key.size());
  const std::string_view name = key.substr(std::min(dot + 1, key.size()));
  std::optional<std::vector<std::string>> values;
  examined(contentOfFile(file), file.string(), {},
           [&](const Configuration& read, const Entries& entries, const Findings&) {
             const std::string_view section = key.substr(0, dot);
             collect(kTopKeys, key, std::span(&read, 1), values);
             forEachSection([&](std::string_view each, auto, const auto& keys, auto member) {
               if (each == section) collect(keys, name, std::span(&(read.*member), 1), values);
             });
             if (section == "users") collect(kUserKeys, name, entries.users, values);
             if (section == "devices") collect(kDeviceKeys, name, entries.devices, values);
             if (section == "certificates") {
               collect(kCertificateKeys, name, read.https.certificates, values);
             }
             return 0;
           });
  return values;
}

ListedEntries listedEntries(const std::filesystem::path& file, std::string_view list) {
  return examined(contentOfFile(file), file.string(), {nullptr, true},
                  [&](const Configuration&, const Entries& entries, const Findings&) {
                    return list == "users" ? listed(kUserKeys, entries.users)
                                           : listed(kDeviceKeys, entries.devices);
                  });
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
  if (before.https.tls().identities != after.https.tls().identities) {
    changed.emplace_back("certificates");
  }
  if (before.users != after.users) changed.emplace_back("users");
  if (before.devices != after.devices) changed.emplace_back("devices");
  return changed;
}

void checkReload(const Configuration& inForce, const Configuration& next, const std::string& file) {
  for (const CertificateConfig& each : next.https.inUse()) {
    const auto former = inForce.https.inUse();
    if (each.expires > std::chrono::system_clock::now() || std::ranges::count(former, each) > 0)
      continue;
    fail(file + ": expected a certificate that has not expired, not " + each.certificate);
  }
  if (!inForce.findUser(kAdministrator) || next.findUser(kAdministrator)) return;
  fail(file + ": expected the user \"" + std::string(kAdministrator) +
       "\", without whom a running gateway would serve nobody");
}

}  // namespace qn
