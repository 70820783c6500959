// What platform/wlog.h and gateway/log/log.h promise of the lines on standard error.
#include "gateway/log/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>

#include "gateway/log/access_log.h"
#include "gateway/log/client_log.h"
#include "gateway/log/line.h"
#include "gateway/log/output.h"
#include "gateway/log/request_id.h"
#include "gateway/log/secrets.h"
#include "platform/wlog.h"

namespace qn {
namespace {

using namespace std::string_literals;

std::string standardErrorOf(const std::function<void()>& action) {
  testing::internal::CaptureStderr();
  action();
  return testing::internal::GetCapturedStderr();
}

class Log : public testing::Test {
 protected:
  void TearDown() override { setLogOptions({}); }
};

TEST_F(Log, ALineHasTimeLevelTagAndText) {
  const std::string line =
      standardErrorOf([] { wlog_format(WLOG_ERROR, "QNW", "[%s(%d)] %s", "f", 7, "text"); });
  EXPECT_TRUE(std::regex_match(
      line, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d error \[QNW\] )"
                       R"(\[f\(7\)\] text\n)")))
      << line;
}

TEST_F(Log, ThresholdAndLevelsOfBothSides) {
  const std::pair<const char*, const char*> cases[] = {
      {"debug", "2345diwe"}, {"info", "45iwe"}, {"warn", "45we"}, {"error", "5e"}};
  for (const auto& [threshold, expected] : cases) {
    setLogLevel(threshold);
    std::string written = standardErrorOf([] {
      for (int level = 2; level <= 5; ++level) wlog_format(level, "QNW", "=%d", level);
      logDebug("={}", "d");
      logInfo("={}", "i");
      logWarn("={}", "w");
      logError("={}", "e");
    });
    EXPECT_EQ(std::regex_replace(written, std::regex("[^=]*=(.)\n"), "$1"), expected);
  }
  for (const char* name : {"", "Info", "infos", "3"})
    EXPECT_THROW(setLogLevel(name), std::invalid_argument) << name;
  EXPECT_FALSE(isLogged(LogLevel::Warn)) << "a refused level changes nothing";
}

TEST_F(Log, OneCallIsOneLineWhateverTheText) {
  const std::string line = standardErrorOf([] {
    logInfo("{}", "a\nb\r\n\0c"s);
    wlog_format(WLOG_WARN, "QNW", "%s", "d\ne");
  });
  EXPECT_NE(line.find("a\\nb\\r\\n\\x00c\n"), std::string::npos) << line;
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 2) << line;
  const std::string cut = standardErrorOf(
      [] { wlog_format(WLOG_ERROR, "QNW", "%s", std::string(1'000'000, 'x').c_str()); });
  EXPECT_LT(cut.size(), kLogLineBytes + 100);
  EXPECT_TRUE(cut.ends_with("xxx...[cut]\n"));
}

TEST_F(Log, AnObjectForEachLineWhereThatIsWanted) {
  setLogOptions({"info", "json", "none", ""});
  const std::string line = standardErrorOf([] {
    const RequestIdScope request("r-1");
    logWarn("say \"{}\"", "a\\b\n");
  });
  EXPECT_TRUE(std::regex_match(
      line, std::regex(R"(\{"time":"[^"]{28,29}","level":"warning","tag":"gateway",)"
                       R"("message":"say \\"a\\\\b\\\\n\\"","request":"r-1"\}\n)")))
      << line;
  EXPECT_THROW(setLogOptions({"info", "xml", "none", ""}), std::invalid_argument);
}

TEST_F(Log, AccessLinesSayWhatWasAskedWithoutTheValuesOfItsQuery) {
  const struct {
    const char* access;
    int status;
    bool logged;
  } rows[] = {
      {"none", 500, false}, {"errors", 399, false}, {"errors", 400, true}, {"all", 200, true}};
  for (const auto& row : rows) {
    setLogOptions({"info", "text", row.access, ""});
    EXPECT_EQ(isAccessLogged(row.status), row.logged) << row.access << row.status;
  }
  const std::pair<const char*, const char*> urls[] = {
      {"/a", "/a"}, {"/a?b=1&c&d=x=y", "\"/a?b=&c&d=\""}, {"/a?", "/a?"}, {"/\"", "\"/\\\"\""}};
  for (const auto& [url, shown] : urls) {
    const std::string line = standardErrorOf([url = url] {
      logAccess({"id", "10.0.0.1", "a b", "", "GET", url, 200, 5, std::chrono::microseconds(7),
                 std::chrono::microseconds(6)});
    });
    EXPECT_TRUE(
        line.ends_with("info [access] request=id client=10.0.0.1 user=\"a b\" device=\"\" "
                       "method=GET url="s +
                       shown + " status=200 bytes=5 us=7 device_us=6\n"))
        << line;
  }
}

