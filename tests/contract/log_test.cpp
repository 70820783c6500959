// What platform/wlog.h and gateway/log/log.h promise of the lines on standard error.
#include "gateway/log/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>

#include "gateway/log/line.h"
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
  void TearDown() override { setLogLevel("info"); }
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
  const std::pair<const char*, const char*> cases[] = {// what is written: the module's, our own
                                                       {"debug", "2345diwe"},
                                                       {"info", "45iwe"},
                                                       {"warn", "45we"},
                                                       {"error", "5e"}};
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
