// See resources.h. Here: the XML schema, which holds for both directions of a document: an element
// that only one of them needs is optional.
#include <algorithm>
#include <climits>
#include <set>

#include "alert/event_pto.h"
#include "describe/resources.h"

namespace qn::describe {
namespace {

using namespace QNKAVROProtocol::table;

constexpr const char* kHead =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- written by qn-describe -->
<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema" elementFormDefault="qualified">
  <xs:simpleType name="Boolean">
    <xs:restriction base="xs:string">
      <xs:enumeration value="true"/>
      <xs:enumeration value="false"/>
    </xs:restriction>
  </xs:simpleType>
  <xs:element name="ResponseStatus">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="requestURL" type="xs:string"/>
        <xs:element name="statusCode" type="xs:int"/>
        <xs:element name="statusString" type="xs:string"/>
        <xs:element name="subStatusCode" type="xs:string"/>
        <xs:element name="lockStatus" type="xs:string" minOccurs="0"/>
        <xs:element name="unlockTime" type="xs:int" minOccurs="0"/>
        <xs:element name="retryLoginTime" type="xs:int" minOccurs="0"/>
      </xs:sequence>
      <xs:attribute name="version" type="xs:string"/>
    </xs:complexType>
  </xs:element>
  <xs:element name="AdminAccessProtocolList" type="xs:anyType"/>
  <xs:element name="DeviceCap" type="xs:anyType"/>
  <xs:element name="ImageChannel" type="xs:anyType"/>
)";

const char* typeOf(const Row& row) {
  switch (row.kind) {
    case Kind::Integer:
      return "xs:int";
    case Kind::Boolean:
      return "Boolean";
    case Kind::Real:
      return "xs:decimal";
    default:
      return "xs:string";
  }
}

bool isAlwaysThere(const Row& row) {
  const bool written = !row.write.written || isAlwaysWritten(row);
  const bool read = row.read == ReadRule::Never || row.read == ReadRule::Required;
  return written && read;
}

class Schema {
 public:
  void addRoot(const Row& row) {
    if (roots_.emplace(row.xml).second) addElement(row, "", 1);
  }
  std::string text() const { return kHead + text_ + "</xs:schema>\n"; }

 private:
  void line(std::size_t depth, const std::string& text) {
    text_.append(2 * depth, ' ').append(text).append(1, '\n');
  }

  void addElement(const Row& row, const std::string& occurs, std::size_t depth) {
    const std::string start = "<xs:element name=\"" + std::string(row.xml) + "\"";
    if (!isLeaf(row)) {
      line(depth, start + occurs + ">");
      addContent(row, depth + 1);
      line(depth, "</xs:element>");
    } else if (row.least != INT_MIN && row.read == ReadRule::Never) {
      line(depth, start + occurs + ">");
      line(depth + 1, "<xs:simpleType><xs:restriction base=\"xs:int\"><xs:minInclusive value=\"" +
                          std::to_string(row.least) + "\"/><xs:maxInclusive value=\"" +
                          std::to_string(row.most) + "\"/></xs:restriction></xs:simpleType>");
      line(depth, "</xs:element>");
    } else {
      line(depth, start + " type=\"" + typeOf(row) + "\"" + occurs + "/>");
    }
  }

  void addContent(const Row& row, std::size_t depth) {
    const bool repeats = row.kind == Kind::List || row.kind == Kind::FirstOf;
    const bool anyOrder = std::ranges::all_of(row.rows, &Row::anyPlace);
    const std::string group = anyOrder ? "xs:all" : "xs:sequence";
    line(depth, "<xs:complexType>");
    line(depth + 1, "<" + group + (repeats ? R"( minOccurs="0" maxOccurs="unbounded">)" : ">"));
    std::set<std::string_view> names;
    for (const Row& each : row.rows) {
      if (!names.emplace(each.xml).second) continue;  // once for each direction
      addElement(each, isAlwaysThere(each) ? "" : R"( minOccurs="0")", depth + 2);
    }
    line(depth + 1, "</" + group + ">");
    line(depth, "</xs:complexType>");
  }

  std::set<std::string_view> roots_;
  std::string text_;
};

}  // namespace

bool isAlwaysWritten(const Row& row) {
  const bool within = row.least == INT_MIN || row.outOfRange != Else::LeaveOut;
  return row.write.absent != Else::LeaveOut && row.write.null != Else::LeaveOut &&
         row.write.wrongKind != Else::LeaveOut && within;
}

std::string xsd(const std::vector<Resource>& resources) {
  Schema schema;
  for (const Resource& resource : resources) {
    for (const Method& method : resource.methods) {
      if (method.body != nullptr) schema.addRoot(*method.body);
      if (method.answer != nullptr) schema.addRoot(*method.answer);
    }
  }
  schema.addRoot(QNKAVROProtocol::kAlarm);
  return schema.text();
}

}  // namespace qn::describe
