// See anonymiser.h.
#include "subdevice/recorder/anonymiser.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/address.hpp>

#include "subdevice/json_text.h"
#include "text/ascii.h"
#include "text/hex.h"
#include "text/xml.h"

namespace subdevice {
namespace {

// What is replaced wherever it stands; shorter ones, and short numbers, would be found in too much.
constexpr std::size_t kShortestWord = 4;
constexpr std::size_t kShortestNumber = 8;
constexpr std::size_t kMacLength = 17;

struct NameRule {
  std::string_view part;  // of a name, in lower case
  Secret kind;
};

// The first that fits holds.
constexpr std::array<NameRule, 31> kNames{{
    {"serialport", Secret::None},     {"password", Secret::Password},
    {"passwd", Secret::Password},     {"pwd", Secret::Password},
    {"passphrase", Secret::Password}, {"secret", Secret::Password},
    {"token", Secret::Password},      {"privatekey", Secret::Password},
    {"pincode", Secret::Password},    {"credential", Secret::Password},
    {"serial", Secret::Serial},       {"deviceid", Secret::Serial},
    {"uuid", Secret::Serial},         {"cardno", Secret::Serial},
    {"employeeno", Secret::Serial},   {"idnumber", Secret::Serial},
    {"phonen", Secret::Serial},       {"telephone", Secret::Serial},
    {"plateno", Secret::Serial},      {"licenseplate", Secret::Serial},
    {"macaddr", Secret::Mac},         {"physicaladdress", Secret::Mac},
    {"hostname", Secret::Address},    {"domainname", Secret::Address},
    {"ipaddr", Secret::Address},      {"ipv4", Secret::Address},
    {"ipv6", Secret::Address},        {"username", Secret::User},
    {"loginname", Secret::User},      {"personname", Secret::User},
    {"mail", Secret::User},
}};
constexpr std::array<std::string_view, 6> kPeople{"user",     "person",     "employee",
                                                  "faceinfo", "facerecord", "cardinfo"};

std::string lowered(std::string_view text) {
  std::string low(text);
  std::ranges::transform(low, low.begin(), qn::text::lower);
  return low;
}

// Of a value with that name, in an object of the other.
Secret kindOf(std::string_view name, std::string_view parent) {
  const std::string low = lowered(name);
  for (const auto& rule : kNames)
    if (low.find(rule.part) != std::string::npos) return rule.kind;
  if (low == "mac") return Secret::Mac;
  if (low == "user" || low == "login") return Secret::User;
  const std::string whose = lowered(parent);
  const auto isOf = [&](auto people) { return whose.find(people) != std::string::npos; };
  if (low == "name" && std::ranges::any_of(kPeople, isOf)) return Secret::User;
  return Secret::None;
}

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

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && qn::text::isHex(text.substr(i + 1, 2))) {
      out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string percentEncoded(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (isWordLetter(c) || std::string_view("-._~:").find(c) != std::string_view::npos) {
      out += c;
    } else {
      const auto byte = static_cast<uint8_t>(c);
      out += '%' + qn::text::hexOf({&byte, 1});
    }
  }
  return out;
}

struct Edit {
  std::size_t from, to;
  std::string instead;
};

std::string replacedIn(const std::string& text, std::vector<Edit> edits) {
  std::ranges::sort(edits, {}, &Edit::from);
  std::string out;
  std::size_t done = 0;
  for (const auto& edit : edits) {
    out += text.substr(done, edit.from - done) + edit.instead;
    done = edit.to;
  }
  return out + text.substr(done);
}

}  // namespace

Conversation Anonymiser::anonymous(const Conversation& conversation) {
  Conversation result = conversation;
  for (auto& exchange : result) apply(exchange);  // finds the secrets
  result = conversation;
  for (auto& exchange : result) apply(exchange);
  return result;
}

void Anonymiser::apply(RecordedExchange& exchange) {
  exchange.target = applyToUrl(exchange.target);
  apply(exchange.request);
  apply(exchange.reply);
  for (auto& part : exchange.parts) apply(part.body);
}