TEST_F(Log, NobodyWaitsForAReaderThatHasStalled) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  LogOutput& output = LogOutput::instance();
  output.open("/proc/self/fd/" + std::to_string(ends[1]));
  close(ends[1]);
  output.start();
  constexpr std::size_t kLines = 12000;
  const std::string line = std::string(999, 'x') + '\n';
  for (std::size_t i = 0; i < kLines; ++i) output.write(line);  // 12 MB
  EXPECT_GE(output.dropped(), kLines - 2 * LogOutput::kWaitingBytes / line.size() - 200);
  std::string read;
  std::thread reader([&] {
    char bytes[65536];
    for (ssize_t count; (count = ::read(ends[0], bytes, sizeof bytes)) > 0;)
      read.append(bytes, static_cast<std::size_t>(count));
  });
  output.stop();
  output.open("");
  reader.join();
  close(ends[0]);
  EXPECT_NE(read.find("lines of the log were dropped"), read.npos);
  const auto lines = static_cast<std::size_t>(std::count(read.begin(), read.end(), '\n'));
  EXPECT_EQ(lines + output.dropped(), kLines + 1) << "and the line about those that were dropped";
}

TEST(LogSecrets, NamesThatHideAValue) {
  for (const char* name :
       {"password",     "loginPassword", "PASSWORD", "userPasswd",      "pin",           "PIN",
        "devicePIN",    "PINCode",       "pin_code", "apiKey",          "API-Key",       "keys",
        "clientSecret", "access_token",  "wifiPwd",  "userCredentials", "Authorization", "faceURL",
        "pass",         "passphraseHint"}) {
    EXPECT_TRUE(isSecretName(name)) << name;
  }
  for (const char* name :
       {"keyFrameInterval", "keyBoardControlSpeed", "searchKeyword", "mapping", "spinning",
        "skipping", "tokenizer", "passing", "", "monkey", "statusCode"}) {
    EXPECT_FALSE(isSecretName(name)) << name;
  }
}

TEST(LogSecrets, OnlyTheValueGoes) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"password": "a\"b", "id": 1})", R"({"password": "***", "id": 1})"},
      {R"({"pin":1234,"keyFrameInterval":50})", R"({"pin":***,"keyFrameInterval":50})"},
      {R"({"keys":[{"a":"}]"},2],"b":3})", R"({"keys":***,"b":3})"},
      {R"({"x":"{\"password\":\"s\",\"y\":1}"})", R"({"x":"{\"password\":\"***\",\"y\":1}"})"},
      {"<password>s</password><a>1</a>", "<password>***</password><a>1</a>"},
      {"<ns:pin x='1'><b>s</b></ns:pin><a/>", "<ns:pin***>***</ns:pin><a/>"},
      {"<token/><a>1</a>", "<token/><a>1</a>"},
      {"<u password=\"s\" id=\"1\"/>", "<u password=\"***\" id=\"1\"/>"},
      {"<u password='s t' id='1'/>", "<u password='***' id='1'/>"},
      {"[url=/a?password=s&id=1]", "[url=/a?password=***&id=1]"},
      {"Authorization: Digest username=\"a\", response=\"b\"", "Authorization: ***"},
      {"x.toml:4: users.password: expected either", "x.toml:4: users.password: expected either"},
      {R"({"password":"cut of)", R"({"password":"***)"},
      {"<secret>cut of", "<secret>***"},
  };
  for (const auto& [text, line] : cases) EXPECT_EQ(withoutSecrets(text), line);
}

TEST_F(Log, NoPlantedSecretReachesALine) {
  setLogLevel("debug");
  uint32_t state = 1;
  const auto random = [&](std::size_t bound) {
    state = state * 1664525U + 1013904223U;
    return (state >> 8) % bound;
  };
  const std::string names[] = {"password", "devicePIN", "access_token", "apiKey", "credentials"};
  const std::string planted = "Pl4nted";
  const std::function<std::string(int)> value = [&](int depth) -> std::string {
    const std::string kinds[] = {'"' + planted + "\\\"x\"", "[\"" + planted + "\", 1]",
                                 "{\"a\":\"" + planted + "}\"}", '"' + planted + '"'};
    return depth > 0 && random(3) == 0 ? "{\"b\":" + value(depth - 1) + '}' : kinds[random(4)];
  };
  for (int i = 0; i < 3000; ++i) {
    std::string noise;
    for (std::size_t n = random(40); n > 0; --n) noise += "{}[]<>\"\\,:=& aZ\n"[random(17)];
    const std::string& name = names[random(5)];
    std::string document;
    const std::string documents[] = {
        "{\"a\":[{\"" + name + "\" : " + value(3) + "}]}",
        "<a><" + name + " n=\"1\">\n" + planted + "<b>" + planted + "</b></" + name + "></a>",
        "/a?b=c&" + name + "=" + planted + "&d",
        "{\"a\":\"{\\\"" + name + "\\\":\\\"" + planted + "\\\"}\"}"};
    document = documents[random(4)];
    document.resize(document.size() - random(4));
    const std::string line = standardErrorOf([&] {
      wlog_format(i % 2 == 0 ? WLOG_DUMP : WLOG_ERROR, "QNW", "%s [x=%s] end", noise.c_str(),
                  document.c_str());
      logError("{}", document);
    });
    EXPECT_EQ(line.find(planted), std::string::npos) << noise << document << '\n' << line;
  }
}

