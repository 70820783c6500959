// The way of a document through the module, and documents with a member changed.
#pragma once

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "json/text.h"
#include "tests/unit/conversation.h"
#include "tests/unit/documents.h"

// One line: without the line breaks and indentation that make the files readable.
inline std::string flat(const std::string& text) {
  std::string line;
  bool indentation = true;
  for (const char c : text) {
    if (c == '\n' || c == '\r') indentation = true;
    if (c != ' ' && c != '\n' && c != '\r') indentation = false;
    if (!indentation) line += c;
  }
  return line;
}

inline Json::Value parsed(std::string_view text) {
  Json::Value value;
  EXPECT_TRUE(qn::json::parseJson(text, value)) << text;
  return value;
}

// Paths of all members, as "List.0.Entry.id"; of a list only its first entry's.
inline std::vector<std::string> pathsOf(const Json::Value& value, const std::string& prefix = "") {
  if (value.isArray() && !value.empty()) return pathsOf(value[0], prefix + "0.");
  std::vector<std::string> paths;
  for (const auto& name : value.isObject() ? value.getMemberNames() : Json::Value::Members()) {
    paths.push_back(prefix + name);
    for (auto& inner : pathsOf(value[name], paths.back() + ".")) paths.push_back(std::move(inner));
  }
  return paths;
}

// The object that holds the path's last member, whose name goes to `name`.
inline Json::Value& holderOf(Json::Value& document, const std::string& path, std::string& name) {
  Json::Value* holder = &document;
  std::istringstream steps(path);
  std::getline(steps, name, '.');
  for (std::string next; std::getline(steps, next, '.'); name = next) {
    holder = holder->isArray() ? &(*holder)[0] : &(*holder)[name];
  }
  return *holder;
}

// The document's text without the member at a path like "List.0.Entry.id", or with another value.
inline std::string without(Json::Value document, const std::string& path) {
  std::string name;
  holderOf(document, path, name).removeMember(name);
  return qn::json::writeJson(document);
}

inline std::string with(Json::Value document, const std::string& path, const Json::Value& value) {
  std::string name;
  holderOf(document, path, name)[name] = value;
  return qn::json::writeJson(document);
}

// What the client gets for a device's reply; nothing when it cannot be translated.
inline std::optional<std::string> answerTo(const fake::Request& request, std::string_view reply) {
  const Outcome outcome = process(request);
  EXPECT_EQ(fake::deviceBus().reply(reply), 0) << request.url;
  const fake::Answer answer = outcome.answer();
  EXPECT_EQ(answer.count, 1) << request.url;
  if (answer.status == 500) return std::nullopt;
  EXPECT_EQ(answer.status, 200) << request.url;
  EXPECT_EQ(answer.headers.at("Content-Type"), "application/xml") << request.url;
  return answer.body;
}

// The JSON text that the device gets for a client's body; nothing when it is refused.
inline std::optional<std::string> requestFor(const fake::Request& request) {
  const std::size_t before = fake::deviceBus().seen.size();
  const Outcome outcome = process(request);
  if (fake::deviceBus().seen.size() == before) {
    EXPECT_EQ(outcome.status, 400) << request.url;
    return std::nullopt;
  }
  return fake::deviceBus().seen.back().body;
}

inline constexpr const char* kDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";

// Results of inside() for an answer that is none, and for an element that is not there.
inline constexpr const char* kFails = "(fails)";
inline constexpr const char* kNone = "(no such element)";

// The part of the answer between the tags of its first `element`, kFails for none.
inline std::string inside(const char* element, const std::optional<std::string>& answer) {
  if (!answer) return kFails;
  const std::string open = "<" + std::string(element) + ">";
  const std::size_t begin = answer->find(open);
  const std::size_t end = answer->find("</" + std::string(element) + ">");
  if (begin == std::string::npos || end == std::string::npos) return kNone;
  return answer->substr(begin + open.size(), end - begin - open.size());
}

// The texts of all its `element`s, each followed by a blank.
inline std::string allInside(const std::string& element, const std::string& answer) {
  const std::string open = "<" + element + ">";
  std::string found;
  for (auto at = answer.find(open); at != answer.npos; at = answer.find(open, at + 1)) {
    const std::size_t begin = at + open.size();
    found += answer.substr(begin, answer.find('<', begin) - begin) + " ";
  }
  return found;
}
