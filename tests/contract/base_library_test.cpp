// The free functions of the base library: status table, text, time, picture part, port owners.
#include "platform/base_library.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <set>
#include <tuple>

#include "platform/error_codes.h"

namespace {

// Every code that the module, the HTTP service or a bus answers with.
constexpr unsigned int kCodes[] = {
    1,          0x30000014, 0x30002028, 0x40000003, 0x40000006, 0x40000007, 0x40000008, 0x40000009,
    0x40001007, 0x40001014, 0x40001054, 0x4000108D, 0x400010E7, 0x400010E8, 0x400010EA, 0x40001187,
    0x4000118A, 0x400011E9, 0x40001275, 0x40002064, 0x50000002, 0x60000001, 0x60000003, 0x6000000B,
    0x6000000F, 0x60000015, 0x6000005F, 0x20000101, 0x20000102, 0x20000103, 0x20000104, 0x20000105,
    0x20000106, 0x60000101, 0x60000102, 0x60000103, 0x60000104, 0x60000105};

TEST(StatusTable, EveryCodeHasACompleteDocument) {
  std::set<std::string> subStatusCodes;
  Json::Value document;
  int status = 0;
  for (unsigned int code : kCodes) {
    ASSERT_TRUE(getResponseStatusByErrorNo(code, document, status)) << std::hex << code;
    EXPECT_EQ(document["statusCode"], code == 1 ? 1 : static_cast<int>(code >> 28));
    EXPECT_EQ(document["errorCode"], static_cast<int>(code));
    EXPECT_TRUE(document["statusString"].isString() && document["statusString"] != "");
    EXPECT_EQ(status, getHttpStatusCodeByErrorNo(code));
    EXPECT_TRUE(subStatusCodes.insert(document["subStatusCode"].asString()).second)
        << "two codes cannot be told apart by " << document["subStatusCode"];
  }
  getResponseStatusByErrorNo(0x40000003, document, status);  // worded as its XML form
  EXPECT_EQ(document["statusString"], "Unauthorized");
  EXPECT_EQ(document["subStatusCode"], "badAuthorization");
}

TEST(StatusTable, UnknownCodeChangesNothing) {
  for (unsigned int code : {0u, 2u, 0x20000001u, 0x40000004u, 0xFFFFFFFFu}) {
    Json::Value document("untouched");
    int status = 77;
    EXPECT_FALSE(getResponseStatusByErrorNo(code, document, status));
    EXPECT_TRUE(document == "untouched" && status == 77);
  }
}

TEST(StatusTable, HttpStatus) {
  const std::pair<int, std::vector<unsigned int>> cases[] = {
      {200, {0, 1, 2, 0x10000001}},
      {400, {0x50000001, 0x60000002, 0x50000002, 0x60000001, 0x6000005F, ERROR_MALFORMED_REQUEST}},
      {401, {0x40000003}},
      {403, {0x40000001, 0x40000007, 0x40001014}},
      {404, {0x40000006, 0x40002064}},
      {408, {ERROR_REQUEST_TIMEOUT}},
      {413, {ERROR_REQUEST_TOO_LARGE}},
      {415, {0x30002028}},
      {431, {ERROR_HEAD_TOO_LARGE}},
      {500, {0x30000001, 0x30000014, 0x70000001, 0xF0000001}},
      {501, {ERROR_METHOD_NOT_IMPLEMENTED}},
      {502,
       {ERROR_DEVICE_REPLY_UNUSABLE, ERROR_DEVICE_LOGIN_REFUSED, ERROR_DEVICE_CERTIFICATE_EXPIRED,
        ERROR_DEVICE_CERTIFICATE_REFUSED}},
      {503,
       {0x20000001, 0x400011E9, 0x40001275, ERROR_DEVICE_UNREACHABLE, ERROR_GATEWAY_STOPPING,
        ERROR_TOO_MANY_REQUESTS}},
      {504, {ERROR_DEVICE_TIMEOUT}},
  };
  for (const auto& [status, codes] : cases) {
    for (const unsigned int code : codes) {
      EXPECT_EQ(getHttpStatusCodeByErrorNo(code), status) << std::hex << code;
    }
  }
}

TEST(Text, XssCharactersAreErased) {
  std::string every;
  for (int byte = 0; byte < 256; ++byte) every += static_cast<char>(byte);
  std::string expected = every.substr(0x20);
  std::erase_if(expected, [](char c) { return std::strchr("<>\"'\x7F", c) != nullptr; });
  EXPECT_EQ(StringEraseXssInvalidChar(every), expected);
  EXPECT_EQ(StringEraseXssInvalidChar("/a?b=<script>'x'&c=%3C"), "/a?b=scriptx&c=%3C");
}

// Local time under another time zone while it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
};

// Seconds since the epoch of a local time without its offset; -1 when it is none.
std::time_t Seconds(const std::string& text) {
  std::tm parts{};
  const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  return end == nullptr || *end != 0 ? -1 : std::mktime(&parts);
}

