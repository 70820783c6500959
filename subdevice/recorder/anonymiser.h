// Takes out of a conversation what names people and places: passwords, serial numbers, addresses of
// networks, names of users. The same original becomes the same stand-in wherever it appears, so
// that the conversation still makes sense.
//
// Found by the names of members, elements and parameters ("password", "serialNumber", "userName"),
// by shape (IPv4, IPv6 and MAC addresses, the login in a URL), and, once found, wherever the same
// word of four letters (or number of eight digits) or more stands, unless members are called so.
// What is in pictures and other bodies that are no text is not kept at all.
#pragma once

#include <string>
#include <string_view>

#include "subdevice/conversation.h"
#include "subdevice/recorder/stand_ins.h"

namespace subdevice {

class Anonymiser {
 public:
  // A name that stands in no body, such as that of a login.
  void learn(Secret kind, const std::string& original) { standIns_.of(kind, original); }

  // The conversation without secrets; looked through twice, so that what is found late is replaced
  // where it stood early.
  Conversation anonymous(const Conversation& conversation);

 private:
  void apply(RecordedExchange& exchange);
  void apply(RecordedBody& body);
  std::string applyToUrl(std::string_view target);
  std::string applyToPairs(std::string_view text, char mark);
  std::string applyToJson(const std::string& text);
  std::string applyToXml(const std::string& text);

  StandIns standIns_;
};

}  // namespace subdevice
