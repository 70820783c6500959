#include "json/reader.h"

#include <bit>
#include <cstddef>
#include <string>

#include "json/padded.h"
#include "json/text.h"

namespace qn::json {

namespace {

// simdjson chooses its code for this processor at the first use, where it cannot bear a failing
// allocation.
[[maybe_unused]] const std::string kChosen = simdjson::get_active_implementation()->name();

}  // namespace

class Reading::Parser : public StrictParser {};

std::unique_ptr<Reading::Parser>& Reading::spare() {
  thread_local std::unique_ptr<Parser> parser;
  return parser;
}

Reading::Reading(std::string_view text) {
  if (!mayBeJson(text)) return;
  isJson_ = readFast(text);
  if (isJson_ || !parseJson(text, judged_.emplace())) return;
  isJson_ = true;
  root_ = Value(*judged_);
}

Reading::~Reading() {
  if (parser_ && parser_->isSmall()) spare() = std::move(parser_);
}

bool Reading::readFast(std::string_view text) {
  parser_ = std::move(spare());
  if (!parser_) parser_ = std::make_unique<Parser>();
  simdjson::dom::element root;
  if (!parser_->read(text, root)) return false;
  root_ = Value(std::bit_cast<Value::Element>(root));
  return true;
}

}  // namespace qn::json
