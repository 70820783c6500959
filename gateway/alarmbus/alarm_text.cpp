#include "gateway/alarmbus/alarm_text.h"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/src.hpp>  // compiled here and nowhere else

#include "json/extents.h"

namespace qn {
namespace {

// Takes every value and keeps none.
struct Ignored {
  using Text = boost::json::string_view;
  using Error = boost::json::error_code;
  static constexpr std::size_t max_array_size = std::size_t(-1);
  static constexpr std::size_t max_object_size = std::size_t(-1);
  static constexpr std::size_t max_string_size = std::size_t(-1);
  static constexpr std::size_t max_key_size = std::size_t(-1);

  bool on_document_begin(Error&) { return true; }
  bool on_document_end(Error&) { return true; }
  bool on_object_begin(Error&) { return true; }
  bool on_object_end(std::size_t, Error&) { return true; }
  bool on_array_begin(Error&) { return true; }
  bool on_array_end(std::size_t, Error&) { return true; }
  bool on_key_part(Text, std::size_t, Error&) { return true; }
  bool on_key(Text, std::size_t, Error&) { return true; }
  bool on_string_part(Text, std::size_t, Error&) { return true; }
  bool on_string(Text, std::size_t, Error&) { return true; }
  bool on_number_part(Text, Error&) { return true; }
  bool on_int64(std::int64_t, Text, Error&) { return true; }
  bool on_uint64(std::uint64_t, Text, Error&) { return true; }
  bool on_double(double, Text, Error&) { return true; }
  bool on_bool(bool, Error&) { return true; }
  bool on_null(Error&) { return true; }
  bool on_comment_part(Text, Error&) { return true; }
  bool on_comment(Text, Error&) { return true; }
};

boost::json::parse_options options() {
  boost::json::parse_options options;
  options.max_depth = 1000;  // what jsoncpp takes
  options.allow_invalid_utf8 = true;
  return options;
}

}  // namespace

class JsonEnd::Parser : public boost::json::basic_parser<Ignored> {
 public:
  Parser() : basic_parser(options()) {}
};

JsonEnd::JsonEnd() = default;
JsonEnd::~JsonEnd() = default;
JsonEnd::JsonEnd(JsonEnd&&) noexcept = default;
JsonEnd& JsonEnd::operator=(JsonEnd&&) noexcept = default;

JsonEnd::Found JsonEnd::feed(std::string_view piece) {
  if (!parser_) parser_ = std::make_unique<Parser>();
  boost::json::error_code error;
  size_ += parser_->write_some(true, piece.data(), piece.size(), error);
  if (error) return Found::NoJson;
  return parser_->done() ? Found::End : Found::Nothing;
}

bool setDeviceIndex(std::string_view alarm, std::string_view quotedIndex, std::string& out) {
  const auto extent = json::objectExtent(alarm);
  if (!extent) return false;
  out.clear();
  out.reserve(extent->end - extent->begin + extent->members.size() * (quotedIndex.size() + 12));
  std::size_t copied = extent->begin;
  for (const json::ObjectExtent& member : extent->members) {
    const std::size_t brace = member.end - 1;
    out.append(alarm, copied, brace - copied);
    out.append(member.isEmpty ? "\"devIndex\":" : ",\"devIndex\":").append(quotedIndex);
    copied = brace;
  }
  out.append(alarm, copied, extent->end - copied);
  return true;
}

}  // namespace qn
