// Takes out of a conversation what names people and places: passwords, serial numbers, addresses of
// networks, names of users. The same original becomes the same stand-in wherever it appears, so
// that the conversation still makes sense.
//
// Found by the names of members, elements and parameters ("password", "serialNumber", "userName"),
// by shape (IPv4, IPv6 and MAC addresses, the login in a URL), and, once found, wherever the same
// word of four letters (or number of eight digits) or more stands, unless members are called so.
// What is in pictures and other bodies that are no text is not kept at all.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "subdevice/conversation.h"

namespace subdevice {

enum class Secret { None, Password, Serial, Mac, Address, User };

class Anonymiser {
 public:
  // A name that stands in no body, such as that of a login.
  void learn(Secret kind, const std::string& original) { standIn(kind, original); }

  // The conversation without secrets; looked through twice, so that what is found late is replaced
  // where it stood early.
  Conversation anonymous(const Conversation& conversation);

 private:
  // What is to be replaced: its length and the stand-in.
  using Found = std::optional<std::pair<std::size_t, std::string>>;

  void apply(RecordedExchange& exchange);
  void apply(RecordedBody& body);
  std::string applyToUrl(std::string_view target);
  std::string applyToPairs(std::string_view text, char mark);
  std::string applyToJson(const std::string& text);
  std::string applyToXml(const std::string& text);
  // Addresses and known words in any text.
  std::string scrub(std::string_view text);

  std::string standIn(Secret kind, const std::string& original);
  std::string newStandIn(Secret kind, const std::string& original);
  // What begins at a place.
  Found secretAt(std::string_view text, std::size_t at);
  Found knownAt(std::string_view text, std::size_t at);
  Found addressAt(std::string_view text, std::size_t at);
  Found loginAt(std::string_view text, std::size_t at);

  std::map<std::string, std::string, std::less<>> standIns_;  // by original
  std::set<std::string, std::less<>> names_;  // of members and elements: no words to be replaced
  std::unordered_map<std::string, std::vector<std::string>> byStart_;  // words, by four letters
  int made_ = 0;
};

}  // namespace subdevice
