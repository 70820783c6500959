// Certificates of a test's own, made with the openssl command line.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tests/contract/folder.h"

namespace qn {

struct PemPair {
  std::filesystem::path certificate;
  std::filesystem::path key;
};

inline std::string contentOfPem(const std::filesystem::path& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// An authority and what it has issued, in a folder that goes with it.
class Authority {
 public:
  Authority() { make("ca", "-days 2 -addext basicConstraints=critical,CA:TRUE", "authority"); }

  std::filesystem::path certificate() const { return folder_.path() / "ca.pem"; }

  // `names` as OpenSSL has them: "DNS:example.test,IP:127.0.0.1". An expired one has no days left.
  PemPair issue(const std::string& file, const std::string& names, int days = 2) {
    const std::string by = "-CA " + at("ca.pem") + " -CAkey " + at("ca.key");
    return make(file,
                by + " -days " + std::to_string(days) + " -addext subjectAltName=" + names +
                    " -addext basicConstraints=critical,CA:FALSE",
                file);
  }

 private:
  std::string at(const std::string& name) const { return (folder_.path() / name).string(); }

  PemPair make(const std::string& file, const std::string& options, const std::string& subject) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" +
        subject + " -keyout " + at(file + ".key") + " -out " + at(file + ".pem") + ' ' + options +
        " 2>" + at("errors");
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
    return {folder_.path() / (file + ".pem"), folder_.path() / (file + ".key")};
  }

  Folder folder_;
};

}  // namespace qn
