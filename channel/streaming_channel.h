// The StreamingChannel document in both directions. Called by CChannelCfg. The directions are no
// mirror images: the table says where they differ.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

#include "document/table.h"
#include "json/value.h"
#include "platform/xml_base.h"

namespace QNKAVROProtocol {

// The documents' tables, for the reference.
extern const table::Row kStreamingChannel;
extern const table::Row kStreamingChannelList;

// All return 0, or BUS_INTERNAL_FAILURE with the text they were to fill untouched.

// One channel, `reply`'s "StreamingChannel", as a document without declaration, cut at 102400
// bytes.
int getXMLStreamingChannel(std::string& xml, const qn::json::Value& reply);
// The main and sub streams of `reply`'s "StreamingChannelList". A channel that cannot be converted
// ends the list.
int getXmlStreamingChannelList(std::string& xml, const qn::json::Value& reply);

// Append a section to the element that `doc` has entered. A null transport gives the default one.
int buildXmlTransport(QNBase::CXmlBase& doc, const qn::json::Value& transport);
int buildXmlVideo(QNBase::CXmlBase& doc, const qn::json::Value& video);
int buildXmlAudio(QNBase::CXmlBase& doc, const qn::json::Value& audio);

// A client's document as the device's JSON text.
int getJsonStreamingChannel(std::string& jsonBody, std::string_view xmlBody);

// Fill an object from the section that `xml` has entered.
int buildJsonTranport(Json::Value& transport, QNBase::CXmlBase& xml);
int buildJsonVideo(Json::Value& video, QNBase::CXmlBase& xml);
int buildJsonAudio(Json::Value& audio, QNBase::CXmlBase& xml);

}  // namespace QNKAVROProtocol
