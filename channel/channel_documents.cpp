#include "channel/channel_documents.h"

#include "document/json_member.h"
#include "document/write_xml.h"
#include "protocol/error_code.h"
#include "protocol/status_document.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;

// An element without content: a list of choices, or the ends of a range.
struct Capability {
  const char* element;
  const char* choices;
  const char* least;
  const char* most;
};

// 1280 among the heights and 5000 among the frame rates are what clients have always been told.
constexpr Capability kVideoCapabilities[] = {
    {"videoCodecType", "H.264,H.265", nullptr, nullptr},
    {"videoResolutionWidth", "1920,1280,704", nullptr, nullptr},
    {"videoResolutionHeight", "1280,720,576", nullptr, nullptr},
    {"videoQualityControlType", "CBR,VBR", nullptr, nullptr},
    {"constantBitRate", nullptr, "512", "8192"},
    {"fixedQuality", "1,20,40,60,80,100", nullptr, nullptr},
    {"maxFrameRate",
     "3000,2500,2200,2000,1800,1600,1500,1200,1000,800,600,5000,400,200,100,50,25,12,6", nullptr,
     nullptr},
    {"keyFrameInterval", nullptr, "1", "400"},
};

void addCapability(QNBase::CXmlBase& doc, const Capability& capability) {
  doc.AddNode(capability.element);
  if (capability.choices != nullptr) {
    doc.SetAttribute("opt", capability.choices);
  } else {
    doc.SetAttribute("min", capability.least);
    doc.SetAttribute("max", capability.most);
  }
  doc.OutOfElem();
}

constexpr Row kAudioChannelRows[] = {
    text("id", write::required),
    boolean("enabled", write::required),
    text("type", write::strict),
    text("name", write::strict),
};
constexpr Row kAudioChannelEntryRows[] = {
    section("AudioChannel", kAudioChannelRows, write::present),
};
constexpr Row kAudioChannelList = list("AudioChannelList", kAudioChannelEntryRows, write::present);

// False for more inputs than any recorder has: each takes one byte of a reply and a channel of
// ours.
bool writeChannelsOfInputs(QNBase::CXmlBase& doc, const Json::Value& inputs) {
  constexpr unsigned int kMost = 65536;
  const unsigned int count = inputs.isArray() ? inputs.size() : 0;
  if (count > kMost) return false;
  for (unsigned int id = 1; id <= count; ++id) {
    doc.AddNode("AudioChannel");
    addTextElement(doc, "id", std::to_string(id));
    addTextElement(doc, "enabled", "true");
    doc.OutOfElem();
  }
  return true;
}

}  // namespace

int getXmlChannelIDCap(std::string& xml, const Json::Value& deviceReply) {
  if (jsonMember(deviceReply, "StreamingChannel") == nullptr) return BUS_INTERNAL_FAILURE;
  QNBase::CXmlBase doc;
  doc.CreateDeclaration("1.0", "UTF-8");
  doc.CreateRoot("StreamingChannel");
  doc.AddNode("Video");
  for (const Capability& capability : kVideoCapabilities) addCapability(doc, capability);
  doc.OutOfElem();
  xml = doc.GetChildren();
  return 0;
}

int getXmlAudioChannelList(std::string& xml, const Json::Value& deviceReply) {
  QNBase::CXmlBase doc;
  const Json::Value* inputs = jsonMember(deviceReply, "VideoInputChannelList");
  if (inputs == nullptr && !deviceReply.isNull()) {
    if (writeDocument(doc, kAudioChannelList, deviceReply) != nullptr) return BUS_INTERNAL_FAILURE;
  } else {
    doc.CreateDeclaration("1.0", "UTF-8");
    doc.CreateRoot(kAudioChannelList.xml);
    if (inputs != nullptr && !writeChannelsOfInputs(doc, *inputs)) return BUS_INTERNAL_FAILURE;
  }
  xml = doc.GetChildren();
  return 0;
}

}  // namespace QNKAVROProtocol
