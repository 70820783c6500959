// One client's open alert stream: a multipart answer that never ends. Owned by the alarm feed.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "subdevice/link.h"

namespace subdevice {

// How parts are put on the wire; the control resource chooses, so that a reader meets every form.
struct StreamFraming {
  bool lengths = true;    // a Content-Length in the head of each part
  bool chunked = false;   // the answer as HTTP chunks
  std::size_t split = 0;  // bytes of each write; 0: whatever is there
};

class AlertStream : public std::enable_shared_from_this<AlertStream> {
 public:
  static constexpr std::size_t kQueueBytes = 4 * 1024 * 1024;
  static constexpr std::string_view kJsonPart = "application/json; charset=\"UTF-8\"";

  // `onEnd` is called once, when the client has gone or a write failed.
  AlertStream(ClientStream stream, StreamFraming framing, std::function<void(AlertStream*)> onEnd);

  void start();
  void setLink(std::size_t bytesPerSecond) { limitSending(stream_, bytesPerSecond); }
  // False when the client is too slow: its queue is full and the part is not sent.
  bool push(std::string_view document, std::string_view contentType = kJsonPart);
  // The client's end of the stream comes behind what waits to be sent.
  void closeWhenSent();
  // Nothing more is sent and `onEnd` is not called.
  void close();

 private:
  void queue(std::string_view bytes);
  void write();
  void watchPeer();
  void end();

  ClientStream stream_;
  const StreamFraming framing_;
  std::function<void(AlertStream*)> onEnd_;
  std::string pending_;
  std::string writing_;  // empty: no write in flight
  bool ending_ = false;
  char ignored_ = 0;
};

}  // namespace subdevice