TEST(Time, LocalTimeWithItsOffset) {
  for (const auto& [name, offset] :
       {std::pair{"UTC0", "+00:00"}, {"AAA-5:30", "+05:30"}, {"BBB+3", "-03:00"}}) {
    const TimeZone zone(name);
    for (const int shift : {0, 3600, -86400}) {
      const std::time_t before = std::time(nullptr) + shift;
      std::string shifted = "old";
      const std::string text = shift == 0 ? getISO8601Time() : GetCurTime8601(shifted, shift);
      EXPECT_EQ(text.size(), 25u) << text;
      EXPECT_EQ(text.substr(19), offset);
      EXPECT_LE(before, Seconds(text.substr(0, 19))) << text;
      EXPECT_GE(std::time(nullptr) + shift, Seconds(text.substr(0, 19))) << text;
      EXPECT_TRUE(shift == 0 || shifted == text);
    }
  }
}

std::string PictureOf(const std::string& body) {
  std::string picture = "old";
  const int length = getBinPart(picture, body.data(), static_cast<int>(body.size()), "{}");
  EXPECT_EQ(static_cast<std::size_t>(length), picture.size());
  return picture;
}

TEST(PicturePart, FollowsTheJsonValue) {
  const std::string picture("\xFF\xD8\xFF\xE0\0}\"{\r\n ", 11);
  const char* const values[] = {"{}",
                                "[]",
                                " \r\n{\"a\":1}",
                                "{\"a\":{\"b\":[1,{\"c\":null}]}}",
                                R"({"a":"}\"]\\","b":"{["})",
                                R"({"\u005C}":"\\"})",
                                "{/* } */\"a\":1}",
                                "// {\n{\"a\":1 // }\n}"};
  for (const std::string value : values) {
    EXPECT_EQ(PictureOf(value + picture), picture) << value;
    EXPECT_EQ(PictureOf(value + "\r\n" + picture), picture) << value;
    EXPECT_EQ(PictureOf(value), "") << value;
    EXPECT_EQ(PictureOf(value + "\r\n"), "") << value;
  }
  EXPECT_EQ(PictureOf("{}undefined"), "undefined");
}

TEST(PicturePart, NoneWithoutAJsonValue) {
  for (const std::string body :
       {"", "x", "\xFF\xD8", "\"text\"picture", "1picture", "{", "{\"a", "{\"a\\", "{\"a\\\"}x",
        "{]x", "[}x", "[{]}x", "/", "/*", "/* */", "//", "{/x}picture", "}x"}) {
    EXPECT_EQ(PictureOf(body), "") << body;
  }
  EXPECT_EQ(PictureOf(std::string(1000, '[') + std::string(1000, ']') + "x"), "x");
  EXPECT_EQ(PictureOf(std::string(1000, '[') + std::string(999, ']') + "x"), "");
  EXPECT_EQ(PictureOf(std::string(1001, '[') + "x"), "");
  std::string picture = "old";
  EXPECT_EQ(getBinPart(picture, nullptr, 0, ""), 0);
  EXPECT_EQ(picture, "");
  EXPECT_EQ(getBinPart(picture, "{}x", -1, ""), 0);
}

using boost::asio::ip::tcp;

// Listens on a free port.
struct Listener {
  explicit Listener(const std::string& address)
      : acceptor(context, {boost::asio::ip::make_address(address), 0}) {}
  int port() const { return acceptor.local_endpoint().port(); }

  boost::asio::io_context context;
  tcp::acceptor acceptor;
};

TEST(PortOwner, TakenOnlyByProcessesOutsideTheList) {
  std::vector<int> own = {1, 2, 3};
  EXPECT_EQ(DriverCif_GetProcessPid(own), 0);
  EXPECT_EQ(own, std::vector<int>{getpid()});
  const std::tuple<std::string, const char*, bool> cases[] = {
      {"127.0.0.1", "127.0.0.1", true}, {"127.0.0.1", "127.0.0.2", false},
      {"127.0.0.1", "0.0.0.0", true},   {"0.0.0.0", "127.0.0.1", true},
      {"127.0.0.1", "::1", false},      {"::1", "::1", true},
      {"::", "127.0.0.1", true},        {"::1", "127.0.0.1", false},
  };
  for (const auto& [listening, asked, meets] : cases) {
    std::optional<Listener> listener;
    try {
      listener.emplace(listening);
    } catch (const boost::system::system_error&) {
      ASSERT_NE(listening.find(':'), listening.npos) << "only IPv6 may be missing";
      continue;
    }
    const int port = listener->port();
    EXPECT_EQ(CheckPortOccupy({}, asked, port, 1) != 0, meets) << listening << " " << asked;
    EXPECT_EQ(CheckPortOccupy({getppid()}, asked, port, 1) != 0, meets) << listening;
    EXPECT_EQ(CheckPortOccupy(own, asked, port, 1), 0) << listening;
  }
}

TEST(PortOwner, FreeOrImpossiblePort) {
  int port = 0;
  {
    const Listener listener("127.0.0.1");
    port = listener.port();
  }
  for (const int each : {port, 0, 65536}) EXPECT_EQ(CheckPortOccupy({}, "127.0.0.1", each, 1), 0);
  EXPECT_EQ(CheckPortOccupy({}, "no address", port, 1), 0);
  EXPECT_EQ(CheckPortOccupy({}, nullptr, port, 1), 0);
}

}  // namespace
