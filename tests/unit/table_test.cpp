// The table engine: every kind and every rule word once, for all documents.
#include <array>
#include <limits>
#include <map>
#include <utility>

#include "document/read_xml.h"
#include "document/write_xml.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol::table {
namespace {

using qn::json::writeJson;

// What a row makes of a member: the elements, nothing, or kFails. As text and as a document.
std::string written(const Row& row, const Json::Value* member) {
  Json::Value object(Json::objectValue);
  if (member != nullptr) object[std::string(row.json)] = *member;
  std::string text;
  const Row* failed = writeMember(text, row, object);
  if (member != nullptr) {
    QNBase::CXmlBase xml;
    xml.CreateRoot("r");
    EXPECT_EQ(writeRow(xml, row, *member), failed);
    if (failed == nullptr) {
      EXPECT_EQ(xml.GetChildren(), text.empty() ? "<r/>" : "<r>" + text + "</r>");
    }
  }
  if (failed == nullptr) return text;
  return failed == &row ? kFails : "inner";
}

TEST(WriteXml, RuleWords) {
  const struct {
    const char* word;
    WriteRule rule;
    const char* absent;
    const char* null;
    const char* wrongKind;
  } cases[] = {
      {"never", write::never, "", "", ""},
      {"optional", write::optional, "", "", ""},
      {"strict", write::strict, "", kFails, kFails},
      {"lenient", write::lenient, "", "<t/>", "<t>7</t>"},
      {"required", write::required, kFails, kFails, kFails},
      {"required_or_null", write::required_or_null, kFails, "<t/>", kFails},
      {"present", write::present, kFails, "<t/>", "<t>7</t>"},
      {"always", write::always, "<t/>", "<t/>", "<t>7</t>"},
      {"fallback", write::fallback, "<t>f</t>", "<t>f</t>", "<t>f</t>"},
  };
  const Json::Value null;
  const Json::Value number(7);
  const Json::Value good("x");
  for (const auto& [word, rule, absent, nullResult, wrongKind] : cases) {
    const Row row = text("t", rule).fallback("f");
    EXPECT_EQ(written(row, nullptr), absent) << word;
    EXPECT_EQ(written(row, &null), nullResult) << word;
    EXPECT_EQ(written(row, &number), wrongKind) << word;
    EXPECT_EQ(written(row, &good), rule.written ? "<t>x</t>" : "") << word;
  }
}

std::string twice(std::string_view text) { return std::string(text) + std::string(text); }

constexpr Row kInner[] = {text("a", write::required), integer("b", write::optional)};
constexpr Row kInnerConstants[] = {constant("c", "1")};
constexpr Row kEntry[] = {section("e", kInner, write::strict)};

TEST(WriteXml, KindsAndWords) {
  const std::map<std::string, Row> rows = {
      {"text required", text("t", write::required)},
      {"text required as u", text("t", write::required).as("u")},
      {"text required changed", text("t", write::required).changedBy(twice)},
      {"text required filled", text("t", write::required).filled()},
      {"text fallback filled with fallback", text("t", write::fallback).filled().fallback("f")},
      {"text always", text("t", write::always)},
      {"integer required", integer("i", write::required)},
      {"integer always", integer("i", write::always)},
      {"integer required within 1 3 or left out",
       integer("i", write::required).within(1, 3, Else::LeaveOut)},
      {"integer required within 1 3 or failing",
       integer("i", write::required).within(1, 3, Else::Fail)},
      {"boolean required", boolean("b", write::required)},
      {"boolean required shown as true", boolean("b", write::required).shownAs("true")},
      {"boolean always", boolean("b", write::always)},
      {"real required", real("d", write::required)},
      {"constant", constant("c", "x")},
      {"section required", section("s", kInner, write::required)},
      {"section optional", section("s", kInner, write::optional)},
      {"section present", section("s", kInner, write::present)},
      {"section optional whole", section("s", kInner, write::optional).whole()},
      {"section fallback with fallback",
       section("s", kInner, write::fallback).fallback(kInnerConstants)},
      {"list required", list("l", kEntry, write::required)},
      {"list present", list("l", kEntry, write::present)},
      {"list required first each time", list("l", kEntry, write::required).firstEachTime()},
  };
  for (const auto& [name, member, expected] : casesOf("members.txt")) {
    const Json::Value value = member == "(absent)" ? Json::Value() : parsed(member);
    EXPECT_EQ(written(rows.at(name), member == "(absent)" ? nullptr : &value), expected)
        << name << " " << member;
  }
}

TEST(WriteXml, LargestDoubleFits) {
  const Json::Value value(std::numeric_limits<double>::max());
  const std::string text = written(real("d", write::required), &value);
  EXPECT_EQ(text.size(), std::string("<d></d>").size() + 309 + 7);
  EXPECT_TRUE(text.starts_with("<d>17976931348623157081"));
}

Json::Value listOf(const Json::Value& entry, int count) {
  Json::Value list(Json::arrayValue);
  for (int i = 0; i < count; ++i) list.append(entry);
  return list;
}

// A reply of one MiB must not become a document of hundreds of GiB, nor take the time of one.
TEST(WriteXml, RepeatedEntriesHaveABound) {
  static constexpr Row kTexts[] = {text("t", write::required)};
  static constexpr Row kSkipped[] = {section("x", kTexts, write::optional)};
  static constexpr Row kEntryRows[] = {
      text("t", write::optional),
      list("l", kTexts, write::optional),
      list("s", kSkipped, write::optional),
  };
  const Row row = list("r", kEntryRows, write::required).firstEachTime();
  Json::Value first[3];
  first[0]["t"] = std::string(100000, 'x');
  first[1]["l"] = listOf(parsed(R"({"t":""})"), 10000);
  first[2]["s"] = listOf(Json::Value(7), 10000);
  for (const Json::Value& repeated : first) {
    Json::Value entries = listOf(Json::Value(7), 10000);
    entries[0] = repeated;
    EXPECT_EQ(written(row, &entries), kFails) << repeated.getMemberNames()[0];
    entries.resize(3);
    EXPECT_NE(written(row, &entries), kFails) << repeated.getMemberNames()[0];
  }
}

// Elements wait in a buffer until it is full.
TEST(WriteXml, IsTheSameWhereverTheBufferEnds) {
  static constexpr Row kTexts[] = {text("t", write::optional)};
  static constexpr Row kRows[] = {
      text("first", write::optional),
      section("inner", kTexts, write::optional),
      text("last", write::optional),
  };
  const Row row = section("s", kRows, write::required);
  for (std::size_t length = 0; length < 1100; ++length) {
    const std::string first(length, 'x');
    Json::Value object = parsed(R"({"inner":{},"last":"<"})");
    object["first"] = first;
    if (length % 2 == 0) object["last"] = "\x01";  // nothing of it is written
    const std::string last = length % 2 == 0 ? "<last/>" : "<last>&lt;</last>";
    EXPECT_EQ(written(row, &object),
              "<s>" + (length == 0 ? "<first/>" : "<first>" + first + "</first>") + "<inner/>" +
                  last + "</s>");
  }
}

TEST(WriteXml, EscapesWhereverItIsNeeded) {
  constexpr Row kRow = text("a", write::required);
  const std::pair<std::string, std::string> cases[] = {
      {"&", "&amp;"}, {"<", "&lt;"},    {">", "&gt;"}, {"\r", "&#13;"}, {"\t", "\t"},
      {"\x01", ""},   {"\x7f", "\x7f"}, {"x", "x"},    {"\"", "\""},    {"\xc3\xa4", "\xc3\xa4"}};
  for (const auto& [raw, escaped] : cases) {
    for (std::size_t size = 0; size < 40; ++size) {
      for (std::size_t at = 0; at <= size; ++at) {
        const std::string before(at, 'b'), behind(size - at, 'c');
        const Json::Value member(before + raw + behind);
        const std::string expected = before + escaped + behind;
        EXPECT_EQ(written(kRow, &member), expected.empty() ? "<a/>" : "<a>" + expected + "</a>");
      }
    }
  }
}

TEST(WriteXml, RootFollowsItsRule) {
  const struct {
    WriteRule rule;
    const char* reply;
    std::string root;
  } cases[] = {
      {write::required, R"({"s":{"a":"1"}})", "<s><a>1</a></s>"},
      {write::required, "{}", kFails},
      {write::required, "[]", kFails},
      {write::strict, "{}", ""},
      {write::strict, "7", ""},
      {write::strict, R"({"s":7})", kFails},
      {write::present, R"({"s":7})", kFails},  // the required row inside
  };
  for (const auto& [rule, reply, root] : cases) {
    std::string xml = kFails;
    static_cast<void>(writeDocument(xml, section("s", kInner, rule), parsed(reply)));
    EXPECT_EQ(xml, root == kFails ? root : std::string(kDeclaration) + root) << reply;
  }
}

TEST(WriteXml, FailureNamesTheRow) {
  static constexpr Row kRows[] = {
      text("a", write::optional).failing(1),
      section("s", kEntry, write::optional),
      text("z", write::required).failing(26),
  };
  std::string xml;
  const Row* failed = writeRows(xml, kRows, parsed(R"({"a":1})"));
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->number, 26);
  EXPECT_EQ(writeRows(xml, kRows, parsed(R"({"s":{"e":{"a":1}},"z":""})")), &kInner[0]);
}

