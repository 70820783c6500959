// What platform/zrt.h promises of clocks, UUIDs, strings and errors.
#include "platform/zrt.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <regex>
#include <set>
#include <string>

namespace {

using namespace std::chrono;

TEST(Clock, TimeIsMicrosecondsSinceTheEpochAndTicksAreMonotonicMilliseconds) {
  const auto now = [] {
    return uint64_t(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
  };
  const uint64_t before = now();
  const uint64_t time = ZRT_TimeNow();
  EXPECT_LE(before, time);
  EXPECT_LE(time, now());

  const auto start = steady_clock::now();
  const uint64_t first = ZRT_GetTimeTick();
  for (uint64_t tick = first, last = first; tick < first + 3; last = tick) {
    tick = ZRT_GetTimeTick();
    ASSERT_GE(tick, last);
  }
  EXPECT_GT(steady_clock::now() - start, 2ms);
  EXPECT_LT(steady_clock::now() - start, 3s);
}

std::string textOf(const ZRT_UUID& uuid) {
  char text[37];
  return ZRT_StringFromUUID(uuid, text, sizeof text) == 0 ? text : "";
}

TEST(Uuid, IsRandomVersionFourOfThirtySixLowerCaseCharacters) {
  const ZRT_UUID fixed = {{0, 1, 2, 0xab, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xff}};
  EXPECT_EQ(textOf(fixed), "000102ab-0405-0607-0809-0a0b0c0d0eff");
  char text[37] = "untouched";
  EXPECT_EQ(ZRT_StringFromUUID(fixed, text, 36), -1);
  EXPECT_STREQ(text, "untouched");
  const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  std::array<std::string, 36> columns;
  for (int i = 0; i < 200; ++i) {
    ZRT_UUID uuid = {};
    ASSERT_EQ(ZRT_GetUUID(uuid), 0);
    EXPECT_TRUE(std::regex_match(textOf(uuid), form)) << textOf(uuid);
    const std::string made = textOf(uuid);
    seen.insert(made);
    for (std::size_t at = 0; at < columns.size(); ++at) columns[at] += made[at];
  }
  EXPECT_EQ(seen.size(), 200u);
  // The four dashes are one.
  EXPECT_EQ(std::set(columns.begin(), columns.end()).size(), 33u) << "no digit repeats another";
}

TEST(Text, NumbersFromText) {
  struct Case {
    const char* text;
    int32_t value;
  };
  for (const Case& c :
       {Case{nullptr, 0}, Case{"", 0}, Case{"x1", 0}, Case{"- 1", 0}, Case{"0", 0},
        Case{"101", 101}, Case{" \t\n-42abc", -42}, Case{"+7", 7}, Case{"0x10", 0},
        Case{"2147483647", INT_MAX}, Case{"2147483648", INT_MAX}, Case{"-2147483648", INT_MIN},
        Case{"-2147483649", INT_MIN}, Case{"99999999999999999999", INT_MAX},
        Case{"-99999999999999999999", INT_MIN}}) {
    EXPECT_EQ(ZRT_Atoi32(c.text), c.value) << (c.text ? c.text : "null");
  }
}

TEST(Text, NumbersToText) {
  struct Case {
    int32_t value;
    int base;
    std::string text;
  };
  for (const Case& c :
       {Case{0, 10, "0"}, Case{-105, 10, "-105"}, Case{INT_MAX, 10, "2147483647"},
        Case{INT_MIN, 2, "-1" + std::string(31, '0')}, Case{255, 16, "ff"}, Case{35, 36, "z"}}) {
    const int length = static_cast<int>(c.text.size());
    std::string buffer(c.text.size() + 1, '#');
    EXPECT_EQ(ZRT_Itoa(c.value, buffer.data(), length, c.base), nullptr) << c.text;
    ASSERT_EQ(ZRT_Itoa(c.value, buffer.data(), length + 1, c.base), buffer.data()) << c.text;
    EXPECT_EQ(buffer.c_str(), c.text);
  }
  char text[64];
  for (const int base : {-10, 0, 1, 37}) EXPECT_EQ(ZRT_Itoa(1, text, 64, base), nullptr) << base;
  EXPECT_EQ(ZRT_Itoa(1, text, 0, 10), nullptr);
  EXPECT_EQ(ZRT_Itoa(1, nullptr, 64, 10), nullptr);
}

TEST(Text, ComparesFindsAndCopiesAndTakesNullForEmpty) {
  EXPECT_EQ(ZRT_Strcmp(nullptr, ""), 0);
  EXPECT_LT(ZRT_Strcmp(nullptr, "a"), 0);
  EXPECT_GT(ZRT_Strcmp("a", nullptr), 0);
  EXPECT_NE(ZRT_Strcmp("true", "True"), 0);
  EXPECT_EQ(ZRT_Strncmp(nullptr, nullptr, 7), 0);
  EXPECT_EQ(ZRT_Strncmp("/KAVRO/System", "/KAVRO/Image", 7), 0);
  EXPECT_NE(ZRT_Strncmp("/KAVRO", "/KAVRO/", 7), 0);
  for (const int none : {0, -1}) EXPECT_EQ(ZRT_Strncmp("a", "b", none), 0);
  EXPECT_STREQ(ZRT_Strstr(nullptr, nullptr), "");
  EXPECT_EQ(ZRT_Strstr(nullptr, "a"), nullptr);
  EXPECT_STREQ(ZRT_Strstr("one two", "two"), "two");
  struct Case {
    const char* from;
    int count;
    const char* copy;
  };
  for (const Case& c : {Case{"abcdef", 3, "abc"}, Case{"abc", 3, "abc"}, Case{"ab", 3, "ab"},
                        Case{nullptr, 3, ""}, Case{"abc", 0, ""}, Case{"abc", -1, ""}}) {
    char to[5] = "####";
    EXPECT_EQ(ZRT_Strncpy(to, c.from, c.count), to);
    EXPECT_STREQ(to, c.copy);
  }
  EXPECT_EQ(ZRT_Strncpy(nullptr, "a", 1), nullptr);
}

TEST(Errors, LastErrorNamesTheCause) {
  EXPECT_EQ(ZRT_KillTimer(-1), -1);
  EXPECT_EQ(ZRT_GetLastError(), ENOENT);
  int id = 5;
  EXPECT_EQ(ZRT_SetTimer(nullptr, nullptr, 1000, id, 0), -1);
  EXPECT_EQ(ZRT_GetLastError(), EINVAL);
  errno = ENOSPC;
  EXPECT_EQ(ZRT_GetSystemLastError(), ENOSPC);
  int32_t value = 41;
  EXPECT_EQ(ZRT_AtomicInc(&value), 42);
  EXPECT_EQ(value, 42);
}

}  // namespace
