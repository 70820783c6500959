// Which members and elements a document needs, and what a wrong kind does: every one of the golden
// documents' members in turn is taken away and changed.
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

// Of no kind that a table asks for where `original` stands.
Json::Value otherKind(const Json::Value& document, const std::string& path) {
  std::string name;
  Json::Value copy = document;
  const Json::Value& original = holderOf(copy, path, name)[name];
  return original.isString() ? Json::Value(7) : Json::Value("7");
}

class Rules : public PlatformTest {};

// Of each head the rules by name, and the members that follow them.
using DocumentRules = std::map<std::string, std::set<std::string>>;
std::map<std::string, DocumentRules> rulesOf(const std::string& file) {
  std::map<std::string, DocumentRules> rules;
  for (const auto& [head, rule, members] : casesOf(file)) {
    std::istringstream words(members);
    rules[head][rule].insert(std::istream_iterator<std::string>(words), {});
  }
  return rules;
}

TEST_F(Rules, EveryMemberAbsentNullAndOfAnotherKind) {
  for (auto& [head, rules] : rulesOf("reply_rules.txt")) {
    fake::Request request = requestOf(head);
    const Json::Value document = parsed(golden(request.body));
    request.body = "<CMSearchDescription/>";
    const std::string whole = answerTo(request, qn::json::writeJson(document)).value_or("");
    const auto is = [&rules = rules](const char* rule, const std::string& path) {
      return rules.contains(rule) && rules.at(rule).contains(path);
    };
    const std::vector<std::string> paths = pathsOf(document);
    ASSERT_GT(paths.size(), 4u);
    for (const std::string& path : paths) {
      const auto absent = answerTo(request, without(document, path));
      const auto null = answerTo(request, with(document, path, Json::Value()));
      const auto wrong = answerTo(request, with(document, path, otherKind(document, path)));
      const bool needed = is("required", path) || is("list", path);
      const bool rejectsOthers = is("required", path) || rules.contains("strict");
      const bool read = !is("ignored", path);
      EXPECT_EQ(absent.has_value(), !needed) << path;
      EXPECT_EQ(null.has_value(), !read || is("null", path) || is("list", path) || !rejectsOthers)
          << path;
      EXPECT_EQ(wrong.has_value(), !read || is("list", path) || !rejectsOthers) << path;
      EXPECT_EQ(absent == whole, !read) << path;
      EXPECT_EQ(wrong == whole, !read) << path;
    }
  }
}

// Each line of a golden request that holds a whole element: the element's path and the body
// without it.
struct Shortened {
  std::string path;
  std::string body;
};
std::vector<Shortened> withoutEachElement(const std::string& body) {
  std::vector<Shortened> result;
  std::vector<std::string> open;
  std::size_t begin = 0;
  for (std::size_t end = body.find('\n'); end != std::string::npos; end = body.find('\n', begin)) {
    const std::string line = body.substr(begin, end - begin);
    const std::size_t lineBegin = std::exchange(begin, end + 1);
    const std::size_t indentation = line.find('<');
    const std::string name = line.substr(indentation + 1, line.find('>') - indentation - 1);
    if (name[0] == '?' || name[0] == '/') continue;
    open.resize(indentation / 2);
    std::string path;
    for (const std::string& parent : open) path += parent + ".";
    open.push_back(name);
    if (line.find("</") == std::string::npos) continue;
    std::string shortened = body;
    shortened.erase(lineBegin, line.size());
    result.push_back({path + name, shortened});
  }
  return result;
}

TEST_F(Rules, EveryElementOfARequestAbsent) {
  for (auto& [head, rules] : rulesOf("request_rules.txt")) {
    fake::Request request = requestOf(head);
    const std::string document = golden(request.body);
    request.body = document;
    const auto whole = requestFor(request);
    ASSERT_TRUE(whole);
    for (const auto& [path, shortened] : withoutEachElement(document)) {
      request.body = shortened;
      const auto sent = requestFor(request);
      EXPECT_EQ(sent.has_value(), !rules["required"].contains(path)) << path;
      EXPECT_EQ(sent == whole, rules["ignored"].contains(path)) << path;
    }
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
