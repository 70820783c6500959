// CRecordOperation: matches as records.
#include <cstring>
#include <string_view>

#include "protocol/log.h"
#include "record/record_operation.h"

namespace QNKAVROProtocol {
namespace {

using qn::json::Value;

// The member's text, cut to the field; the field keeps its zeros for anything but a text.
template <std::size_t Size>
void copyText(char (&field)[Size], const Value& object, std::string_view name) {
  object.member(name).text().copy(field, Size - 1);
}

void copyDescriptor(SearchMatchItem& item, const Value& match) {
  const auto descriptor = match.find("mediaSegmentDescriptor");
  if (!descriptor) {
    QN_LOG_IN("getInfoFromSearchRsp", WLOG_ERROR, "process json param fail 1.");
    return;
  }
  copyText(item.contentType, *descriptor, "contenType");
  copyText(item.codecType, *descriptor, "codecType");
  copyText(item.playbackURI, *descriptor, "playbackURI");
}

SearchMatchItem itemOf(const Value& match) {
  SearchMatchItem item;
  const Value track = match.member("trackID");
  if (track.isInt()) item.trackID = track.asInt();
  const Value span = match.member("timeSpan");
  copyText(item.startTime, span, "startTime");
  copyText(item.endTime, span, "endTime");
  copyDescriptor(item, match);
  return item;
}

}  // namespace

int CRecordOperation::getInfoFromSearchRsp(int& count, std::vector<SearchMatchItem>& items,
                                           const Value& reply) {
  const Value result = reply.member("CMSearchResult");
  const Value matches = result.member("numOfMatches");
  const Value list = result.member("matchList");
  if (!matches.isInt() || !list.isArray()) return 0;
  count = matches.asInt();
  Value::Entries entries(list);
  for (Value entry; entries.next(entry);) {
    if (const auto match = entry.find("searchMatchItem")) items.push_back(itemOf(*match));
  }
  return 1;
}

bool CRecordOperation::sortByBegintime(const SearchMatchItem& a, const SearchMatchItem& b) {
  return std::strcmp(a.startTime, b.startTime) < 1;
}

}  // namespace QNKAVROProtocol
