// See documents.h.
#include "subdevice/documents.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "subdevice/device.h"
#include "subdevice/json_text.h"
#include "subdevice/resources.h"
#include "text/ascii.h"
#include "text/number.h"

namespace subdevice {
namespace {

constexpr int kStreamsOfChannel = 3;

// What the table's text is filled with.
struct Filling {
  const DeviceOptions& options;
  int id;
  int channel;
  int turn;  // counts from 0
};

std::string zeroPadded(int number, std::string_view digits) {
  std::string text = std::to_string(number);
  const std::size_t width = qn::text::wholeNumber<unsigned>(digits).value_or(0);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

std::string macAddress(int number) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "02:00:00:00:%02x:%02x", number >> 8 & 0xff,
                number & 0xff);
  return text.data();
}

std::string wordFor(std::string_view name, const Filling& with) {
  if (name == "id") return std::to_string(with.id);
  if (name == "channel") return std::to_string(with.channel);
  if (name == "mac") return macAddress(with.options.number);
  if (name == "type") return with.options.type;
  if (name == "model") return isRecorder(with.options.type) ? "SIM-R8" : "SIM-C4";
  return zeroPadded(with.options.number, name.substr(std::string_view("device").size()));
}

// Of "a|b|c" the one whose turn it is.
std::string_view alternative(std::string_view choices, int turn) {
  const auto count = std::ranges::count(choices, '|') + 1;
  for (auto left = turn % count; left > 0; --left) choices.remove_prefix(choices.find('|') + 1);
  return choices.substr(0, choices.find('|'));
}

std::string filled(std::string_view text, const Filling& with) {
  std::string out;
  for (;;) {
    const auto mark = text.find('$');
    out += text.substr(0, mark);
    if (mark == std::string_view::npos) return out;
    text.remove_prefix(mark + 1);
    if (text.starts_with('[')) {
      const auto end = text.find(']');
      out += filled(alternative(text.substr(1, end - 1), with.turn), with);
      text.remove_prefix(end + 1);
      continue;
    }
    const auto end =
        std::ranges::find_if_not(
            text, [](char c) { return (c >= 'a' && c <= 'z') || qn::text::isDigit(c); }) -
        text.begin();
    out += wordFor(text.substr(0, static_cast<std::size_t>(end)), with);
    text.remove_prefix(static_cast<std::size_t>(end));
  }
}

bool sameKind(const Json::Value& one, const Json::Value& other) {
  return one.type() == other.type() || (one.isNumeric() && other.isNumeric());
}

// A member that the document does not have, or that is of another kind there; nullptr: none.
const char* misfit(const Json::Value& document, const Json::Value& change) {
  if (!sameKind(document, change)) return "wrongKind";
  if (!change.isObject()) return nullptr;
  for (auto member = change.begin(); member != change.end(); ++member) {
    const std::string name = member.name();
    if (!document.isMember(name)) return "unknownMember";
    if (const char* reason = misfit(document[name], *member)) return reason;
  }
  return nullptr;
}

Reply textReply(std::string text) {
  Reply reply;
  reply.body = std::move(text);
  return reply;
}

std::string wrapped(const char* name, std::string_view text) {
  return "{\"" + std::string(name) + "\":" + std::string(text) + "}";
}

bool isList(const StoredDocument& row) { return *row.list != '\0'; }

const StoredDocument& rowOf(std::string_view path) {
  const auto rows = storedDocuments();
  return *std::ranges::find(rows, path, [](const auto& row) { return row.path.text(); });
}

}  // namespace

bool isRecorder(const std::string& deviceType) {
  return deviceType == "NVR" || deviceType == "DVR" || deviceType == "DVS" ||
         deviceType == "HybirdNVR";
}

std::optional<Reply> Documents::answer(const Request& request) {
  for (const auto& row : storedDocuments()) {
    std::string_view rest = request.path;
    std::array<int, 2> ids{};
    if (!row.path.takeFrom(rest, ids)) continue;
    if (rest.empty() && isKept(row))
      return isList(row) ? answerList(row, request) : answerEntry(row, request, ids[0]);
    if (!isList(row) || !rest.starts_with('/')) continue;
    rest.remove_prefix(1);
    if (Pattern::takeNumber(rest, ids[0]) && rest.empty() && isKept(row))
      return answerEntry(row, request, ids[0]);
  }
  return {};
}

bool Documents::has(std::string_view listPath, int id) {
  return entries(rowOf(listPath)).contains(id);
}

std::string Documents::entriesOf(std::string_view listPath) { return entriesText(rowOf(listPath)); }

