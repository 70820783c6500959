// Any text: parsed, walked, and what was parsed is written and parsed again to the same text.
#include <string>

#include "fuzz/require.h"
#include "platform/xml_base.h"

namespace {

// The same bytes as the text of an element must come out readable.
void WriteAsText(std::string_view bytes) {
  QNBase::CXmlBase writer;
  writer.CreateDeclaration("1.0", "UTF-8");
  writer.CreateRoot("r");
  writer.SetAttribute("a", bytes);
  writer.AddNode("t", bytes);
  writer.OutOfElem();
  Require(QNBase::CXmlBase().Parse(writer.GetChildren()));
}

}  // namespace

void fuzz(std::string_view bytes) {
  WriteAsText(bytes);

  QNBase::CXmlBase xml;
  if (!xml.Parse(bytes)) {
    Require(xml.GetChildren().empty());
    return;
  }
  const std::string written = xml.GetChildren();
  QNBase::CXmlBase again;
  Require(again.Parse(written));
  Require(again.GetChildren() == written);

  char buffer[64];
  int length = -1;
  const bool whole = xml.WriteToBuf(buffer, sizeof(buffer), length);
  Require(whole == (written.size() <= sizeof(buffer)));
  Require(written.compare(0, static_cast<std::size_t>(length), buffer,
                          static_cast<std::size_t>(length)) == 0);
}
