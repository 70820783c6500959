#include "channel/channel_documents.h"

#include "devcfg/route_table.h"
#include "protocol/error_code.h"
#include "text/number.h"

namespace QNKAVROProtocol {
namespace {

using namespace table;
using qn::json::Value;

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
constexpr Row kAudioChannels = list("AudioChannelList", kAudioChannelEntryRows, write::present);

// Appends an enabled channel for each input. False for more inputs than any recorder has: each
// takes one byte of a reply and a channel of ours.
bool writeChannelsOfInputs(std::string& xml, const Value& inputs) {
  constexpr std::size_t kMost = 65536;
  const std::size_t count = inputs.isArray() ? inputs.size() : 0;
  if (count > kMost) return false;
  for (std::size_t id = 1; id <= count; ++id) {
    xml.append("<AudioChannel><id>").append(qn::text::Decimal(id).view());
    xml.append("</id><enabled>true</enabled></AudioChannel>");
  }
  return true;
}

}  // namespace

constinit const Row kAudioChannelList = kAudioChannels;

int getXmlChannelIDCap(std::string& xml, const Value& deviceReply) {
  if (!deviceReply.find("StreamingChannel")) return BUS_INTERNAL_FAILURE;
  QNBase::CXmlBase doc;
  doc.CreateDeclaration("1.0", "UTF-8");
  doc.CreateRoot("StreamingChannel");
  doc.AddNode("Video");
  for (const Capability& capability : kVideoCapabilities) addCapability(doc, capability);
  doc.OutOfElem();
  xml = doc.GetChildren();
  return 0;
}

int getXmlAudioChannelList(std::string& xml, const Value& deviceReply) {
  const auto inputs = deviceReply.find("VideoInputChannelList");
  if (!inputs && !deviceReply.isNull()) return writeReply(xml, kAudioChannels, deviceReply);
  std::string channels;
  if (inputs && !writeChannelsOfInputs(channels, *inputs)) return BUS_INTERNAL_FAILURE;
  xml = kDeclaration;
  xml += channels.empty() ? "<AudioChannelList/>"
                          : "<AudioChannelList>" + channels + "</AudioChannelList>";
  return 0;
}

}  // namespace QNKAVROProtocol
