// See named_files.h.
#include "gateway/config/named_files.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "gateway/auth/digest.h"
#include "gateway/tls/tls_server.h"

namespace qn {
namespace {

using std::filesystem::perms;

bool isOwnersAlone(const std::filesystem::path& file) {
  std::error_code error;
  const auto facts = std::filesystem::status(file, error);
  return !error && is_regular_file(facts) &&
         (facts.permissions() & (perms::group_all | perms::others_all)) == perms::none;
}

}  // namespace

void NamedFiles::readIdentity(CertificateConfig& to, const Place& certificate, const Place& key) {
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
std::string NamedFiles::readPem(const std::string& name, const Place& place, Reading reading,
                                std::size_t most) {
  if (name.empty()) {
    findings_.absence(place, "expected a file, because https.port is not 0");
    return {};
  }
  const SecretFile source = fileAt(name, place);
  if (isElsewhere(source, place)) return {};
  std::string content = (source.*reading)(place, findings_, most);
  if (content.empty() && !findings_.hasErrorAt(place)) faultInFile(place, name, "is empty");
  return content;
}

void NamedFiles::faultInFile(const Place& place, const std::string& name, const std::string& what) {
  const SecretFile source = fileAt(name, place);
  findings_.error(place, source.path().string() + ": " + what);
}

void NamedFiles::readClientAuthorities(HttpsOptions& https, const Place& place) {
  https.clientAuthorities = readPem(https.clientCa, place, &SecretFile::read, kCertificateBytes);
  if (https.clientAuthorities.empty()) return;
  const std::string fault = faultOfAuthorities(https.clientAuthorities);
  if (!fault.empty()) faultInFile(place, https.clientCa, fault);
}

void NamedFiles::readDeviceAuthorities(DeviceConfig& device, const std::string& name,
                                       const Place& place) {
  const SecretFile file = fileAt(name, place);
  if (isElsewhere(file, place)) return;
  device.authorities = file.read(place, findings_, kCertificateBytes);
  if (findings_.hasErrorAt(place)) return;
  const std::string fault = faultOfAuthorities(device.authorities);
  if (!fault.empty()) findings_.error(place, file.path().string() + ": " + fault);
}

void NamedFiles::readNonceKey(KavroOptions& kavro, const Place& place) {
  const SecretFile file(kavro.nonceKeyFile, std::filesystem::path());
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
  kavro.nonceKey = hexDigest(DigestAlgorithm::SHA256, {key}).text();
}

// The service manager gives it to the service alone.
bool NamedFiles::isElsewhere(const SecretFile& file, const Place& place) {
  if (!examination_.outsideOfService || !file.isMissingCredential()) return false;
  findings_.warning(place, "is not checked: the service manager gives it to the service alone");
  return true;
}

void NamedFiles::readSecret(const std::string& name, const Place& place, const TextRule& rule,
                            std::string& secret) {
  if (name.empty()) return;
  const SecretFile source = fileAt(name, place);
  if (isElsewhere(source, place)) return;
  std::string content = source.readLine(place, findings_);
  if (findings_.hasErrorAt(place)) return;
  if (content.empty() || !rule.holds(content)) {
    return findings_.error(place, source.path().string() + ": expected one line: " + rule.expected);
  }
  secret = std::move(content);
}

}  // namespace qn