TEST_F(Log, DocumentsAreShortAboveDebug) {
  setLogLevel("debug");
  const std::string document = "{\"a\":\"" + std::string(600, 'x') + "\"}";
  const auto lineOf = [&](int level) {
    return standardErrorOf([&] { wlog_format(level, "QNW", "[r=%s]end", document.c_str()); });
  };
  EXPECT_NE(lineOf(WLOG_INFO).find(document), std::string::npos);
  for (const int level : {WLOG_WARN, WLOG_ERROR}) {
    const std::string line = lineOf(level);
    EXPECT_EQ(std::count(line.begin(), line.end(), 'x'), 256 - 6) << line;
    EXPECT_TRUE(line.ends_with("...[cut]]end\n")) << line;
  }
}

TEST_F(Log, AnAttackLeavesFewLinesAndItsEnd) {
  ClientLog log;
  ClientLog::Time now{std::chrono::seconds(5)};
  const auto linesOf = [&](const std::function<void()>& action) {
    const std::string lines = standardErrorOf(action);
    return std::pair(std::count(lines.begin(), lines.end(), '\n'), lines);
  };
  const auto [first, firstLines] = linesOf([&] {
    for (int i = 0; i < 1000; ++i) {
      for (int address = 0; address < 100; ++address) {
        log.write(LogLevel::Warn, std::to_string(address), "line " + std::to_string(i) + '.', now);
      }
    }
    log.writeHeldBack(now + std::chrono::milliseconds(999));
  });
  EXPECT_EQ(first, long{ClientLog::kAddresses});
  now += std::chrono::seconds(1);
  const auto [second, lines] = linesOf([&] {
    log.writeHeldBack(now);
    log.write(LogLevel::Warn, "0", "held back", now);
  });
  EXPECT_EQ(second, long{ClientLog::kAddresses} + 1);
  EXPECT_NE(lines.find("line 999. (999 lines like this in the last second)"), lines.npos);
  EXPECT_NE(lines.find("36000 lines about other clients held back"), lines.npos);
  now += std::chrono::seconds(1);
  EXPECT_EQ(linesOf([&] { log.writeHeldBack(now); }).first, 1);
  now += std::chrono::seconds(1);
  EXPECT_EQ(linesOf([&] { log.writeHeldBack(now); }).first, 0) << "silence is silent";
}

TEST_F(Log, ErrnoSurvivesALine) {
  standardErrorOf([] {
    errno = ENOSPC;
    logError("text");
    wlog_format(WLOG_ERROR, "QNW", "text");
    EXPECT_EQ(errno, ENOSPC);
  });
}

TEST(LogLine, Escapes) {
  const std::string kept = "plain \"text\" 100% \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80";
  EXPECT_EQ(logLine(kept), kept);
  EXPECT_EQ(logLine("tab\t esc\x1b[0m del\x7f"), "tab\\t esc\\x1b[0m del\\x7f");
  EXPECT_EQ(logLine("a\xe2\x82"), "a\\xe2\\x82") << "ends inside a character";
  EXPECT_EQ(logLine("\xe2z\xac"), "\\xe2z\\xac");
  // A control character, a line separator, overlong, surrogate, beyond U+10FFFF, no UTF-8 at all.
  for (const char* bytes :
       {"\xc2\x9b", "\xe2\x80\xa8", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff\x80"}) {
    std::string escaped;
    for (const char* byte = bytes; *byte != 0; ++byte)
      escaped += fmt::format("\\x{:02x}", uint8_t(*byte));
    EXPECT_EQ(logLine(bytes), escaped);
  }
}

TEST(LogLine, CutsBetweenCharactersAndOnlyWhatIsTooLong) {
  const std::string full(kLogLineBytes, 'x');
  EXPECT_EQ(logLine(full), full);
  EXPECT_EQ(logLine(full + 'x').size(), kLogLineBytes);

  std::string wide;  // three bytes each, so that the room left of the mark is not a multiple
  while (wide.size() <= kLogLineBytes) wide += "\xe2\x82\xac";
  const std::string line = logLine(wide);
  const std::size_t kept = line.size() - kLogLineCut.size();
  EXPECT_LE(line.size(), kLogLineBytes);
  EXPECT_EQ(line, wide.substr(0, kept / 3 * 3) + std::string(kLogLineCut));

  EXPECT_TRUE(logLine(std::string(kLogLineBytes, '\0')).ends_with("\\x00...[cut]"));
}

}  // namespace
}  // namespace qn
