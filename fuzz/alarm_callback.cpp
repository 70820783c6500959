// Any text as an alarm: consumed or refused, and each of the device's two streams gets the same
// whole part or none.
#include <charconv>
#include <string>

#include "alert/event_pto.h"
#include "fuzz/require.h"
#include "json/reader.h"
#include "tests/unit/fake/fake_platform.h"

using QNKAVROProtocol::CEventPto;

namespace {

int Open(CEventPto& pto) {
  const auto record =
      fake::http().open({QNHttpService::HTTP_GET, "/KAVRO/Event/notification/alertStream"});
  int bodyIsXml = 1;
  int asyncReply = 0;
  std::string body;
  Require(pto.procProtocol(bodyIsXml, body, asyncReply, record, "1") == 200);
  return record.exchange->getHttpHandle();
}

// The body after a part's header; the length must be the header's.
void CheckPart(const std::string& part) {
  constexpr std::string_view kLength = "Content-Length: ";
  const std::size_t digits = part.find(kLength) + kLength.size();
  const std::size_t end = part.find("\r\n\r\n");
  Require(part.starts_with("--boundary\r\nContent-Type: application/") && end != part.npos);
  std::size_t length = 0;
  std::from_chars(part.data() + digits, part.data() + end, length);
  Require(part.size() == end + 4 + length);
  if (!part.starts_with("--boundary\r\nContent-Type: application/xml")) return;
  QNBase::CXmlBase xml;
  Require(xml.Parse(part.substr(end + 4)));
  Require(xml.FindElem("EventNotificationAlert") && xml.IntoElem());
  Require(!xml.FindElem("devIndex"));
}

// The two ways to write an alarm agree.
void CheckDocument(std::string_view text) {
  const qn::json::Reading alarm(text);
  QNBase::CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("EventNotificationAlert");
  std::string document;
  const bool fits = CEventPto::alarmDocument(document, alarm.root());
  Require(fits == (CEventPto::convertAlarmData(alarm.root(), xml) == 1));
  Require(!fits || document == xml.GetChildren());
}

}  // namespace

void fuzz(std::string_view input) {
  CheckDocument(input);
  fake::reset();
  CEventPto pto;
  Require(pto.start() == 0);
  const int first = Open(pto);
  const int second = Open(pto);
  const int length = static_cast<int>(input.size());
  const int result = fake::alarmBus().raise(input);
  Require(result == length || result == -1);
  fake::runtime().runJobs();
  const auto parts = fake::http().answer(first).parts;
  Require(parts.size() <= (result == length ? 1u : 0u));
  Require(parts == fake::http().answer(second).parts);
  for (const auto& part : parts) CheckPart(part);
  pto.stop();
}