void Anonymiser::apply(RecordedBody& body) {
  const std::string_view bare = qn::text::trimStart(body.text);
  if (bare.starts_with('{') || bare.starts_with('['))
    body.text = applyToJson(body.text);
  else if (bare.starts_with('<'))
    body.text = applyToXml(body.text);
  else
    body.text = applyToPairs(body.text, body.type.ends_with("urlencoded") ? '&' : '\n');
  body.text = scrub(body.text);
}

std::string Anonymiser::applyToUrl(std::string_view target) {
  const auto mark = target.find('?');
  std::string url = scrub(target.substr(0, mark));
  if (mark != std::string_view::npos) url += "?" + applyToPairs(target.substr(mark + 1), '&');
  return url;
}

// "name=value" between marks; between "&" the values are percent-encoded.
std::string Anonymiser::applyToPairs(std::string_view text, char mark) {
  std::string out;
  while (!text.empty()) {
    const std::string_view pair = text.substr(0, text.find(mark));
    const auto equals = pair.find('=');
    const auto head = equals == std::string_view::npos ? 0 : equals + 1;
    const std::string_view value = pair.substr(head);
    const std::string decoded = mark == '&' ? percentDecoded(value) : std::string(value);
    const Secret kind =
        head == 0 ? Secret::None : kindOf(qn::text::trim(pair.substr(0, equals)), "");
    const std::string changed =
        kind == Secret::None || decoded.empty() ? scrub(decoded) : standIn(kind, decoded);
    out += pair.substr(0, head);
    out += changed == decoded ? std::string(value)
           : mark == '&'      ? percentEncoded(changed)
                              : changed;
    text.remove_prefix(pair.size());
    if (text.empty()) break;
    out += mark;
    text.remove_prefix(1);
  }
  return out;
}

namespace {

// A value with its name and whose it is.
struct Leaf {
  const Json::Value& value;
  std::string name, parent;
};

// Leaves of objects and of lists below them, which have the list's name.
void eachLeaf(const Json::Value& value, const std::string& name, const std::string& parent,
              std::set<std::string, std::less<>>& names, std::vector<Leaf>& leaves) {
  if (value.isObject()) {
    for (auto member = value.begin(); member != value.end(); ++member) {
      names.insert(member.name());
      eachLeaf(*member, member.name(), name, names, leaves);
    }
  } else if (value.isArray()) {
    for (const auto& entry : value) eachLeaf(entry, name, parent, names, leaves);
  } else if (!value.isNull() && !value.isBool()) {
    leaves.push_back({value, name, parent});
  }
}

}  // namespace

std::string Anonymiser::applyToJson(const std::string& text) {
  const auto document = parseJson(text);
  if (!document) return text;
  std::vector<Leaf> leaves;
  eachLeaf(*document, "", "", names_, leaves);
  std::vector<Edit> edits;
  for (const auto& leaf : leaves) {
    const auto& place = leaf.value;
    const std::string original = place.asString();
    const Secret kind = kindOf(leaf.name, leaf.parent);
    const bool hidden = kind != Secret::None && !original.empty();
    const std::string changed = hidden ? standIn(kind, original) : scrub(original);
    if (changed == original) continue;
    const std::string number = isNumber(changed) ? changed : "0";
    edits.push_back({static_cast<std::size_t>(place.getOffsetStart()),
                     static_cast<std::size_t>(place.getOffsetLimit()),
                     place.isString() ? writeJson(changed) : number});
  }
  return replacedIn(text, std::move(edits));
}

