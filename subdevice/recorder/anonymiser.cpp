// See anonymiser.h.
#include "subdevice/recorder/anonymiser.h"

#include <json/json.h>

#include <algorithm>
#include <array>

#include "subdevice/json_text.h"
#include "text/ascii.h"
#include "text/hex.h"
#include "text/xml.h"

namespace subdevice {
namespace {

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
    const bool plain =
        qn::text::isDigit(c) || (qn::text::lower(c) >= 'a' && qn::text::lower(c) <= 'z');
    if (plain || std::string_view("-._~:").find(c) != std::string_view::npos) {
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
  body.text = standIns_.scrub(body.text);
}

std::string Anonymiser::applyToUrl(std::string_view target) {
  const auto mark = target.find('?');
  std::string url = standIns_.scrub(target.substr(0, mark));
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
    const std::string changed = kind == Secret::None || decoded.empty()
                                    ? standIns_.scrub(decoded)
                                    : standIns_.of(kind, decoded);
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
              StandIns& names, std::vector<Leaf>& leaves) {
  if (value.isObject()) {
    for (auto member = value.begin(); member != value.end(); ++member) {
      names.addName(member.name());
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
  eachLeaf(*document, "", "", standIns_, leaves);
  std::vector<Edit> edits;
  for (const auto& leaf : leaves) {
    const auto& place = leaf.value;
    const std::string original = place.asString();
    const Secret kind = kindOf(leaf.name, leaf.parent);
    const bool hidden = kind != Secret::None && !original.empty();
    const std::string changed = hidden ? standIns_.of(kind, original) : standIns_.scrub(original);
    if (changed == original) continue;
    const bool digits = std::ranges::all_of(changed, qn::text::isDigit);
    edits.push_back({static_cast<std::size_t>(place.getOffsetStart()),
                     static_cast<std::size_t>(place.getOffsetLimit()),
                     place.isString() ? writeJson(changed)
                     : digits         ? changed
                                      : "0"});
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
    const std::string changed =
        kind == Secret::None ? standIns_.scrub(decoded) : standIns_.of(kind, decoded);
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
    standIns_.addName(name);
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

}  // namespace subdevice
