// See stand_ins.h.
#include "subdevice/recorder/stand_ins.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>

#include "text/ascii.h"
#include "text/hex.h"

namespace subdevice {
namespace {

// What is replaced wherever it stands; shorter ones, and short numbers, would be found in too much.
constexpr std::size_t kShortestWord = 4;
constexpr std::size_t kShortestNumber = 8;
constexpr std::size_t kMacLength = 17;

bool isWordLetter(char c) {
  return qn::text::isDigit(c) || (qn::text::lower(c) >= 'a' && qn::text::lower(c) <= 'z') ||
         static_cast<unsigned char>(c) >= 0x80;
}

// Whether a word of the text could begin, or have ended, between the two places.
bool isBorder(std::string_view text, std::size_t at) {
  return at == 0 || at >= text.size() || !isWordLetter(text[at - 1]) || !isWordLetter(text[at]);
}

bool isNumber(std::string_view text) { return std::ranges::all_of(text, qn::text::isDigit); }

// Digits and letters at the original's places; the digits count. A number stays one.
std::string sameShape(std::string_view original, int number) {
  std::string shape(original);
  for (auto at = shape.rbegin(); at != shape.rend(); ++at) {
    if (qn::text::isDigit(*at)) {
      *at = static_cast<char>('0' + number % 10);
      number /= 10;
    } else if (isWordLetter(*at)) {
      *at = 'X';
    }
  }
  if (isNumber(original)) shape[0] = '9';
  return shape;
}

// Of its last eight bits.
std::string hexByte(int number) {
  const auto byte = static_cast<uint8_t>(number & 0xff);
  return qn::text::hexOf({&byte, 1});
}

std::string macStandIn(std::string_view original, int number) {
  const auto at = original.find_first_of(":-");
  const std::string mark(at == std::string_view::npos ? "" : original.substr(at, 1));
  std::string mac = "02";
  for (const auto& pair : {std::string("00"), std::string("5e"), std::string("00"),
                           hexByte(number >> 8), hexByte(number)})
    mac += mark + pair;
  return mac;
}

std::string addressStandIn(std::string_view original, int number) {
  if (original.find(':') != std::string_view::npos)
    return "2001:db8::" + hexByte(number >> 8) + hexByte(number);
  if (original.find_first_not_of("0123456789.") != std::string_view::npos)
    return "host-" + std::to_string(number) + ".invalid";
  return "198.18." + std::to_string(number >> 8 & 0xff) + "." + std::to_string(number & 0xff);
}

// Says nothing about a place: this machine, any address, masks, groups; or is no address.
bool isCommon(const std::string& text) {
  if (text.find_first_of(".:") == std::string::npos) return true;
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(text, error);
  if (error) return false;  // a name
  if (address.is_v6()) return address.is_loopback() || address.is_unspecified();
  const auto first = address.to_v4().to_bytes()[0];
  return first == 127 || first == 0 || first >= 224;
}

std::string runOf(std::string_view text, std::size_t at, std::string_view letters) {
  return std::string(text.substr(at, text.find_first_not_of(letters, at) - at));
}

// Six pairs of digits with the same mark between them.
bool isMac(std::string_view text) {
  if (text.size() < kMacLength || !isBorder(text, kMacLength)) return false;
  for (std::size_t i = 0; i < kMacLength; ++i) {
    const bool mark = i % 3 == 2;
    if (mark ? text[i] != text[2] || (text[i] != ':' && text[i] != '-')
             : !qn::text::isHexDigit(text[i]))
      return false;
  }
  return true;
}

}  // namespace

std::string StandIns::scrub(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    if (const auto secret = secretAt(text, at)) {
      out += secret->second;
      at += secret->first;
    } else {
      out += text[at++];
    }
  }
  return out;
}

StandIns::Found StandIns::secretAt(std::string_view text, std::size_t at) {
  if (!isBorder(text, at)) return {};
  if (auto known = knownAt(text, at)) return known;
  return addressAt(text, at);
}

StandIns::Found StandIns::knownAt(std::string_view text, std::size_t at) {
  const auto bucket = byStart_.find(std::string(text.substr(at, kShortestWord)));
  if (bucket == byStart_.end()) return {};
  for (const auto& word : bucket->second)
    if (text.substr(at, word.size()) == word && isBorder(text, at + word.size()) &&
        !names_.contains(word))
      return std::pair(word.size(), standIns_.find(word)->second);
  return {};
}

StandIns::Found StandIns::addressAt(std::string_view text, std::size_t at) {
  if (text.substr(at).starts_with("://")) return loginAt(text, at);
  if (!qn::text::isHexDigit(text[at]) && text[at] != ':') return {};
  if (isMac(text.substr(at)))
    return std::pair(kMacLength, of(Secret::Mac, std::string(text.substr(at, kMacLength))));
  const bool inside = at > 1 && text[at - 1] == '.' && qn::text::isDigit(text[at - 2]);
  std::string address = runOf(text, at, "0123456789.");
  while (address.ends_with('.')) address.pop_back();  // of a sentence
  boost::system::error_code error;
  boost::asio::ip::make_address_v4(address, error);
  if (error || inside || !isBorder(text, at + address.size())) {
    address = runOf(text, at, "0123456789abcdefABCDEF:");
    boost::asio::ip::make_address_v6(address, error);
    if (error) return {};
  }
  return std::pair(address.size(), of(Secret::Address, address));
}

// The name and the password before "@".
StandIns::Found StandIns::loginAt(std::string_view text, std::size_t at) {
  const std::size_t begin = at + 3;
  const std::string_view authority =
      text.substr(begin, std::min(text.find_first_of("/ \"<", begin), text.size()) - begin);
  const auto mark = authority.rfind('@');
  const auto colon = authority.find(':');
  if (mark == std::string_view::npos || colon > mark) return {};
  const std::string user = of(Secret::User, std::string(authority.substr(0, colon)));
  const std::string password(authority.substr(colon + 1, mark - colon - 1));
  return std::pair(3 + mark, "://" + user + ":" + of(Secret::Password, password));
}

std::string StandIns::of(Secret kind, const std::string& original) {
  const auto known = standIns_.find(original);
  if (known != standIns_.end()) return known->second;
  if (kind == Secret::Serial && original.size() < kShortestWord) return original;
  if (kind == Secret::Address && isCommon(original)) return original;
  std::string made = newStandIn(kind, original);
  // The stand-ins stay what they are when they are met again.
  for (const auto& word : {original, made}) {
    standIns_[word] = made;
    if (word.size() >= (isNumber(word) ? kShortestNumber : kShortestWord))
      byStart_[word.substr(0, kShortestWord)].push_back(word);
  }
  return made;
}

std::string StandIns::newStandIn(Secret kind, const std::string& original) {
  const int number = ++made_;
  switch (kind) {
    case Secret::Password:
      return "password-" + std::to_string(number);
    case Secret::User:
      return "user-" + std::to_string(number);
    case Secret::Mac:
      return macStandIn(original, number);
    case Secret::Address:
      return addressStandIn(original, number);
    default:
      break;
  }
  const std::string shape = sameShape(original, number);
  const bool taken = shape == original || standIns_.contains(shape);
  return taken ? "serial-" + std::to_string(number) : shape;
}

}  // namespace subdevice
