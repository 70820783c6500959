// The JSON reader beyond the meaning of texts, which fuzz/json_reading.cpp and its seeds compare
// with jsoncpp's.
#include <gtest/gtest.h>

#include "json/extents.h"
#include "json/reader.h"
#include "json/text.h"

namespace qn::json {
namespace {

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
