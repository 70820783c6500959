// What stands in for the secrets of a conversation: the same original becomes the same stand-in, of
// the same kind. Used by the anonymiser.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace subdevice {

enum class Secret { None, Password, Serial, Mac, Address, User };

class StandIns {
 public:
  // An original that says nothing (a loopback address, a serial number of three digits) stands for
  // itself.
  std::string of(Secret kind, const std::string& original);
  // The text with the addresses and the known words in it replaced.
  std::string scrub(std::string_view text);
  // A word that members are called by, and that is replaced nowhere but where of() was asked.
  void addName(const std::string& name) { names_.insert(name); }

 private:
  // What is to be replaced: its length and the stand-in.
  using Found = std::optional<std::pair<std::size_t, std::string>>;

  std::string newStandIn(Secret kind, const std::string& original);
  // What begins at a place.
  Found secretAt(std::string_view text, std::size_t at);
  Found knownAt(std::string_view text, std::size_t at);
  Found addressAt(std::string_view text, std::size_t at);
  Found loginAt(std::string_view text, std::size_t at);

  std::map<std::string, std::string, std::less<>> standIns_;  // by original
  std::set<std::string, std::less<>> names_;
  std::unordered_map<std::string, std::vector<std::string>> byStart_;  // words, by four letters
  int made_ = 0;
};

}  // namespace subdevice
