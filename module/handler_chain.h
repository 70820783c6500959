// An ordered list of handlers that are asked in turn.
#pragma once

#include "protocol/protocol_base.h"

namespace QNKAVROProtocol {

template <typename... Handlers>
class HandlerChain {
 public:
  // The first answer other than kDeclined, else kDeclined. Each handler is made just before it is
  // asked and destroyed before the next one.
  template <typename Question>
  static int ask(Question question) {
    int answer = kDeclined;
    static_cast<void>((((answer = askOne<Handlers>(question)) != kDeclined) || ...));
    return answer;
  }

 private:
  template <typename Handler, typename Question>
  static int askOne(Question& question) {
    Handler handler;
    return question(handler);
  }
};

}  // namespace QNKAVROProtocol
