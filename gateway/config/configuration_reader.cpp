// See configuration_reader.h.
#include "gateway/config/configuration_reader.h"

#include <algorithm>
#include <initializer_list>
#include <map>
#include <utility>

#include "gateway/auth/digest.h"
#include "gateway/config/named_files.h"
#include "gateway/config/toml_syntax.h"
#include "text/ascii.h"

namespace qn {
namespace {

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

// Reads once.
class Reader {
 public:
  Reader(const ConfigurationDocuments& documents, const Examination& examination,
         Findings& findings)
      : documents_(documents), findings_(findings), files_(examination, findings) {}

  ReadDocuments read() {
    result_.include = documents_.namesOfIncluded();
    for (const auto& [name, node] : documents_.root) readTopLevel(name, node);
    for (const toml::table& document : documents_.included) checkIncluded(document);
    if (!result_.kavro.nonceKeyFile.empty()) {
      files_.readNonceKey(result_.kavro, placeIn("kavro", "nonce_key_file"));
    }
    checkCluster();
    // After the sections, because HA1s depend on the realm.
    if (result_.http.enabled) claimPort("http", "port", result_.http.port);
    readHttps();
    claimPort("network", "picture_port", result_.network.picturePort);
    checkAdmin();
    documents_.forEachTable("devices", findings_,
                            [this](const auto& table, const Place& at) { addDevice(table, at); });
    documents_.forEachTable("users", findings_,
                            [this](const auto& table, const Place& at) { addUser(table, at); });
    result_.buildIndexes();
    if (!result_.findUser(kAdministrator)) {
      findings_.warning({}, "there is no user \"" + std::string(kAdministrator) +
                                "\", so the gateway is not activated and serves nobody");
    }
    warnAboutHttps();
    return std::move(read_);
  }

 private:
  void readTopLevel(const toml::key& name, const toml::node& node) {
    const Place place = placeOf(name.source(), std::string(name.str()));
    std::vector<std::string_view> sections{ConfigurationDocuments::kInclude};
    bool known = place.key == ConfigurationDocuments::kInclude;
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

  Place placeIn(const char* section, const char* key) const {
    return documents_.placeIn(section, key);
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
    files_.readIdentity(https, placeIn("https", "certificate"), placeIn("https", "key"));
    documents_.forEachTable("certificates", findings_, [this](const auto& table, const Place& at) {
      CertificateConfig& added = result_.https.certificates.emplace_back();
      readTable(table, kCertificateKeys, at, added, findings_);
      files_.readIdentity(added, placeOfKey(table, at, "certificate"),
                          placeOfKey(table, at, "key"));
    });
    if (https.clientCertificates != ClientCertificates::None) {
      files_.readClientAuthorities(https, placeIn("https", "client_ca"));
    }
    if (https.ciphers.empty())
      findings_.error(placeIn("https", "ciphers"), "expected at least one");
    if (https.redirect && !result_.http.enabled) {
      findings_.error(placeIn("https", "redirect"),
                      "expected false, because http.enabled is false");
    }
  }

  void noteSecrets(const toml::table& table, const Place& at,
                   std::initializer_list<const char*> keys) {
    const auto has = [&](const char* key) { return table.contains(key); };
    if (std::ranges::any_of(keys, has)) read_.withSecrets.insert(files_.fileOf(at));
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
    files_.readSecret(entry.passwordFile, file, kDevicePasswordRule, entry.password);
    if (entry.username.empty() && !entry.password.empty()) {
      findings_.error(placeOfKey(table, at, "username"), "expected a name to go with the password");
    }
    warnAboutExample(entry.password, placeOfKey(table, at, "password"));
    noteSecrets(table, at, {"password"});
    readVerification(table, at, entry);
    result_.devices.push_back(entry);
    read_.devices.push_back(std::move(entry));
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
    if (entry.caFile.empty()) return;
    files_.readDeviceAuthorities(entry, entry.caFile, placeOfKey(table, at, "ca_file"));
  }

  void addUser(const toml::table& table, const Place& at) {
    UserEntry entry;
    entry.algorithm = result_.kavro.algorithm;
    readTable(table, kUserKeys, at, entry, findings_);
    names_.add(entry.name, placeOfKey(table, at, "name"));
    noteSecrets(table, at, {"password", "ha1", "ha1_sha256"});
    read_.users.push_back(entry);
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
    files_.readSecret(entry.passwordFile, placeOfKey(table, at, "password_file"), kPasswordRule,
                      entry.password);
    files_.readSecret(entry.ha1File, placeOfKey(table, at, "ha1_file"), kHa1Rule, entry.ha1);
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

  const ConfigurationDocuments& documents_;
  Findings& findings_;
  NamedFiles files_;
  ReadDocuments read_;
  Configuration& result_ = read_.configuration;
  Distinct<std::string> names_{findings_};
  Distinct<std::string> indexes_{findings_};
  Distinct<uint16_t> ports_{findings_};
};

}  // namespace

ReadDocuments examine(const ConfigurationDocuments& documents, const Examination& examination,
                      Findings& findings) {
  return Reader(documents, examination, findings).read();
}

}  // namespace qn
