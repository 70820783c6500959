// See configuration_changes.h.
#include "gateway/config/configuration_changes.h"

#include <algorithm>
#include <chrono>
#include <variant>

#include "gateway/config/configuration_file.h"
#include "gateway/config/key_tables.h"

namespace qn {

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

namespace {

[[noreturn]] void refuse(const std::string& line) { throw ConfigurationError({line}); }

}  // namespace

void checkReload(const Configuration& inForce, const Configuration& next, const std::string& file) {
  for (const CertificateConfig& each : next.https.inUse()) {
    const auto former = inForce.https.inUse();
    if (each.expires > std::chrono::system_clock::now() || std::ranges::count(former, each) > 0)
      continue;
    refuse(file + ": expected a certificate that has not expired, not " + each.certificate);
  }
  if (!inForce.findUser(kAdministrator) || next.findUser(kAdministrator)) return;
  refuse(file + ": expected the user \"" + std::string(kAdministrator) +
         "\", without whom a running gateway would serve nobody");
}

}  // namespace qn
