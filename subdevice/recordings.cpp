// See recordings.h.
#include "subdevice/recordings.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "subdevice/device.h"
#include "subdevice/resources.h"

namespace subdevice {
namespace {

constexpr std::array<const char*, 4> kStreamNames{"", "MAIN", "SUB", "SUB1"};

// Of the hour counted from the first day's midnight; each recording ends one second before the next
// begins.
std::string timeText(int hour, const char* minutesAndSeconds) {
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "2026-01-%02dT%02d:%sZ", hour / 24 + 1, hour % 24,
                minutesAndSeconds);
  return text.data();
}

// 20260101T080000Z of 2026-01-01T08:00:00Z
std::string compact(std::string time) {
  std::erase_if(time, [](char c) { return c == '-' || c == ':'; });
  return time;
}

// The 36 characters that name a channel in its URIs.
std::string sourceId(int channel) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "7e4f0000-0000-4000-8000-%012d", channel);
  return text.data();
}

std::string playbackUri(const Search& search, const std::string& start, const std::string& end) {
  const int channel = search.track / 100;
  return "rtsp://127.0.0.1:" + (search.rtspPort.empty() ? "554" : search.rtspPort) +
         "/sim/dac/record/camera/" + sourceId(channel) + std::to_string(channel) + "/" +
         kStreamNames[search.track % 100] + "/?starttime=" + compact(start) +
         "&endtime=" + compact(end);
}

Json::Value match(const Search& search, int hour) {
  const std::string start = timeText(hour, "00:00");
  const std::string end = timeText(hour, "59:59");
  Json::Value item;
  item["sourceID"] = sourceId(search.track / 100);
  item["trackID"] = search.track;
  item["timeSpan"]["startTime"] = start;
  item["timeSpan"]["endTime"] = end;
  Json::Value& media = item["mediaSegmentDescriptor"];
  media["contenType"] = "video";
  media["codecType"] = "H.264";
  media["playbackURI"] = playbackUri(search, start, end);
  if (!search.metadata.empty()) item["metadataMatches"]["metadataDescriptor"] = search.metadata;
  return item;
}

// The instants of such texts are in the order of the texts; a time without a zone compares as well.
bool overlaps(const Search& search, int hour) {
  const bool before = !search.endTime.empty() && timeText(hour, "00:00") > search.endTime;
  const bool after = !search.startTime.empty() && timeText(hour, "59:59") < search.startTime;
  return !before && !after;
}

bool hasTimeShape(const std::string& text) {
  constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:dd";
  if (text.empty()) return true;
  if (text.size() < kShape.size()) return false;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return false;
  }
  return true;
}

Search readSearch(const Json::Value& description) {
  const auto first = [&](const char* list) {
    const Json::Value& entries = description[list];
    return entries.isArray() && !entries.empty() ? entries[0] : Json::Value(Json::objectValue);
  };
  const Json::Value span = first("timeSpanList").get("timeSpan", Json::objectValue);
  Search search;
  search.track = first("trackIDList").get("trackID", search.track).asInt();
  search.startTime = span.get("startTime", "").asString();
  search.endTime = span.get("endTime", "").asString();
  search.contentType = first("contentTypeList").get("contentType", "").asString();
  search.metadata = first("metadataList").get("metadataDescriptor", "").asString();
  search.rtspPort = first("searchTypeList").get("searchKeyword", "").asString();
  search.position = description.get("searchResultPostion", 0).asInt();
  search.maxResults = description.get("maxResults", search.maxResults).asInt();
  return search;
}

}  // namespace

Json::Value RecordingDatabase::find(const Search& search) const {
  const bool known = search.track / 100 >= 1 && search.track / 100 <= channels_ &&
                     search.track % 100 >= 1 && search.track % 100 <= kStreams &&
                     (search.contentType.empty() || search.contentType == "video");
  const int most = std::clamp(search.maxResults, 0, kMostResults);
  Json::Value result;
  Json::Value& list = result["matchList"] = Json::arrayValue;
  int position = 0;
  bool more = false;
  for (int hour = 0; known && hour < kHours; ++hour) {
    if (!overlaps(search, hour) || position++ < search.position) continue;
    more = static_cast<int>(list.size()) == most;
    if (more) break;
    list.append({})["searchMatchItem"] = match(search, hour);
  }
  result["responseStatus"] = true;
  result["responseStatusStrg"] = more ? "more" : list.empty() ? "none" : "complete";
  result["numOfMatches"] = list.size();
  return result;
}

Reply searchRecordings(ResourceCall& call) {
  const Json::Value description = bodyObject(call.request)["CMSearchDescription"];
  if (!description.isObject()) return statusReply(Status::BadFormat, "notASearch");
  const Search search = readSearch(description);
  if (!hasTimeShape(search.startTime) || !hasTimeShape(search.endTime) || search.position < 0)
    return statusReply(Status::BadContent, "badSearch");
  Json::Value document;
  Json::Value& result = document["CMSearchResult"] = call.device.recordings.find(search);
  result["searchID"] = description.get("searchID", "");
  return documentReply(document);
}

}  // namespace subdevice
