// Files that keys of the configuration name: certificates, authorities, keys and secrets, read and
// checked. Used by configuration_reader.
#pragma once

#include <filesystem>
#include <string>

#include "gateway/config/configuration.h"
#include "gateway/config/configuration_file.h"
#include "gateway/config/findings.h"
#include "gateway/config/secret_file.h"
#include "gateway/config/text_rules.h"

namespace qn {

// Each call takes over what stands in the file that a key names. A file that cannot be read, or
// holds something else, is an error at the key's place, and the target stays as it is; a credential
// that only the service can look at is a warning.
class NamedFiles {
 public:
  static constexpr std::size_t kNonceKeyMin = 32;
  static constexpr std::size_t kCertificateBytes = 256 * 1024;  // with its chain, or of authorities
  static constexpr std::size_t kPrivateKeyBytes = 32 * 1024;

  NamedFiles(const Examination& examination, Findings& findings)
      : examination_(examination), findings_(findings) {}

  // The file that the place is in.
  std::filesystem::path fileOf(const Place& place) const {
    return place.file ? *place.file : findings_.file();
  }

  void readIdentity(CertificateConfig& to, const Place& certificate, const Place& key);
  void readClientAuthorities(HttpsOptions& https, const Place& place);
  void readDeviceAuthorities(DeviceConfig& device, const std::string& name, const Place& place);
  void readNonceKey(KavroOptions& kavro, const Place& place);
  // One line; nothing without a name.
  void readSecret(const std::string& name, const Place& place, const TextRule& rule,
                  std::string& secret);

 private:
  using Reading = std::string (SecretFile::*)(const Place&, Findings&, std::size_t) const;

  std::string readPem(const std::string& name, const Place& place, Reading reading,
                      std::size_t most);
  bool isElsewhere(const SecretFile& file, const Place& place);
  SecretFile fileAt(const std::string& name, const Place& place) const {
    return {name, fileOf(place).parent_path()};
  }
  void faultInFile(const Place& place, const std::string& name, const std::string& what);

  const Examination& examination_;
  Findings& findings_;
};

}  // namespace qn
