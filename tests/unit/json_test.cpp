// The JSON reader: whatever the text, jsoncpp's verdict and values.
#include <gtest/gtest.h>

#include "tests/unit/json_agreement.h"

namespace qn::json {
namespace {

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(Json, TextsMeanWhatJsoncppReads) {
  for (const std::string& text : {
           std::string(R"({"a":{"b":[1,-2,0.50,true,false,null,"",[],{}]},"c":"x"})"),
           std::string(" \r\n\t[ 1 , 2 ] \n"),
           std::string(R"({"a":1,"a":{"b":2},"a":"last"})"),
           std::string(R"({"a":{"b":1},"a":{"c":2}})"),
           std::string(R"({"status\u0043ode":4,"\u0000":1,"":2})"),
           std::string(R"([2147483647,2147483648,-2147483648,-2147483649])"),
           std::string(R"([9223372036854775807,9223372036854775808,18446744073709551615])"),
           std::string(R"([18446744073709551616,-9223372036854775808,-9223372036854775809])"),
           std::string(R"([0,-0,-0.0,1.0,25.0,2147483648.0,1e3,1E-3,0.1234567891,1e300,1e-400])"),
           std::string(R"([4.9e-324,1.7976931348623157e308,0.30000000000000004])"),
           std::string(R"(["\"\\\/\b\f\n\r\t\u00e4\uABCD\ud83d\ude00", "\u0000"])"),
           std::string("[\"\xC3\xA4\xF0\x9F\x98\x80\"]"),
           std::string("5"),
           std::string("-5.5"),
           std::string("\"text\""),
           std::string("true"),
           std::string("null"),
           // What simdjson refuses and jsoncpp takes, or neither.
           std::string(R"({"a":1e999})"),
           std::string(R"(["\ud83d","\udc00","\ud83dx"])"),
           std::string("{\"a\":\"\x01\xFF\n\"}"),
           std::string("\xEF\xBB\xBF{}"),
           std::string(R"(/* c */{"a":1 // d
})"),
           std::string(R"({"a":4} and more)"),
           std::string(R"({"a":0004})"),
           std::string(R"({"":1,})"),
           std::string(R"({"a":1,})"),
           std::string("[1,]"),
           std::string("[1 2]"),
           std::string("[tru]"),
           std::string("[truer]"),
           std::string(R"({"a":-})"),
           std::string(R"([1.,.5,+1])"),
           std::string(R"({"a":"\x"})"),
           std::string(R"({"a":"\u12g4"})"),
           std::string(R"({"a":"\)"),
           std::string(R"({"a" 1})"),
           std::string(R"({"a":1]})"),
           std::string("{\0}", 3),
           std::string("{} \0", 4),
           std::string("<a/>"),
           std::string(" "),
           std::string(),
           nested(511),
           nested(513),
           nested(1000),
           nested(1001),
       }) {
    EXPECT_TRUE(json_agreement::agrees(text)) << text;
    EXPECT_TRUE(json_agreement::agreesOnExtents(text)) << text;
  }
}

TEST(Json, ReadingsMayStandInEachOther) {
  const Reading outer(R"({"a":"outer"})");
  {
    const Reading inner(R"({"a":"inner"})");
    EXPECT_EQ(inner.root().member("a").text(), "inner");
  }
  const Reading next('"' + std::string(1'000'000, 'x') + '"');
  EXPECT_EQ(next.root().text().size(), 1'000'000u);
  EXPECT_EQ(outer.root().member("a").text(), "outer");
}

// By their commas: as values they would take a hundred times their size.
TEST(Json, TextsOfTooManyValuesAreRefused) {
  std::string text = "[0";
  for (int i = 0; i < 1'000'000; ++i) text += ",0";
  EXPECT_TRUE(Reading(text + "]").isJson());
  EXPECT_FALSE(Reading(text + ",0]").isJson());
  EXPECT_TRUE(Reading('"' + std::string(3'000'000, 'x') + '"').isJson());
  std::string odd = "[0/**/";
  for (int i = 0; i < 299'000; ++i) odd += ",0";
  EXPECT_TRUE(Reading(odd + "]").isJson());
  for (int i = 0; i < 1'000; ++i) odd += ",{}";
  EXPECT_FALSE(Reading(odd + "]").isJson()) << "what only the slower reader takes";
}

TEST(Json, Extents) {
  const auto extent = objectExtent(R"( {"a":{"b":{}}, "c":[{}], "d": { } ,"e":1} rest)");
  ASSERT_TRUE(extent);
  EXPECT_EQ(extent->begin, 1u);
  EXPECT_EQ(extent->end, 42u);
  ASSERT_EQ(extent->members.size(), 2u);
  EXPECT_EQ(extent->members[0].end, 14u);
  EXPECT_FALSE(extent->members[0].isEmpty);
  EXPECT_TRUE(extent->members[1].isEmpty);
  EXPECT_EQ(valueEnd(" [1,{}]\xFF\xD8"), 7u);
  EXPECT_FALSE(valueEnd("\"text\""));
  EXPECT_FALSE(valueEnd("{\"a\":"));
}

TEST(Json, QuotedTextsAreThoseOfJsoncpp) {
  for (const std::string& text :
       {std::string("plain \x7F"), std::string("a\"b\\c/\b\n"), std::string("\xC3\xA4\xFF\x01")}) {
    std::string quoted;
    appendQuoted(quoted, text);
    EXPECT_EQ(quoted + "\n", writeJson(Json::Value(text)));
  }
}

}  // namespace
}  // namespace qn::json
