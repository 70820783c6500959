// The documents that a device keeps: what a GET shows and a PUT, POST or DELETE changes. Which
// there are stands in one table (document_table.cpp), which the engine (documents.cpp) walks. A
// document is in memory only from the moment that somebody asks for it.
#pragma once

#include <json/json.h>

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "subdevice/message.h"
#include "subdevice/pattern.h"

namespace subdevice {

struct DeviceOptions;

// Is it a recorder: video inputs instead of audio inputs of its own?
bool isRecorder(const std::string& deviceType);

constexpr std::string_view kDeviceInfoPath = "/KAVRO/System/deviceInfo";
constexpr std::string_view kStreamsPath = "/KAVRO/Streaming/channels";
constexpr std::string_view kIoInputsPath = "/KAVRO/System/IO/inputs";
constexpr std::string_view kIoOutputsPath = "/KAVRO/System/IO/outputs";
constexpr int kIoOutputs = 2;

enum class Shape {
  Fixed,     // can only be read
  Document,  // can be read and changed
  List,      // a list; its entries, each at "<path>/<id>", can be read and changed
  Growing,   // a list to which POST adds entries and from which DELETE takes them
};

// Which ids the entries of a list have at first, or the "%d" of a path stands for: 1 to a number,
// or one for each channel, or one for each stream of each channel (channel * 100 + stream).
enum Ids : int { kNoIds = 0, kChannels = -1, kStreams = -2 };

struct StoredDocument {
  Shape shape;
  Pattern path;
  int ids;  // a number, or one of Ids
  // Of the document, or of an entry of the list. "$id", "$channel", "$device" (its number;
  // "$device9" with leading zeros), "$mac", "$type" and "$model" are filled in, and of "$[a|b]" the
  // word whose turn it is.
  const char* text;
  const char* list = "";   // name of a list
  const char* entry = "";  // name around each of its entries
  // Refuses a change or takes away what is not to be kept; nullptr is well.
  const char* (*judge)(Json::Value& change) = nullptr;
  bool takesNewMembers = false;
  bool camerasOnly = false;
};

std::span<const StoredDocument> storedDocuments();

class Documents {
 public:
  static constexpr std::size_t kEntries = 64;               // that a list may grow to
  static constexpr std::size_t kDocumentBytes = 64 * 1024;  // that a document may grow to

  // The options outlive the documents.
  explicit Documents(const DeviceOptions& options) : options_(options) {}

  // Nothing when the request is for no stored document, or in a way that it does not know.
  std::optional<Reply> answer(const Request& request);

  bool has(std::string_view listPath, int id);
  // The entries as a JSON array.
  std::string entriesOf(std::string_view listPath);
  // Takes the members over into a section of a document, whatever it had before.
  void merge(std::string_view path, const char* section, const Json::Value& members);

 private:
  using Entries = std::map<int, std::string>;  // text by id; empty: as the table has it

  bool isKept(const StoredDocument& row) const;
  Entries& entries(const StoredDocument& row);
  Entries idsOf(const StoredDocument& row) const;
  const std::string& text(const StoredDocument& row, Entries::value_type& entry);
  std::string factoryText(const StoredDocument& row, int id) const;
  std::string entriesText(const StoredDocument& row);

  std::optional<Reply> answerList(const StoredDocument& row, const Request& request);
  std::optional<Reply> answerEntry(const StoredDocument& row, const Request& request, int id);
  Reply add(const StoredDocument& row, const Request& request);
  Reply change(const StoredDocument& row, const Request& request, Entries::value_type& entry);

  const DeviceOptions& options_;
  std::map<const StoredDocument*, Entries> kept_;  // a document without "%d" is its own entry 0
};

}  // namespace subdevice
