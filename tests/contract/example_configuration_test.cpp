// The configuration that operators start from: every key in it is known, and what it says about
// defaults is so.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "gateway/config/configuration_file.h"

namespace {

// A copy of the example in which what is commented out is said.
std::filesystem::path exampleWithEveryKey() {
  const auto copy = std::filesystem::temp_directory_path() /
                    ("qn-example-" + std::to_string(::getpid()) + ".toml");
  std::ifstream example(QN_EXAMPLE_CONFIGURATION);
  std::ofstream out(copy);
  const std::regex commentedKey("^# ([a-z_]+ = .*)$");
  for (std::string line; std::getline(example, line);) {
    out << std::regex_replace(line, commentedKey, "$1") << '\n';
  }
  return copy;
}

TEST(ExampleConfiguration, NamesEveryKeyWithItsDefault) {
  const auto file = exampleWithEveryKey();
  const auto said = qn::readConfiguration(file);
  const auto plain = qn::readConfiguration(QN_EXAMPLE_CONFIGURATION);
  std::filesystem::remove(file);

  qn::HttpOptions http;
  http.address = plain.http.address;
  EXPECT_EQ(said.http, http);
  EXPECT_EQ(plain.http, http);
  EXPECT_EQ(said.storage, qn::StorageOptions());
  EXPECT_EQ(said.kavro.realm, qn::KavroOptions().realm);
  EXPECT_EQ(said.kavro.mode, qn::KavroOptions().mode);
  EXPECT_EQ(said.lock.maxAttempts, qn::LockOptions().maxAttempts);
  EXPECT_EQ(said.lock.lockTime, qn::LockOptions().lockTime);
  EXPECT_EQ(said.network.httpsPort, qn::NetworkOptions().httpsPort);
  EXPECT_EQ(said.network.rtspPort, qn::NetworkOptions().rtspPort);
  EXPECT_EQ(said.network.picturePort, qn::NetworkOptions().picturePort);
  EXPECT_EQ(said.pictures.maxBytes, qn::PictureOptions().maxBytes);
  EXPECT_EQ(said.pictures.maxCount, qn::PictureOptions().maxCount);
  EXPECT_EQ(said.pictures.full, qn::PictureOptions().full);
  EXPECT_EQ(said.bus.deviceConnections, qn::BusOptions().deviceConnections);
  EXPECT_EQ(said.bus.deviceQueue, qn::BusOptions().deviceQueue);
  EXPECT_EQ(said.bus.replyBytes, qn::BusOptions().replyBytes);
  EXPECT_EQ(said.log.level, qn::LogOptions().level);
}

}  // namespace
