// See secret_file.h.
#include "gateway/config/secret_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace qn {
namespace {

using std::filesystem::perms;
constexpr std::string_view kCredential = "credential:";

// The name of a credential is a single part of a path.
std::filesystem::path credentialFile(std::string_view name) {
  const char* const folder = std::getenv("CREDENTIALS_DIRECTORY");
  if (!folder || name.empty() || name == ".." || name.find('/') != name.npos) return {};
  return std::filesystem::path(folder) / name;
}

}  // namespace

bool isReadableByOthers(const std::filesystem::path& file) {
  std::error_code error;
  const auto facts = std::filesystem::status(file, error);
  return !error && (facts.permissions() & perms::others_read) != perms::none;
}

std::string contentOf(const std::filesystem::path& file, std::size_t most) {
  const auto fail = [] { throw std::system_error(errno, std::generic_category()); };
  std::ifstream stream(file, std::ios::binary);
  if (!stream) fail();
  std::string content;
  std::array<char, 16 * 1024> piece;  // files are short, so no room is taken for the longest
  while (stream && content.size() <= most) {
    const std::size_t wanted = std::min(piece.size(), most + 1 - content.size());
    stream.read(piece.data(), std::streamsize(wanted));
    content.append(piece.data(), std::size_t(stream.gcount()));
  }
  if (stream.bad()) fail();
  return content;
}

SecretFile::SecretFile(std::string_view name, const std::filesystem::path& folder)
    : credential_(name.starts_with(kCredential)),
      path_(credential_ ? credentialFile(name.substr(kCredential.size())) : folder / name) {}

bool SecretFile::isMissingCredential() const {
  return credential_ && !std::getenv("CREDENTIALS_DIRECTORY");
}

std::string SecretFile::read(const Place& place, Findings& findings, std::size_t most) const {
  if (path_.empty()) {
    findings.error(place,
                   "expected the name of a credential, and a service manager that gives it "
                   "(LoadCredential= of the unit, so that CREDENTIALS_DIRECTORY is set)");
    return {};
  }
  try {
    const auto facts = status(path_);
    if (exists(facts) && !is_regular_file(facts)) {  // a pipe would block, a device would not end
      findings.error(place, path_.string() + ": expected a file");
      return {};
    }
    std::string content = contentOf(path_, most);
    if (content.size() <= most) return content;
    findings.error(place, path_.string() + ": expected at most " + std::to_string(most) + " bytes");
  } catch (const std::system_error& error) {
    findings.error(place, path_.string() + " cannot be read: " + error.code().message());
  }
  return {};
}

std::string SecretFile::readPrivate(const Place& place, Findings& findings,
                                    std::size_t most) const {
  std::string content = read(place, findings, most);
  if (!credential_ && isReadableByOthers(path_)) {
    findings.warning(place,
                     path_.string() + " may be read by everybody: chmod 600 " + path_.string());
  }
  return content;
}

std::string SecretFile::readLine(const Place& place, Findings& findings) const {
  std::string content = readPrivate(place, findings);
  if (content.ends_with('\n')) content.pop_back();
  if (content.ends_with('\r')) content.pop_back();
  return content;
}

}  // namespace qn
