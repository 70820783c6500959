// Alarm documents as text: where one ends in a stream, and whose it is.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qn {

// Finds the end of a JSON object whose text comes in pieces, whatever stands behind it.
class JsonEnd {
 public:
  JsonEnd();
  ~JsonEnd();
  JsonEnd(JsonEnd&&) noexcept;
  JsonEnd& operator=(JsonEnd&&) noexcept;

  enum class Found { Nothing, End, NoJson };

  // Takes the next piece. End: behind `size()` bytes of all pieces. Nothing is to be fed after
  // another result than Nothing.
  Found feed(std::string_view piece);
  std::size_t size() const { return size_; }

 private:
  class Parser;

  std::unique_ptr<Parser> parser_;  // made with the first piece
  std::size_t size_ = 0;
};

// Gives every object that is a member of the root the member "devIndex" with this value (JSON text,
// quotes included), as its last one, so that it wins over the device's own. Drops what follows the
// root. False when the text is no JSON object.
bool setDeviceIndex(std::string_view alarm, std::string_view quotedIndex, std::string& out);

}  // namespace qn
