// One match of a recording search as a record, for callers that sort or page matches; the search
// itself translates the device's JSON directly.
#pragma once

#include <json/json.h>

#include <vector>

namespace QNKAVROProtocol {

// Texts are NUL-terminated and cut to their fields.
struct SearchMatchItem {
  int trackID = 0;
  char startTime[129] = {};
  char endTime[129] = {};
  char contentType[256] = {};
  char codecType[256] = {};
  char playbackURI[2049] = {};
};

// Appends the matches of a device's reply; `count` becomes the device's number of matches. Returns
// 1, or 0 with nothing changed for a reply without a number of matches and a list.
int getInfoFromSearchRsp(int& count, std::vector<SearchMatchItem>& items, const Json::Value& reply);

// True also for equal times, so it is no order for std::sort.
bool sortByBegintime(const SearchMatchItem& a, const SearchMatchItem& b);

}  // namespace QNKAVROProtocol
