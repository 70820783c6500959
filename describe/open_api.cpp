// See resources.h. Here: the OpenAPI 3.1 document.
#include <climits>

#include "alert/event_pto.h"
#include "describe/resources.h"
#include "text/ascii.h"

namespace qn::describe {
namespace {

using namespace QNKAVROProtocol::table;

Json::Value schemaOf(const Row& row, bool answer);

bool isIn(const Row& row, bool answer) {
  return answer ? row.write.written : row.read != ReadRule::Never;
}

Json::Value objectOf(Rows rows, bool answer) {
  Json::Value object;
  object["type"] = "object";
  for (const Row& row : rows) {
    if (!isIn(row, answer)) continue;
    object["properties"][row.xml.data()] = schemaOf(row, answer);
    if (answer ? isAlwaysWritten(row) : row.read == ReadRule::Required) {
      object["required"].append(row.xml.data());
    }
  }
  return object;
}

Json::Value leafOf(const Row& row, bool answer) {
  Json::Value leaf;
  leaf["type"] = row.kind == Kind::Integer   ? "integer"
                 : row.kind == Kind::Boolean ? "boolean"
                 : row.kind == Kind::Real    ? "number"
                                             : "string";
  if (answer && row.least != INT_MIN) {
    leaf["minimum"] = row.least;
    leaf["maximum"] = row.most;
  }
  if (answer && !row.shown.empty()) leaf["const"] = std::string(row.shown);
  if (answer && row.kind == Kind::Boolean && !row.shown.empty()) leaf["const"] = true;
  if (!answer && row.neverEmpty) leaf["minLength"] = 1;
  if (row.fallbackText.empty()) return leaf;
  leaf["default"] = row.kind == Kind::Integer
                        ? Json::Value(std::stoi(std::string(row.fallbackText)))
                        : Json::Value(std::string(row.fallbackText));
  return leaf;
}

Json::Value schemaOf(const Row& row, bool answer) {
  if (isLeaf(row)) return leafOf(row, answer);
  if (row.kind == Kind::Section) return objectOf(row.rows, answer);
  Json::Value list;
  list["type"] = "array";
  const Row& entry = *row.rows.begin();
  const bool single = row.rows.begin() + 1 == row.rows.end();
  list["items"] = single ? schemaOf(entry, answer) : objectOf(row.rows, answer);
  if (single) list["items"]["xml"]["name"] = entry.xml.data();
  list["xml"]["wrapped"] = true;
  return list;
}

Json::Value xmlContent(const Row* root, bool answer) {
  Json::Value content;
  Json::Value& schema = content["application/xml"]["schema"];
  if (root == nullptr) {
    schema["type"] = "object";
  } else {
    schema = schemaOf(*root, answer);
    schema["xml"]["name"] = root->xml.data();
  }
  return content;
}

Json::Value reference(const char* what) {
  Json::Value reference;
  reference["$ref"] = std::string("#/components/responses/") + what;
  return reference;
}

Json::Value operationOf(const Resource& resource, const Method& method) {
  Json::Value operation;
  operation["summary"] = std::string(resource.title);
  if (method.body != nullptr) {
    operation["requestBody"]["required"] = true;
    operation["requestBody"]["content"] = xmlContent(method.body, false);
  }
  const bool succeeds =
      method.code == QNHttpService::HTTP_PUT || method.code == QNHttpService::HTTP_DELETE;
  Json::Value& responses = operation["responses"];
  if (succeeds) {
    responses["200"] = reference("status");
  } else {
    responses["200"]["description"] = "The document";
    responses["200"]["content"] = xmlContent(method.answer, true);
  }
  responses["401"] = reference("login");
  responses["default"] = reference("status");
  return operation;
}

Json::Value parametersOf(const std::string& url) {
  Json::Value parameters;
  for (auto at = url.find('{'); at != std::string::npos; at = url.find('{', at + 1)) {
    Json::Value& parameter = parameters.append({});
    parameter["name"] = url.substr(at + 1, url.find('}', at) - at - 1);
    parameter["in"] = "path";
    parameter["required"] = true;
    parameter["schema"]["type"] = "integer";
    parameter["schema"]["minimum"] = 0;
  }
  return parameters;
}

Json::Value components() {
  Json::Value components;
  Json::Value status;
  status["type"] = "object";
  for (const char* name : {"requestURL", "statusString", "subStatusCode"}) {
    status["properties"][name]["type"] = "string";
  }
  for (const char* name : {"statusCode", "errorCode"}) {
    status["properties"][name]["type"] = "integer";
  }
  status["xml"]["name"] = "ResponseStatus";
  components["schemas"]["ResponseStatus"] = status;
  for (const char* what : {"status", "login"}) {
    Json::Value& response = components["responses"][what];
    response["description"] = "What became of the request";
    for (const char* type : {"application/xml", "application/json"}) {
      response["content"][type]["schema"]["$ref"] = "#/components/schemas/ResponseStatus";
    }
  }
  components["responses"]["login"]["description"] = "No, wrong or stale credentials; a challenge";
  components["responses"]["login"]["headers"]["WWW-Authenticate"]["schema"]["type"] = "string";
  components["securitySchemes"]["digest"]["type"] = "http";
  components["securitySchemes"]["digest"]["scheme"] = "digest";
  return components;
}

}  // namespace

std::string openApi(const std::vector<Resource>& resources) {
  Json::Value document;
  document["openapi"] = "3.1.0";
  document["info"]["title"] = "KAVRO gateway";
  document["info"]["version"] = "1";
  document["components"] = components();
  document["security"][0]["digest"] = Json::Value(Json::arrayValue);
  for (const Resource& resource : resources) {
    for (const std::string& url : resource.urls) {
      Json::Value& path = document["paths"][url];
      if (url.find('{') != std::string::npos) path["parameters"] = parametersOf(url);
      for (const Method& method : resource.methods) {
        std::string name;
        for (const char c : method.name) name += text::lower(c);
        path[name] = operationOf(resource, method);
      }
    }
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  return Json::writeString(writer, document) + "\n";
}

}  // namespace qn::describe
