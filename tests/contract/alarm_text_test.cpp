// Reading a device's alert stream: the answer's head, the multipart parts, whose alarm it is.
#include "gateway/alarmbus/alarm_text.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <boost/asio/buffer.hpp>
#include <string>
#include <vector>

#include "gateway/alarmbus/multipart_reader.h"
#include "gateway/devices/message.h"

namespace qn {
namespace {

TEST(SetDeviceIndex, WinsOverWhateverTheDeviceSays) {
  const char* const alarms[] = {
      R"({"EventNotificationAlert":{}})",
      R"({"EventNotificationAlert":{"eventType":"a"}})",
      R"( { "EventNotificationAlert" : { "eventType" : "a" } } )",
      R"({"EventNotificationAlert":{"devIndex":"evil","eventType":"a"}})",
      R"({"EventNotificationAlert":{"dev\u0049ndex":"evil"}})",
      R"({"EventNotificationAlert":{"devIndex":"evil","devIndex":"worse"}})",
      R"({"EventNotificationAlert":{"a":"}","b":"{\"devIndex\":\"evil\"}","c":"\\"}})",
      R"({"EventNotificationAlert":{"list":[{"devIndex":"inner"},{}],"o":{"p":{}}}})",
      R"({"x":{"y":1},"EventNotificationAlert":{"eventType":"a"}})",
      R"({"EventNotificationAlert":{"devIndex":"evil"},"EventNotificationAlert":{"b":1}})",
      R"({"EventNotificationAlert":{"a":1}}{"EventNotificationAlert":{"devIndex":"evil"}})",
      "{\"EventNotificationAlert\":{\r\n\t}}\r\n",
      "{\"EventNotificationAlert\":{\"a\":\"\x01\"}}",
      R"({"EventNotificationAlert":{/* } */"devIndex":"evil"/* { */}} //)",
      "{\"EventNotificationAlert\":{// }\n\"devIndex\":\"evil\"}}",
  };
  for (const char* alarm : alarms) {
    std::string out = "what was there before";
    ASSERT_TRUE(setDeviceIndex(alarm, R"("7\"")", out)) << alarm;
    Json::Value before;
    Json::Value after;
    ASSERT_TRUE(Json::Reader().parse(alarm, before)) << alarm;
    ASSERT_TRUE(Json::Reader().parse(out, after)) << out;
    EXPECT_EQ(after["EventNotificationAlert"]["devIndex"].asString(), "7\"") << out;
    for (auto& member : before) {
      if (member.isObject()) member["devIndex"] = "7\"";
    }
    EXPECT_EQ(after, before) << out;
  }
}

TEST(SetDeviceIndex, RefusesWhatItCannotReadAsTheModuleWould) {
  for (const char* alarm : {"", "   ", "7", "[]", R"([{"a":{}}])", "null", "{", R"({"a":{})",
                            R"({"a":"})", "}{", "\xEF\xBB\xBF{}"}) {
    std::string out;
    EXPECT_FALSE(setDeviceIndex(alarm, "\"1\"", out)) << alarm;
  }
}

// What looks like JSON to a scanner of brackets but is none stays unreadable or harmless.
TEST(SetDeviceIndex, MismatchedBracketsNeverYieldAnotherDevicesAlarm) {
  for (const char* alarm : {R"({"EventNotificationAlert":{"devIndex":"evil"]})",
                            R"({"EventNotificationAlert":[{"devIndex":"evil"}}})",
                            R"({"x":[},"EventNotificationAlert":{"devIndex":"evil"}})",
                            R"({"EventNotificationAlert":{"devIndex":"evil","a":{"b":[}]}})"}) {
    std::string out;
    Json::Value after;
    if (!setDeviceIndex(alarm, "\"1\"", out) || !Json::Reader().parse(out, after)) continue;
    EXPECT_NE(after["EventNotificationAlert"]["devIndex"], "evil") << out;
  }
}

struct Part {
  std::string type;
  std::string body;
  bool operator==(const Part&) const = default;
};

void PrintTo(const Part& part, std::ostream* out) { *out << part.type << " | " << part.body; }

// The parts of a stream that comes in these pieces; "failed" as the last part when it does.
std::vector<Part> read(const std::vector<std::string_view>& pieces, std::size_t limit = 1000) {
  std::vector<Part> parts;
  MultipartReader reader("b", limit, [&](std::string_view type, std::string_view body) {
    parts.push_back({std::string(type), std::string(body)});
  });
  for (const auto piece : pieces) {
    if (reader.feed(piece)) continue;
    parts.push_back({"failed", ""});
    break;
  }
  return parts;
}

void expectHoweverItIsCut(const std::string& stream, const std::vector<Part>& expected) {
  const std::string_view all = stream;
  EXPECT_EQ(read({all}), expected) << stream;
  std::vector<std::string_view> bytes;
  for (std::size_t i = 0; i < all.size(); ++i) {
    bytes.push_back(all.substr(i, 1));
    ASSERT_EQ(read({all.substr(0, i), all.substr(i)}), expected) << "cut at " << i << "\n"
                                                                 << stream;
  }
  EXPECT_EQ(read(bytes), expected) << stream;
}