void Documents::merge(std::string_view path, const char* section, const Json::Value& members) {
  const StoredDocument& row = rowOf(path);
  auto& entry = *entries(row).begin();
  Json::Value document = parseJson(text(row, entry)).value();
  mergeJson(document[section], members);
  entry.second = writeJson(document);
}

bool Documents::isKept(const StoredDocument& row) const {
  return !row.camerasOnly || !isRecorder(options_.type);
}

Documents::Entries& Documents::entries(const StoredDocument& row) {
  const auto [kept, isNew] = kept_.try_emplace(&row);
  if (isNew) kept->second = idsOf(row);
  return kept->second;
}

Documents::Entries Documents::idsOf(const StoredDocument& row) const {
  Entries ids;
  if (!isList(row) && !row.path.hasNumber()) ids.try_emplace(0);
  const int count = row.ids < 0 ? options_.channels : row.ids;
  for (int number = 1; number <= count; ++number) {
    if (row.ids != kStreams) ids.try_emplace(number);
    for (int stream = 1; row.ids == kStreams && stream <= kStreamsOfChannel; ++stream)
      ids.try_emplace(number * 100 + stream);
  }
  return ids;
}

const std::string& Documents::text(const StoredDocument& row, Entries::value_type& entry) {
  if (entry.second.empty()) entry.second = factoryText(row, entry.first);
  return entry.second;
}

std::string Documents::factoryText(const StoredDocument& row, int id) const {
  const bool stream = row.ids == kStreams;
  const Filling with{options_, id, stream ? id / 100 : id, stream ? id % 100 - 1 : id - 1};
  return writeJson(parseJson(filled(row.text, with)).value());
}

std::string Documents::entriesText(const StoredDocument& row) {
  std::string list = "[";
  for (auto& entry : entries(row)) {
    if (list.size() > 1) list += ',';
    list += wrapped(row.entry, text(row, entry));
  }
  return list + "]";
}

std::optional<Reply> Documents::answerList(const StoredDocument& row, const Request& request) {
  if (request.method == "GET") return textReply(wrapped(row.list, entriesText(row)));
  if (request.method == "POST" && row.shape == Shape::Growing) return add(row, request);
  return {};
}

std::optional<Reply> Documents::answerEntry(const StoredDocument& row, const Request& request,
                                            int id) {
  Entries& all = entries(row);
  const auto found = all.find(id);
  if (found == all.end()) return {};
  if (request.method == "GET")
    return textReply(isList(row) ? wrapped(row.entry, text(row, *found)) : text(row, *found));
  if (request.method == "PUT" && row.shape != Shape::Fixed) return change(row, request, *found);
  if (request.method == "DELETE" && row.shape == Shape::Growing) {
    all.erase(found);
    return okReply();
  }
  return {};
}

// The entry begins as the table has it; ids are not used twice while a later one is there.
Reply Documents::add(const StoredDocument& row, const Request& request) {
  Entries& all = entries(row);
  if (all.size() >= kEntries) return statusReply(Status::Refused, "listFull");
  const int id = all.empty() ? 1 : all.rbegin()->first + 1;
  Entries::value_type entry(id, "");
  Reply reply = change(row, request, entry);
  if (reply.status != 200) return reply;
  all.insert(std::move(entry));
  Json::Value document = parseJson(reply.body).value();
  document["id"] = id;
  return documentReply(document);
}

// The members sent replace those that the device has.
Reply Documents::change(const StoredDocument& row, const Request& request,
                        Entries::value_type& entry) {
  Json::Value sent = bodyObject(request);
  if (sent.isNull()) return statusReply(Status::BadFormat, "notAnObject");
  if (isList(row)) {
    if (!sent[row.entry].isObject())
      return statusReply(Status::BadFormat, "notA" + std::string(row.entry));
    sent = Json::Value(sent[row.entry]);
    sent.removeMember("id");  // the resource names the entry, whatever the document says
  }
  if (const char* reason = row.judge != nullptr ? row.judge(sent) : nullptr)
    return statusReply(Status::BadContent, reason);
  Json::Value next = parseJson(text(row, entry)).value();
  if (const char* reason = row.takesNewMembers ? nullptr : misfit(next, sent))
    return statusReply(Status::BadContent, reason);
  mergeJson(next, sent);
  std::string changed = writeJson(next);
  if (changed.size() > kDocumentBytes) return statusReply(Status::BadContent, "tooLarge");
  entry.second = std::move(changed);
  return okReply();
}

}  // namespace subdevice