constexpr Row kPair[] = {text("x", read::required), integer("y", read::optional)};
constexpr Row kChild[] = {section("child", kPair, read::optional)};
constexpr Row kDefaults[] = {integer("n", read::fallback).fallback("101")};
constexpr Row kFirst[] = {text("f", read::optional)};
constexpr Row kReadRows[] = {
    text("t", read::optional),
    text("always", write::always),
    integer("i", read::optional),
    boolean("b", read::optional),
    boolean("unless", read::optional).trueUnlessFalse(),
    text("full", read::optional).filled(),
    section("s", kPair, read::optional),
    list("l", kChild, write::never, read::optional),
    firstOf("d", kDefaults, read::optional),
    firstOf("f", kFirst, read::optional),
    text("any", read::optional).anywhere(),
    text("json", read::optional).as("xml"),
};

TEST(ReadXml, KindsAndWords) {
  for (const auto& [head, body, expected] : casesOf("elements.txt")) {
    QNBase::CXmlBase xml;
    ASSERT_TRUE(xml.Parse("<r>" + body + "</r>") && xml.FindElem("r")) << body;
    ASSERT_TRUE(xml.IntoElem());
    Json::Value object;
    const Row* failed = readRows(object, kReadRows, xml);
    if (failed != nullptr) {
      EXPECT_EQ(failed->json, expected) << body;
    } else {
      EXPECT_EQ(object, parsed(expected)) << body << " gives " << writeJson(object);
    }
  }
}

