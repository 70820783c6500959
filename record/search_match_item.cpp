// CRecordOperation: matches as records.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "document/json_member.h"
#include "protocol/log.h"
#include "record/record_operation.h"

namespace QNKAVROProtocol {
namespace {

// The member's text, cut to the field; the field keeps its zeros for anything but a text.
template <std::size_t Size>
void copyText(char (&field)[Size], const Json::Value& object, std::string_view name) {
  const Json::Value* member = jsonMember(object, name);
  if (member == nullptr) return;
  const std::string_view text = jsonText(*member);
  std::memcpy(field, text.data(), std::min(text.size(), Size - 1));
}

void copyDescriptor(SearchMatchItem& item, const Json::Value& match) {
  const Json::Value* descriptor = jsonMember(match, "mediaSegmentDescriptor");
  if (descriptor == nullptr) {
    QN_LOG_IN("getInfoFromSearchRsp", WLOG_ERROR, "process json param fail 1.");
    return;
  }
  copyText(item.contentType, *descriptor, "contenType");
  copyText(item.codecType, *descriptor, "codecType");
  copyText(item.playbackURI, *descriptor, "playbackURI");
}

SearchMatchItem itemOf(const Json::Value& match) {
  SearchMatchItem item;
  const Json::Value* track = jsonMember(match, "trackID");
  if (track != nullptr && track->isInt()) item.trackID = track->asInt();
  if (const Json::Value* span = jsonMember(match, "timeSpan")) {
    copyText(item.startTime, *span, "startTime");
    copyText(item.endTime, *span, "endTime");
  }
  copyDescriptor(item, match);
  return item;
}

}  // namespace

int CRecordOperation::getInfoFromSearchRsp(int& count, std::vector<SearchMatchItem>& items,
                                           const Json::Value& reply) {
  const Json::Value* result = jsonMember(reply, "CMSearchResult");
  if (result == nullptr) return 0;
  const Json::Value* matches = jsonMember(*result, "numOfMatches");
  const Json::Value* entries = jsonMember(*result, "matchList");
  if (matches == nullptr || !matches->isInt() || entries == nullptr || !entries->isArray()) {
    return 0;
  }
  count = matches->asInt();
  for (const Json::Value& entry : *entries) {
    if (const Json::Value* match = jsonMember(entry, "searchMatchItem")) {
      items.push_back(itemOf(*match));
    }
  }
  return 1;
}

bool CRecordOperation::sortByBegintime(const SearchMatchItem& a, const SearchMatchItem& b) {
  return std::strcmp(a.startTime, b.startTime) < 1;
}

}  // namespace QNKAVROProtocol
