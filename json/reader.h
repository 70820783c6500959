// Reads JSON texts: the one place where bytes from devices and clients become values. Used by the
// reply pipeline, the pass-through and the alarms.
#pragma once

#include <json/json.h>

#include <memory>
#include <optional>
#include <string_view>

#include "json/value.h"

namespace qn::json {

// One text, read with one parser for each thread; `text` need not stay. What simdjson refuses, and
// what the two libraries could see differently, jsoncpp judges, so that the result is
// jsoncpp's (json/text.h says what that is), except that simdjson may read texts of more values. A
// reading within a reading gets a parser of its own. Large texts leave no memory behind. To be used
// and destroyed on the thread that made it. Throws nothing but std::bad_alloc.
class Reading {
 public:
  explicit Reading(std::string_view text);
  ~Reading();
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  bool isJson() const { return isJson_; }
  Value root() const { return root_; }  // null when it is no JSON

 private:
  class Parser;

  static std::unique_ptr<Parser>& spare();
  bool readFast(std::string_view text);

  std::unique_ptr<Parser> parser_;
  std::optional<Json::Value> judged_;
  Value root_;
  bool isJson_ = false;
};

}  // namespace qn::json
