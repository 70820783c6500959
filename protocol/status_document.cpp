#include "protocol/status_document.h"

#include "json/text.h"
#include "platform/base_library.h"

namespace QNKAVROProtocol {

void addTextElement(QNBase::CXmlBase& xml, const char* name, std::string_view text) {
  xml.AddNode(name, text);
  xml.OutOfElem();
}

void beginResponseStatus(QNBase::CXmlBase& xml, const std::string& url, std::string_view version) {
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("ResponseStatus");
  if (!version.empty()) xml.SetAttribute("version", version);
  addTextElement(xml, "requestURL", StringEraseXssInvalidChar(url));
}

void addStatusText(QNBase::CXmlBase& xml, const StatusText& status) {
  addTextElement(xml, "statusCode", status.statusCode);
  addTextElement(xml, "statusString", status.statusString);
  addTextElement(xml, "subStatusCode", status.subStatusCode);
}

std::string jsonStatusDocument(unsigned int errorCode, int& httpStatus) {
  Json::Value document;
  getResponseStatusByErrorNo(errorCode, document, httpStatus);
  return qn::json::writeJson(document);
}

}  // namespace QNKAVROProtocol