TEST(MultipartReader, HoweverTheStreamIsCut) {
  const std::string json = "application/json";
  const struct {
    const char* what;
    std::string stream;
    std::vector<Part> parts;
  } cases[] = {
      {"with lengths, boundary right behind",
       "--b\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}--b\r\n"
       "content-length:3\r\nCONTENT-TYPE:text/plain\r\n\r\na{b",
       {{json, "{}"}, {"text/plain", "a{b"}}},
      {"without lengths, the object's end is the part's",
       "--b\r\nContent-Type: application/json\r\n\r\n{\"a\":{\"s\":\"}--b\\\"\"}}\r\n--b\r\n\r\n"
       "  {\"b\":[true,null,-1,18446744073709551615,1.5]}",
       {{json, "{\"a\":{\"s\":\"}--b\\\"\"}}"},
        {"", "{\"b\":[true,null,-1,18446744073709551615,1.5]}"}}},
      {"without a length, no JSON after all: to the boundary",
       "--b\r\n\r\n{\"a\":1 2}\r\n--b\r\n\r\n{a}\r\n--b\r\n",
       {{"", "{\"a\":1 2}"}, {"", "{a}"}}},
      {"without a length, no object: to the boundary",
       "--b\r\nContent-Type: image/jpeg\r\n\r\n \r\nJ{P\r\n--G\r\n--b\r\nContent-Length: "
       "1\r\n\r\nx",
       {{"image/jpeg", "J{P\r\n--G"}, {"", "x"}}},
      {"empty bodies",
       "--b\r\nContent-Length: 0\r\n\r\n--b\r\n\r\n\r\n--b\r\nContent-Length: 1\r\n\r\n1",
       {{"", ""}, {"", ""}, {"", "1"}}},
      {"preamble, bare line feeds, blanks behind the boundary, noise between parts",
       "\r\nhello - --\r\n--b  \nContent-Length: 1\n\n1noise\r\n\r\n--b\nContent-Length: 1\n\n2",
       {{"", "1"}, {"", "2"}}},
      {"boundary text within a body of known length",
       "--b\r\nContent-Length: 9\r\n\r\n--b\r\n\r\n{}",
       {{"", "--b\r\n\r\n{}"}}},
      {"an unfinished part is none", "--b\r\nContent-Length: 5\r\n\r\n1234", {}},
  };
  for (const auto& [what, stream, parts] : cases) {
    SCOPED_TRACE(what);
    expectHoweverItIsCut(stream, parts);
  }
  for (const std::string length : {"", ": 1x", ": -1", ": 99999999999999999999"}) {
    expectHoweverItIsCut("--b\r\nContent-Length" + length + "\r\n\r\n{}", {{"failed", ""}});
  }
}

TEST(MultipartReader, PartsOverTheLimitEndTheReading) {
  const std::vector<Part> failed = {{"failed", ""}};
  EXPECT_EQ(read({"--b\r\nContent-Length: 1000\r\n\r\n" + std::string(1000, '1')}).size(), 1u);
  EXPECT_EQ(read({"--b\r\nContent-Length: 1001\r\n\r\n"}), failed);
  EXPECT_EQ(read({"--b\r\n\r\n{" + std::string(1000, '1')}), failed);
  EXPECT_EQ(read({"--b\r\n\r\n1" + std::string(1000, '1')}), failed);
  EXPECT_EQ(read({"--b\r\n" + std::string(9000, 'h')}), failed);
  EXPECT_EQ(read({"--b" + std::string(9000, ' ')}), failed);
}

// What is no part grows no memory, however long it is.
TEST(MultipartReader, EndlessNoiseIsPassedOver) {
  std::vector<std::string_view> pieces(1000, "noise\r\n-");
  pieces.push_back("--b\r\n\r\n");
  pieces.insert(pieces.end(), 1000, " \r\n");
  pieces.push_back("{}");
  EXPECT_EQ(read(pieces), (std::vector<Part>{{"", "{}"}}));
}

TEST(ReadBuffer, HoldsAtMostItsLargestSizeAndHasSpaceAgainWhenCleared) {
  ReadBuffer buffer;
  EXPECT_EQ(buffer.space(ReadBuffer::kLargest + 1).size(), ReadBuffer::kLargest);
  buffer.commit(ReadBuffer::kLargest);
  EXPECT_EQ(buffer.space().size(), 0u);
  buffer.clear(0);
  EXPECT_TRUE(buffer.empty());
  const auto space = buffer.space(1);
  EXPECT_TRUE(space.data() != nullptr && space.size() >= 1);
}

TEST(ReplyParser, Boundary) {
  const std::pair<std::string, std::string> cases[] = {
      {"multipart/mixed; boundary=b", "b"},
      {"Multipart/Mixed;boundary=\"a b;c\"", "a b;c"},
      {"multipart/x-mixed-replace; charset=x; boundary=b; q=1", "b"},
      {"multipart/mixed; boundary=\"open", "open"},
      {"multipart/mixed", ""},
      {"multipart/mixed; boundary=" + std::string(70, 'b'), std::string(70, 'b')},
      {"multipart/mixed; boundary=" + std::string(71, 'b'), ""},
      {"multipart/mixed; boundary=", ""},
      {"multipart/mixed; boundary=\"\"", ""},
      {"application/json; boundary=b", ""},
  };
  for (const auto& [type, boundary] : cases) {
    ReplyParser response(std::nullopt);
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: " + type + "\r\n\r\n";
    boost::beast::error_code error;
    response.put(boost::asio::buffer(head), error);
    EXPECT_EQ(response.boundary(), boundary) << type;
  }
}

}  // namespace
}  // namespace qn
