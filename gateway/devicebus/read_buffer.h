// The bytes that a connection has read and its parser has not consumed. Used by Connection.
#pragma once

#include <boost/asio/buffer.hpp>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace qn::devicebus {

// Grows from kUsual to kLargest; what is consumed is moved out of the way only when space is asked
// for, so views into it hold until then.
class ReadBuffer {
 public:
  static constexpr std::size_t kUsual = 8 * 1024;
  static constexpr std::size_t kLargest = 64 * 1024;

  std::string_view unread() const { return {data_.get() + begin_, end_ - begin_}; }
  bool empty() const { return begin_ == end_; }
  void consume(std::size_t count) { begin_ += count; }
  void commit(std::size_t count) { end_ += count; }

  // Space to read into; empty when kLargest bytes are unread. `wide`: much is expected.
  boost::asio::mutable_buffer space(bool wide) {
    moveUnreadTo(data_.get());
    if (wide) {
      growTo(kLargest);
    } else if (end_ == capacity_) {
      growTo(capacity_ == 0 ? kUsual : 2 * capacity_);
    }
    return {data_.get() + end_, capacity_ - end_};
  }

  // Forgets everything and gives back what exceeds kUsual.
  void clear() {
    begin_ = end_ = 0;
    if (capacity_ <= kUsual) return;
    data_.reset();
    capacity_ = 0;
  }

 private:
  void moveUnreadTo(char* target) {
    const std::string_view rest = unread();
    if (!rest.empty()) std::memmove(target, rest.data(), rest.size());
    begin_ = 0;
    end_ = rest.size();
  }

  void growTo(std::size_t capacity) {
    if (capacity <= capacity_ || capacity > kLargest) return;
    auto larger = std::make_unique_for_overwrite<char[]>(capacity);
    moveUnreadTo(larger.get());
    data_ = std::move(larger);
    capacity_ = capacity;
  }

  std::unique_ptr<char[]> data_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace qn::devicebus