TEST(ReadXml, MissingElementsFollowTheirRule) {
  static constexpr Row kFilled[] = {
      integer("i", read::fallback).fallback("7"),
      text("t", read::fallback).fallback("x"),
      firstOf("d", kDefaults, read::fallback),
  };
  static constexpr Row kRequired[] = {text("i", read::required)};
  const Row filled = section("r", kFilled, read::required);
  const Row required = section("r", kRequired, read::required);
  std::string text = "unchanged";
  EXPECT_EQ(readDocument(text, required, "<r/>"), BodyResult::Refused);
  EXPECT_EQ(text, "unchanged");
  EXPECT_EQ(readDocument(text, filled, "<r/>"), BodyResult::Done);
  EXPECT_EQ(text, "{\"r\":{\"d\":[{\"n\":101}],\"i\":7,\"t\":\"x\"}}\n");
  const GivenMember given{"e", "[1]"};
  EXPECT_EQ(readDocument(text, filled, "<r><t>\n</t></r>", &given), BodyResult::Done);
  EXPECT_EQ(text, "{\"r\":{\"d\":[{\"n\":101}],\"e\":[1],\"i\":7,\"t\":\"\\n\"}}\n");
}

constexpr auto kNames = [] {
  std::array<std::array<char, 3>, Rows::kMost> names{};
  for (int i = 0; auto& name : names) name = {char('a' + i / 26), char('a' + i++ % 26), '\0'};
  return names;
}();

template <std::size_t... I>
std::string readMany(const std::string& body, std::index_sequence<I...> /*rows*/) {
  static constexpr Row kMany[] = {integer(kNames[I].data(), read::optional)...};
  const GivenMember given{"given", "[1]"};
  std::string text;
  EXPECT_EQ(readDocument(text, section("r", kMany, read::required), body, &given),
            BodyResult::Done);
  return text;
}

TEST(ReadXml, TheLargestTableAndAGivenMember) {
  Json::Value expected;
  expected["r"]["given"].append(1);
  std::string body;
  for (const auto& name : kNames) {
    const std::string tag = name.data();
    body += "<" + tag + ">7</" + tag + ">";
    expected["r"][tag] = 7;
  }
  EXPECT_EQ(parsed(readMany("<r>" + body + "</r>", std::make_index_sequence<Rows::kMost>())),
            expected);
}

TEST(ReadXml, OtherBodiesAreRefused) {
  static constexpr Row kAny[] = {text("t", read::optional)};
  const Row root = section("r", kAny, read::required);
  std::string text;
  for (const char* body : {"", "text", "<r>"}) {
    EXPECT_EQ(readDocument(text, root, body), BodyResult::NotXml) << body;
  }
  for (const char* body : {"<other/>", "<x><r/></x>"}) {
    EXPECT_EQ(readDocument(text, root, body), BodyResult::OtherRoot) << body;
  }
  EXPECT_EQ(readDocument(text, root, "<r/>"), BodyResult::Done);
  EXPECT_EQ(text, "{\"r\":{}}\n");
}

// A table with one of these does not compile.
constexpr Row kWrittenTwice[] = {text("a", write::optional), integer("b", write::optional).as("a")};
constexpr Row kFromOne[] = {text("a", write::optional), text("a", write::optional).as("b")};
constexpr Row kReadTwice[] = {text("a", read::optional), text("a", read::optional).as("b")};
constexpr Row kOnceEachWay[] = {real("a", write::optional), integer("a", read::optional)};
static_assert(!distinct(kWrittenTwice, 2));
static_assert(!distinct(kFromOne, 2));
static_assert(!distinct(kReadTwice, 2));
static_assert(distinct(kOnceEachWay, 2));

}  // namespace
}  // namespace QNKAVROProtocol::table
