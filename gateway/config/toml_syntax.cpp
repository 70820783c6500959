// See toml_syntax.h.
#include "gateway/config/toml_syntax.h"

#include <algorithm>
#include <string>

#include "text/ascii.h"

namespace qn {
namespace {

// Each is one run over the file, which has at most a few MiB.
constexpr int kMostRuns = 20;

// In place of a section's head that cannot be read, so that its keys do not go to the one before.
constexpr std::string_view kUnreadable = "unreadable section ";

// How often a line names a part of a part, strings and comments aside. The TOML library recurses
// for each part of a key and bounds only arrays and inline tables; no key of ours has many.
constexpr int kDotsInALine = 8;

// The text from the end of the string that it begins with; empty when that has no end.
std::string_view afterString(std::string_view text) {
  const char quote = text[0];
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == quote) return text.substr(i + 1);
    if (text[i] == '\\' && quote == '"') ++i;
  }
  return {};
}

bool startsLongString(std::string_view text) {
  return text.starts_with("\"\"\"") || text.starts_with("'''");
}

// Calls it with the rest of the line from each character on that stands in no string and in no
// comment.
template <class Visit>
void forEachBare(std::string_view line, Visit visit) {
  while (!line.empty() && line[0] != '#') {
    visit(line);
    const bool string = line[0] == '"' || line[0] == '\'';
    line = string ? afterString(line) : line.substr(1);
  }
}

// The lines of a text, with their numbers.
template <class Visit>
void forEachLine(std::string_view content, Visit visit) {
  for (uint32_t number = 1; !content.empty(); ++number) {
    const std::size_t end = std::min(content.find('\n'), content.size());
    visit(number, content.substr(0, end));
    content.remove_prefix(std::min(end + 1, content.size()));
  }
}

// Whether the library may read them.
bool checkLines(std::string_view content, const std::shared_ptr<const std::string>& file,
                Findings& findings) {
  bool good = true;
  forEachLine(content, [&](uint32_t number, std::string_view line) {
    int dots = 0;
    bool longString = false;
    forEachBare(line, [&](std::string_view rest) {
      dots += rest[0] == '.' ? 1 : 0;
      longString = longString || startsLongString(rest);
    });
    const Place place{number, 0, {}, file};
    if (longString) findings.error(place, "expected strings of one line");
    if (dots > kDotsInALine) findings.error(place, "expected a key of fewer parts");
    good = good && !longString && dots <= kDotsInALine;
  });
  return good;
}

// The line where the list or table begins that goes on in this line; the line itself when none
// does.
uint32_t beginOfValue(std::string_view content, uint32_t line) {
  int open = 0;
  uint32_t begin = line;
  forEachLine(content, [&](uint32_t number, std::string_view text) {
    if (number > line) return;
    if (open <= 0) begin = number;
    forEachBare(text, [&](std::string_view rest) {
      open += rest[0] == '[' || rest[0] == '{' ? 1 : 0;
      open -= rest[0] == ']' || rest[0] == '}' ? 1 : 0;
    });
  });
  return begin;
}

// Calls it for each line and puts together what it gives.
template <class Change>
std::string changed(const std::string& content, Change change) {
  std::string result;
  forEachLine(content, [&](uint32_t number, std::string_view text) {
    result += change(number, text);
    result += '\n';
  });
  return result;
}

// The text without this line; a section's head is replaced.
std::string without(const std::string& content, uint32_t line) {
  return changed(content, [line](uint32_t number, std::string_view text) {
    if (number != line) return std::string(text);
    const bool head = text::trimStart(text).starts_with('[');
    return head ? "[\"" + std::string(kUnreadable) + std::to_string(line) + "\"]" : "";
  });
}

std::string before(const std::string& content, uint32_t line) {
  return changed(content, [line](uint32_t number, std::string_view text) {
    return std::string(number < line ? text : "");
  });
}

}  // namespace

toml::table parseToml(std::string_view content, Findings& findings,
                      const std::shared_ptr<const std::string>& file) {
  if (!checkLines(content, file, findings)) return {};
  std::string text(content);
  for (int run = 0; run < kMostRuns; ++run) {
    try {
      return file ? toml::parse(text, *file) : toml::parse(text);
    } catch (const toml::parse_error& error) {
      const toml::source_position at = error.source().begin;
      findings.leftLinesOut();
      findings.error({at.line, at.column, {}, file}, std::string(error.description()));
      const uint32_t begin = beginOfValue(text, at.line);
      if (begin < at.line)
        findings.error({at.line, at.column, {}, file}, "what follows was not read");
      text = begin < at.line ? before(text, begin) : without(text, at.line);
    }
  }
  return {};  // more errors than anybody wants to read at once
}

bool stoodForUnreadable(std::string_view section) { return section.starts_with(kUnreadable); }

}  // namespace qn
