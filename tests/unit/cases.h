// Cases of one test in a text file under golden/: "given => expected" in each line, below a head
// "== text" that they share. A line that begins with a blank goes on with the one before it, one
// that begins with '#' is a remark.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/unit/conversation.h"
#include "tests/unit/documents.h"
#include "text/ascii.h"

struct Case {
  std::string head;
  std::string given;
  std::string expected;
};

// What stands before and behind the mark, without the blanks around it; nothing behind none.
inline std::pair<std::string, std::string> partedAt(std::string_view text, std::string_view mark) {
  const std::size_t at = std::min(text.find(mark), text.size());
  const std::string_view rest = text.substr(std::min(at + mark.size(), text.size()));
  return {std::string(qn::text::trim(text.substr(0, at))), std::string(qn::text::trim(rest))};
}

inline std::vector<Case> casesOf(const std::string& file) {
  std::vector<Case> cases;
  std::string head;
  std::istringstream lines(golden(file));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line.starts_with("== ")) {
      head = line.substr(3);
    } else if (line[0] != ' ' || cases.empty()) {
      cases.push_back({head, line, ""});
    } else {
      cases.back().given += qn::text::trimStart(line);
    }
  }
  for (auto& [ignored, given, expected] : cases) {
    EXPECT_NE(given.find("=>"), given.npos) << file << ": " << given;
    std::tie(given, expected) = partedAt(given, "=>");
  }
  EXPECT_FALSE(cases.empty()) << file;
  return cases;
}

// "METHOD URL", or "METHOD URL BODY"; a number is a method without a name.
inline fake::Request requestOf(const std::string& text) {
  static constexpr std::string_view kNames[] = {"GET", "PUT", "POST", "DELETE"};
  fake::Request request;
  std::string method;
  std::istringstream(text) >> method >> request.url >> request.body;
  const auto* name = std::ranges::find(kNames, method);
  request.method = name == std::end(kNames) ? std::stoi(method) : name - kNames;
  return request;
}
