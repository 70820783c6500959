// Recording search of a sub-device: the client's description to the device's JSON, its matches back
// as XML. Tried last by the configuration dispatcher.
#pragma once

#include <vector>

#include "devcfg/route_table.h"
#include "record/search_match_item.h"

namespace QNKAVROProtocol {

class CRecordOperation final : public RoutedCfg {
 public:
  CRecordOperation();

  // ERROR_NO_RESOURCES for a body that is no XML.
  static int covertSearchUrlandBody(DeviceRequest& out, const ClientRequest& in);
  // The device's JSON text; empty when the body is no XML. Elements count in their order only.
  static std::string covertSearchReq(const ClientRequest& in);

  // Never fails: what is missing in the device's result reads as a default.
  static int covertSearchRsp(std::string& body, const DeviceReply& reply);

  // The address of a recording, from the device's own form to the tracks that clients know:
  // scheme://address.../dac.../camera/<36 characters><channel>/MAIN/...?query (or /SUB/, or /SUB1/)
  // becomes scheme://address.../KAVRO/Streaming/tracks/<channel and stream>?query. A camera part of
  // 36 characters or fewer leaves the whole URI as it is. Returns 1, or 0 with `out` empty, or
  // untouched for a URI without "/dac".
  static int getPlaybackURI(std::string& out, std::string_view deviceUri);

  // The matches as records, for callers that sort or page them; the search itself translates the
  // device's JSON directly. Appends to `items`; `count` becomes the device's number of matches.
  // Returns 1, or 0 with nothing changed for a reply without a number of matches and a list.
  static int getInfoFromSearchRsp(int& count, std::vector<SearchMatchItem>& items,
                                  const qn::json::Value& reply);
  // True also for equal times, so it is no order for std::sort.
  static bool sortByBegintime(const SearchMatchItem& a, const SearchMatchItem& b);
};

}  // namespace QNKAVROProtocol
