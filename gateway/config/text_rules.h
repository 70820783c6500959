// What the texts of the configuration file must look like. Used by the key tables.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "gateway/config/configuration.h"

namespace qn {

struct TextRule {
  bool (*holds)(std::string_view text);
  const char* expected;                            // follows "expected "
  std::span<const std::string_view> choices = {};  // all that holds, where these are few
};

extern const TextRule kAddressRule;
extern const TextRule kNetworkRule;
extern const TextRule kLevelRule;
extern const TextRule kLogFormatRule;
extern const TextRule kAccessRule;
extern const TextRule kAlgorithmRule;
extern const TextRule kRealmRule;
extern const TextRule kUserNameRule;
extern const TextRule kPasswordRule;
extern const TextRule kHa1Rule;
extern const TextRule kDeviceIndexRule;
extern const TextRule kDeviceUrlRule;
extern const TextRule kDeviceUserRule;
extern const TextRule kFingerprintRule;
extern const TextRule kDevicePasswordRule;
extern const TextRule kDeviceAuthRule;
extern const TextRule kPathRule;
extern const TextRule kSecretFileRule;
extern const TextRule kTokenRule;
extern const TextRule kWhenFullRule;
extern const TextRule kTlsVersionRule;
extern const TextRule kCipherRule;
extern const TextRule kClientCertificatesRule;
extern const TextRule kPostgresRule;
extern const TextRule kGatewayNameRule;
extern const TextRule kRedisRule;

// Whether only this machine reaches the address.
bool isLoopback(std::string_view address);

// A fingerprint in lower case, without colons.
std::string plainFingerprint(std::string_view text);

// Sets host, port, basePath and tls of the device; false when the text breaks kDeviceUrlRule.
bool parseDeviceUrl(std::string_view url, DeviceConfig& device);

}  // namespace qn
