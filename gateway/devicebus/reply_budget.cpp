#include "gateway/devicebus/reply_budget.h"

#include <exception>
#include <utility>

#include "gateway/config/configuration.h"
#include "gateway/log/log.h"

namespace qn::devicebus {

bool ReplyBudget::Share::hold(const Device& device, std::size_t replyBytes,
                              std::function<void()> ready) {
  if (replyBytes < kLongReply || replyBytes * kFactor <= held_) return true;
  const MutexLock lock(budget_.mutex_);
  device_ = &device;
  if (budget_.take(*this, replyBytes * kFactor)) return true;
  if (ready) budget_.waiting_.push_back({this, replyBytes * kFactor, std::move(ready)});
  return false;
}

void ReplyBudget::Share::giveBack() {
  if (device_ == nullptr) return;
  std::list<Waiting> served;
  {
    const MutexLock lock(budget_.mutex_);
    budget_.release(*this);
    served = budget_.nextServed();
  }
  try {
    for (const Waiting& each : served) each.ready();
  } catch (const std::exception& exception) {  // their time-outs end them
    logError("device bus: {}", exception.what());
  }
}

bool ReplyBudget::take(Share& share, std::size_t wanted) {
  const std::size_t bound = configuration()->bus.replyMemory;
  const auto fits = [&](std::size_t held, std::size_t most) {
    return held == share.held_ || held - share.held_ + wanted <= most;
  };
  std::size_t& ofDevice = ofDevices_[share.device_];
  if (!fits(held_, bound) || !fits(ofDevice, bound / 2)) return false;
  held_ += wanted - share.held_;
  ofDevice += wanted - share.held_;
  share.held_ = wanted;
  return true;
}

void ReplyBudget::release(Share& share) {
  waiting_.remove_if([&](const Waiting& each) { return each.share == &share; });
  held_ -= share.held_;
  const auto ofDevice = ofDevices_.find(share.device_);
  const std::size_t held = std::exchange(share.held_, 0);
  if (ofDevice != ofDevices_.end() && (ofDevice->second -= held) == 0) ofDevices_.erase(ofDevice);
  share.device_ = nullptr;
}

std::list<ReplyBudget::Waiting> ReplyBudget::nextServed() {
  std::list<Waiting> served;
  for (auto next = waiting_.begin(); next != waiting_.end();) {
    const auto each = next++;
    if (take(*each->share, each->wanted)) served.splice(served.end(), waiting_, each);
  }
  return served;
}

}  // namespace qn::devicebus
