// Whether the gateway lives, takes requests and has started, each with the reasons why not. Asked
// by the admin listener; the host tells it how far it has come.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "gateway/net/pulse.h"

namespace qn {

// Any thread; takes no lock.
class Health {
 public:
  explicit Health(const Pulse& pulse) : pulse_(pulse) {}

  void setStarted() { started_ = true; }
  bool hasStarted() const { return started_; }
  void setStopping() { stopping_ = true; }

  // Each is empty when all is well. Devices that do not answer are no reason for anything.
  using Reasons = std::vector<std::string>;
  Reasons againstLife() const;
  Reasons againstReadiness() const;
  Reasons againstStart() const;

 private:
  const Pulse& pulse_;
  std::atomic<bool> started_{false};
  std::atomic<bool> stopping_{false};
};

}  // namespace qn