// The text that follows each start tag, and the values of attributes. What is no XML is looked
// through all the same.
std::string Anonymiser::applyToXml(const std::string& text) {
  std::vector<std::string> open;
  std::vector<Edit> edits;
  const auto judge = [&](std::string_view name, std::string_view parent, std::size_t from,
                         std::size_t to) {
    std::string decoded;
    const std::string raw = text.substr(from, to - from);
    if (!qn::text::appendDecodedXml(raw, decoded)) decoded = raw;
    if (qn::text::trim(decoded, qn::text::kBlanks).empty()) return;
    const Secret kind = kindOf(name, parent);
    const std::string changed = kind == Secret::None ? scrub(decoded) : standIn(kind, decoded);
    if (changed == decoded) return;
    std::string escaped;
    qn::text::appendEscapedXml(changed, qn::text::XmlPlace::Attribute, escaped);
    edits.push_back({from, to, escaped});
  };
  for (auto at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
    const auto end = text.find('>', at);
    if (end == std::string::npos) break;
    if (text[at + 1] == '/') {
      if (!open.empty()) open.pop_back();
      continue;
    }
    if (text[at + 1] == '?' || text[at + 1] == '!') continue;
    const auto nameEnd = text.find_first_of(" \t\r\n/>", at + 1);
    const std::string name = text.substr(at + 1, nameEnd - at - 1);
    names_.insert(name);
    for (auto quote = text.find('"', nameEnd); quote < end; quote = text.find('"', quote + 1)) {
      const auto from = text.find_last_of(" \t\r\n", quote) + 1;
      const auto close = std::min(text.find('"', quote + 1), end);
      judge(std::string_view(text).substr(from, quote - from - 1), name, quote + 1, close);
      quote = close;
    }
    if (text[end - 1] == '/') continue;
    const auto next = std::min(text.find('<', end), text.size());
    judge(name, open.empty() ? "" : open.back(), end + 1, next);
    open.push_back(name);
  }
  return replacedIn(text, std::move(edits));
}

std::string Anonymiser::scrub(std::string_view text) {
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

Anonymiser::Found Anonymiser::secretAt(std::string_view text, std::size_t at) {
  if (!isBorder(text, at)) return {};
  if (auto known = knownAt(text, at)) return known;
  return addressAt(text, at);
}

Anonymiser::Found Anonymiser::knownAt(std::string_view text, std::size_t at) {
  const auto bucket = byStart_.find(std::string(text.substr(at, kShortestWord)));
  if (bucket == byStart_.end()) return {};
  for (const auto& word : bucket->second)
    if (text.substr(at, word.size()) == word && isBorder(text, at + word.size()) &&
        !names_.contains(word))
      return std::pair(word.size(), standIns_.find(word)->second);
  return {};
}

Anonymiser::Found Anonymiser::addressAt(std::string_view text, std::size_t at) {
  if (text.substr(at).starts_with("://")) return loginAt(text, at);
  if (!qn::text::isHexDigit(text[at]) && text[at] != ':') return {};
  if (isMac(text.substr(at)))
    return std::pair(kMacLength, standIn(Secret::Mac, std::string(text.substr(at, kMacLength))));
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
  return std::pair(address.size(), standIn(Secret::Address, address));
}

// The name and the password before "@".
Anonymiser::Found Anonymiser::loginAt(std::string_view text, std::size_t at) {
  const std::size_t begin = at + 3;
  const std::string_view authority =
      text.substr(begin, std::min(text.find_first_of("/ \"<", begin), text.size()) - begin);
  const auto mark = authority.rfind('@');
  const auto colon = authority.find(':');
  if (mark == std::string_view::npos || colon > mark) return {};
  const std::string user = standIn(Secret::User, std::string(authority.substr(0, colon)));
  const std::string password(authority.substr(colon + 1, mark - colon - 1));
  return std::pair(3 + mark, "://" + user + ":" + standIn(Secret::Password, password));
}

std::string Anonymiser::standIn(Secret kind, const std::string& original) {
  const auto known = standIns_.find(original);
  if (known != standIns_.end()) return known->second;
  if (kind == Secret::Serial && original.size() < kShortestWord) return original;
  if (kind == Secret::Address && isCommon(original)) return original;
  const std::string made = newStandIn(kind, original);
  // The stand-ins stay what they are when they are met again.
  for (const auto& word : {original, made}) {
    standIns_[word] = made;
    if (word.size() >= (isNumber(word) ? kShortestNumber : kShortestWord))
      byStart_[word.substr(0, kShortestWord)].push_back(word);
  }
  return made;
}

std::string Anonymiser::newStandIn(Secret kind, const std::string& original) {
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
