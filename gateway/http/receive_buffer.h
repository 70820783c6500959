// What a connection has received and not yet used: one block that starts small, grows to a limit
// and is given back when it is empty. A connection receives into it and reads views of it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace qn {

class ReceiveBuffer {
 public:
  static constexpr std::size_t kFirst = 4096;  // all that an idle connection keeps

  std::string_view unread() const { return {data_.get() + begin_, end_ - begin_}; }
  bool empty() const { return begin_ == end_; }
  // The bytes stay in place until the next prepare().
  void consume(std::size_t count) { begin_ += count; }

  // The room to receive into, empty when the buffer is full at `limit`. An empty buffer takes the
  // size `first`. Ends every view; never call it while a read into earlier room is under way.
  std::span<char> prepare(std::size_t first, std::size_t limit) {
    if (empty()) {
      begin_ = end_ = 0;
      if (capacity_ != first) resize(first);
    } else if (end_ == capacity_) {
      if (begin_ > 0) {
        resize(capacity_);
      } else if (capacity_ < limit) {
        resize(std::min(limit, capacity_ * 2));
      }
    }
    return {data_.get() + end_, capacity_ - end_};
  }
  void commit(std::size_t count) { end_ += count; }

  void release() { *this = ReceiveBuffer(); }

 private:
  void resize(std::size_t capacity) {
    const std::string_view kept = unread();
    if (capacity == capacity_) {
      std::memmove(data_.get(), kept.data(), kept.size());
    } else {
      auto grown = std::make_unique_for_overwrite<char[]>(capacity);
      if (!kept.empty()) std::memcpy(grown.get(), kept.data(), kept.size());
      data_ = std::move(grown);
      capacity_ = capacity;
    }
    begin_ = 0;
    end_ = kept.size();
  }

  std::unique_ptr<char[]> data_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace qn
