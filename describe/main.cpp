// qn-describe [--check] FOLDER: writes the reference, or tells whether the folder holds what it
// would write. Run by hand after a change of a table, and with --check by the tests.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>

#include "describe/resources.h"
#include "module/device_cfg_pto.h"
#include "tests/unit/documents.h"
#include "text/ascii.h"

namespace qn::describe {
namespace {

using QNKAVROProtocol::Route;

constexpr std::string_view kMethods[] = {"GET", "PUT", "POST", "DELETE"};

// "/channels/%d" becomes "/channels/{channel}".
std::string urlOf(std::string_view pattern) {
  std::string url(pattern);
  for (auto at = url.find("%d"); at != std::string::npos; at = url.find("%d")) {
    const std::size_t begin = url.rfind('/', at - 2) + 1;
    const std::string one = url.substr(begin, at - 2 - begin);  // "channel" of "channels/%d"
    url.replace(at, 2, "{" + one + "}");
  }
  return url;
}

std::vector<Method> methodsOf(const Route& route) {
  std::vector<Method> methods;
  for (unsigned int code = 0; code < std::size(kMethods); ++code) {
    if (!route.methods.has(code)) continue;
    const bool sends = code == QNHttpService::HTTP_PUT || code == QNHttpService::HTTP_POST;
    const bool gets = code == QNHttpService::HTTP_GET || code == QNHttpService::HTTP_POST;
    methods.push_back({code, kMethods[code], sends ? route.body : nullptr,
                       gets ? route.answer : nullptr, route.reply});
  }
  return methods;
}

bool matches(std::string_view pattern, std::string_view url) {
  const std::size_t number = pattern.find('{');
  if (number == std::string_view::npos) return pattern == url;
  if (pattern.substr(0, number) != url.substr(0, number)) return false;
  const auto rest = url.find_first_not_of("0123456789", number);
  const auto left = rest == std::string_view::npos ? std::string_view() : url.substr(rest);
  return matches(pattern.substr(pattern.find('}') + 1), left);
}

// What the converter makes of no reply at all.
std::string fixedAnswer(const Resource& resource, const Method& method) {
  std::string text;
  const QNHttpService::CHttpExchange exchange(-1);
  const int code = static_cast<int>(method.code);
  const int result = method.reply(text, {{}, resource.urls[0], code, exchange});
  return result == 0 && !text.empty() ? text + "\n" : std::string();
}

std::map<std::string, std::string> files() {
  const auto all = resources();
  std::map<std::string, std::string> files{{"README.md", index(all)},
                                           {"alert_stream.md", alarmPage()},
                                           {"openapi.json", openApi(all)},
                                           {"kavro.xsd", xsd(all)}};
  for (const Resource& resource : all) files[pageName(resource) + ".md"] = page(resource);
  return files;
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

int check(const std::filesystem::path& folder) {
  const auto expected = files();
  int wrong = 0;
  for (const auto& [name, text] : expected) {
    if (contentOf(folder / name) == text) continue;
    std::cerr << (folder / name).string() << " is not what the tables say\n";
    ++wrong;
  }
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (expected.contains(entry.path().filename().string())) continue;
    std::cerr << entry.path().string() << " belongs to no resource\n";
    ++wrong;
  }
  if (wrong != 0) std::cerr << "Build the target \"reference\" to write them anew.\n";
  return wrong == 0 ? 0 : 1;
}

int write(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  for (const auto& [name, text] : files()) {
    std::ofstream file(folder / name);
    if (!(file << text).flush()) {
      std::cerr << (folder / name).string() << " cannot be written\n";
      return 1;
    }
  }
  return 0;
}

}  // namespace

std::vector<Resource> resources() {
  std::vector<Resource> all;
  for (const Route& route : QNKAVROProtocol::translatedRoutes()) {
    auto known = std::ranges::find(all, route.title, &Resource::title);
    if (known == all.end()) known = all.insert(all.end(), {route.title, {}, methodsOf(route)});
    known->urls.push_back(urlOf(route.pattern));
  }
  return all;
}

std::string pageName(const Resource& resource) {
  std::string name;
  for (const char c : resource.title) name += c == ' ' ? '_' : text::lower(c);
  return name;
}

std::string exampleOf(const Resource& resource, const Method& method, bool answer) {
  const auto is = [&](const GoldenPair& pair) {
    return pair.method == method.code && matches(resource.urls[0], pair.url);
  };
  const auto found = [&](const auto& pairs) {
    const auto* pair = std::ranges::find_if(pairs, is);
    return pair == std::end(pairs) ? std::string() : golden(pair->xml);
  };
  if (!answer) return found(kGoldenRequests);
  std::string text = found(kGoldenReplies);
  return text.empty() && method.answer == nullptr ? fixedAnswer(resource, method) : text;
}

}  // namespace qn::describe

int main(int count, char** words) {
  const bool checks = count == 3 && std::string_view(words[1]) == "--check";
  if (!checks && count != 2) {
    std::cerr << "usage: qn-describe [--check] FOLDER\n";
    return 2;
  }
  return checks ? qn::describe::check(words[2]) : qn::describe::write(words[1]);
}
