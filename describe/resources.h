// What the reference tells of: the resources of the module's routes, gathered by title. Read by the
// writers of the pages, of the OpenAPI document and of the schema.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "devcfg/route_table.h"

namespace qn::describe {

struct Method {
  unsigned int code;  // an HttpMethod
  std::string_view name;
  // Null for none, or one that no table makes.
  const QNKAVROProtocol::table::Row* body;
  const QNKAVROProtocol::table::Row* answer;
  QNKAVROProtocol::ReplyConverter reply;
};

struct Resource {
  std::string_view title;
  std::vector<std::string> urls;  // with their numbers as "{channel}"; the first is the usual one
  std::vector<Method> methods;
};

// In the order of the module's routes.
std::vector<Resource> resources();
// The name of its page, without an extension.
std::string pageName(const Resource& resource);
// The document that a test verified, as it is written by hand, or one that is always the same;
// empty when there is neither.
std::string exampleOf(const Resource& resource, const Method& method, bool answer);

// Whether each document has the element: one that is written, or read.
bool isAlwaysWritten(const QNKAVROProtocol::table::Row& row);
bool isLeaf(const QNKAVROProtocol::table::Row& row);

// The texts of the reference's files.
std::string page(const Resource& resource);
std::string alarmPage();
std::string index(const std::vector<Resource>& resources);
std::string openApi(const std::vector<Resource>& resources);
std::string xsd(const std::vector<Resource>& resources);

}  // namespace qn::describe
