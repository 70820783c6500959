// The smaller documents of the channel resources. Called by CChannelCfg.
#pragma once

#include <string>

#include "document/table.h"
#include "json/value.h"

namespace QNKAVROProtocol {

// The list's table, for the reference.
extern const table::Row kAudioChannelList;

// Both return 0, or BUS_INTERNAL_FAILURE with `xml` untouched.

// Fixed capabilities; the reply only has to hold a "StreamingChannel".
int getXmlChannelIDCap(std::string& xml, const qn::json::Value& deviceReply);
// From a list of audio channels, or one enabled channel for each entry of a list of video inputs.
// A null reply gives an empty list.
int getXmlAudioChannelList(std::string& xml, const qn::json::Value& deviceReply);

}  // namespace QNKAVROProtocol
