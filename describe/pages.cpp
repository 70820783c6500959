// See resources.h. Here: the pages for readers.
#include <climits>

#include "alert/event_pto.h"
#include "describe/resources.h"
#include "platform/base_library.h"
#include "platform/error_codes.h"
#include "protocol/protocol_base.h"
#include "tests/unit/documents.h"

namespace qn::describe {
namespace {

using namespace QNKAVROProtocol::table;

constexpr const char* kWritten = "<!-- written by qn-describe -->\n";

std::string kindOf(const Row& row) {
  switch (row.kind) {
    case Kind::Integer:
      return "whole number";
    case Kind::Boolean:
      return "true or false";
    case Kind::Real:
      return "number with six decimals";
    case Kind::Section:
      return "section";
    case Kind::List:
    case Kind::FirstOf:
      return "list";
    case Kind::Text:
    case Kind::Constant:
      break;
  }
  return "text";
}

std::string fallbackOf(const Row& row) {
  if (isLeaf(row)) return "`" + std::string(row.fallbackText) + "`";
  std::string members;
  for (const Row& each : row.fallbackRows) {
    members += (members.empty() ? "`" : ", `") + std::string(each.xml) + "` " +
               (each.shown.empty() ? "by default" : "`" + std::string(each.shown) + "`");
  }
  return "with " + members;
}

// When a reply has the element, by what the device tells.
std::string presenceOf(const Row& row) {
  if (row.kind == Kind::Constant) return "always";
  switch (row.write.absent) {
    case Else::LeaveOut:
      return "if the device tells it";
    case Else::Fail:
      return "always; without it the reply fails";
    case Else::Fallback:
      return "always; if the device does not tell it, " + fallbackOf(row);
    case Else::Read:
      return "always; empty, 0 or false if the device does not tell it";
  }
  return {};
}

std::string needOf(const Row& row) {
  switch (row.read) {
    case ReadRule::Required:
      return "required";
    case ReadRule::Fallback:
      return row.fallbackText.empty() ? "optional; the defaults below it"
                                      : "optional; `" + std::string(row.fallbackText) + "`";
    default:
      return "optional";
  }
}

std::string notesOf(const Row& row, bool answer) {
  std::string notes;
  const auto add = [&](const std::string& note) { notes += (notes.empty() ? "" : "; ") + note; };
  if (answer && row.least != INT_MIN) {
    add(std::to_string(row.least) + " to " + std::to_string(row.most) +
        (row.outOfRange == Else::Fail ? ", else the reply fails" : ", else left out"));
  }
  if (answer && !row.shown.empty()) add("`" + std::string(row.shown) + "`");
  if (answer && row.repeatsFirst) add("every entry repeats the first");
  if (answer && row.needsAll) add("only with all of its elements");
  if (!answer && row.kind == Kind::FirstOf) add("only the first entry counts");
  if (!answer && row.neverEmpty) add("not empty");
  if (!answer && row.anyPlace) add("in any place");
  if (!answer && row.kind == Kind::Boolean) {
    add(row.falseOnlyForFalse ? "true unless `false`" : "true only for `true`");
  }
  if (row.xml != row.json) add("the device's `" + std::string(row.json) + "`");
  return notes;
}

void addRow(std::string& page, const Row& row, bool answer, const std::string& path) {
  if (answer ? !row.write.written : row.read == ReadRule::Never) return;
  const std::string name = path + std::string(row.xml);
  page += "| `" + name + "` | " + kindOf(row) + " | " + (answer ? presenceOf(row) : needOf(row)) +
          " | " + notesOf(row, answer) + " |\n";
  for (const Row& each : row.rows) addRow(page, each, answer, name + "/");
}

std::string rowsOf(const Row& root, bool answer) {
  std::string page = std::string("| element | holds | ") + (answer ? "there" : "needed") +
                     " | notes |\n|---|---|---|---|\n";
  addRow(page, root, answer, "");
  return page;
}

std::string xmlBlock(const std::string& document) {
  return document.empty() ? "" : "\n```xml\n" + document + "```\n";
}

std::string bodyPart(const Resource& resource, const Method& method) {
  return "\n### Body\n\nElements are looked for in this order. A missing required one, or a body "
         "that is no such document, gives 400 `badRequestContent`.\n\n" +
         rowsOf(*method.body, false) + xmlBlock(exampleOf(resource, method, false));
}

std::string answerPart(const Resource& resource, const Method& method) {
  const bool succeeds =
      method.code == QNHttpService::HTTP_PUT || method.code == QNHttpService::HTTP_DELETE;
  std::string part = "\n### Answer\n\n";
  const std::string example = exampleOf(resource, method, true);
  if (method.answer != nullptr) {
    part +=
        "An element that is always there is so within its section. A device's reply that "
        "fails gives 500 `internalError`.\n\n" +
        rowsOf(*method.answer, true);
  } else if (succeeds) {
    part += "Success, whatever document the device answers with.\n";
  } else if (example.empty()) {
    part += "The device's own document, as it is.\n";
  } else {
    part += "Made by the gateway; the device is only asked whether it answers.\n";
  }
  return part + xmlBlock(example);
}

std::string methodsOf(const Resource& resource) {
  std::string names;
  for (const Method& method : resource.methods) {
    names += (names.empty() ? "" : ", ") + std::string(method.name);
  }
  return names;
}

constexpr unsigned int kCodes[] = {
    ERROR_MALFORMED_REQUEST,
    ERROR_BAD_REQUEST,
    ERROR_NO_RESOURCES,
    ERROR_BAD_BODY,
    ERROR_UNAUTHORIZED,
    ERROR_NOT_ACTIVATED,
    ERROR_DEVICE_NOT_ALLOWED,
    ERROR_TOO_MANY_STREAMS,
    ERROR_RESOURCE_NOT_FOUND,
    ERROR_DEVICE_NOT_FOUND,
    ERROR_REQUEST_TIMEOUT,
    ERROR_REQUEST_TOO_LARGE,
    ERROR_PICTURE_TYPE,
    ERROR_HEAD_TOO_LARGE,
    ERROR_INTERNAL,
    ERROR_METHOD_NOT_IMPLEMENTED,
    ERROR_DEVICE_REPLY_UNUSABLE,
    ERROR_DEVICE_LOGIN_REFUSED,
    ERROR_DEVICE_CERTIFICATE_EXPIRED,
    ERROR_DEVICE_CERTIFICATE_UNKNOWN_ISSUER,
    ERROR_DEVICE_CERTIFICATE_WRONG_NAME,
    ERROR_DEVICE_CERTIFICATE_WRONG_FINGERPRINT,
    ERROR_DEVICE_CERTIFICATE_REFUSED,
    ERROR_DEVICE_UNREACHABLE,
    ERROR_DEVICE_BUSY,
    ERROR_TOO_MANY_REQUESTS,
    ERROR_UPLOAD_FAILED,
    ERROR_STORE_FULL,
    ERROR_GATEWAY_STOPPING,
    ERROR_BUS_STOPPING,
    ERROR_DEVICE_TIMEOUT,
};

std::string errorTable() {
  std::string rows = "| HTTP | `subStatusCode` | `statusString` |\n|---|---|---|\n";
  for (const unsigned int code : kCodes) {
    Json::Value document;
    int status = 0;
    if (!getResponseStatusByErrorNo(code, document, status)) continue;
    rows += "| " + std::to_string(status) + " | `" + document["subStatusCode"].asString() + "` | " +
            document["statusString"].asString() + " |\n";
  }
  return rows;
}

}  // namespace

bool isLeaf(const Row& row) { return row.rows.begin() == row.rows.end(); }

std::string page(const Resource& resource) {
  std::string page = kWritten + ("# " + std::string(resource.title)) + "\n";
  for (const std::string& url : resource.urls) page += "\n`" + url + "`  ";
  page += "\n\nFaults: [all resources'](README.md#faults).\n";
  for (const Method& method : resource.methods) {
    page += "\n## " + std::string(method.name) + "\n";
    if (method.body != nullptr) page += bodyPart(resource, method);
    page += answerPart(resource, method);
  }
  return page;
}

std::string alarmPage() {
  return std::string(kWritten) +
         "# Alert stream\n\n`/KAVRO/Event/notification/alertStream`\n\n## GET\n\nA stream of "
         "parts, "
         "see [writing a client](../clients.md#the-alert-stream). Each alarm in XML is\n\n" +
         rowsOf(QNKAVROProtocol::kAlarm, true) + xmlBlock(golden("alarm.xml"));
}

std::string index(const std::vector<Resource>& resources) {
  std::string page = std::string(kWritten) +
                     "# Reference\n\nThe resources that the gateway translates. Everything else "
                     "below `/KAVRO/` goes to the device as it is. The same for programs: "
                     "[OpenAPI 3.1](openapi.json) and [XSD](kavro.xsd).\n\n"
                     "| resource | URL | methods |\n|---|---|---|\n";
  for (const Resource& resource : resources) {
    page += "| [" + std::string(resource.title) + "](" + pageName(resource) + ".md) | `" +
            resource.urls[0] + "` | " + methodsOf(resource) + " |\n";
  }
  page += "| [Alert stream](alert_stream.md) | `/KAVRO/Event/notification/alertStream` | GET |\n";
  return page +
         "\n## Faults\n\nAny request may meet these, as XML or as JSON "
         "([writing a client](../clients.md#answers-and-faults)).\n\n" +
         errorTable();
}

}  // namespace qn::describe
