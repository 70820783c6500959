// See device_login.h.
#include "gateway/devicebus/device_login.h"

#include <utility>

#include "platform/wlog.h"

namespace qn::devicebus {

DeviceLogin::Ticket::~Ticket() {
  if (trialOf_) trialOf_->abandon(*this);
}

DeviceLogin::DeviceLogin(std::string device, const std::string& username,
                         const std::string& password)
    : enabled_(!username.empty()), device_(std::move(device)), login_(username, password) {}

DeviceLogin::Verdict DeviceLogin::prepare(Ticket& ticket, std::string_view method,
                                          std::string_view target, std::string& authorization) {
  authorization.clear();
  if (!enabled_) return Verdict::kSend;
  std::lock_guard lock(mutex_);
  if (state_ == State::kRefused) {
    if (Clock::now() < refusedUntil_) return Verdict::kRefused;
    state_ = State::kUnproven;
  }
  if (state_ == State::kTrying && !ticket.trialOf_) return Verdict::kWait;
  if (state_ == State::kUnproven) {
    ticket.challenge_ = 0;
    return Verdict::kSend;
  }
  ticket.challenge_ = challenge_;
  authorization = login_.authorization(method, target);
  return Verdict::kSend;
}

bool DeviceLogin::refused(Ticket& ticket, std::string_view wwwAuthenticate) {
  if (!enabled_) return false;
  std::lock_guard lock(mutex_);
  if (++ticket.refusals_ >= kTries) {
    if (ticket.trialOf_) refuse(ticket);
    return false;
  }
  if (state_ == State::kRefused) return false;
  // Others have taken a newer challenge meanwhile, or are trying one.
  const bool outrun = ticket.challenge_ != challenge_ && state_ == State::kProven;
  if (outrun || (state_ == State::kTrying && !ticket.trialOf_)) return true;
  return retryWithNewChallenge(ticket, wwwAuthenticate);
}

bool DeviceLogin::retryWithNewChallenge(Ticket& ticket, std::string_view wwwAuthenticate) {
  const bool understood = login_.takeChallenge(wwwAuthenticate);
  if (understood) ++challenge_;
  const bool stale = understood && login_.stale();
  if (ticket.trialOf_ && !stale) {
    refuse(ticket);
    return false;
  }
  if (!understood) return false;
  // Credentials that were right once and met an old nonce need no trial.
  if (!ticket.trialOf_ && !(stale && state_ == State::kProven)) {
    state_ = State::kTrying;
    ticket.trialOf_ = this;
  }
  return true;
}

void DeviceLogin::accepted(Ticket& ticket) {
  if (!ticket.trialOf_) return;
  std::lock_guard lock(mutex_);
  ticket.trialOf_ = nullptr;
  state_ = State::kProven;
}

void DeviceLogin::refuse(Ticket& ticket) {
  ticket.trialOf_ = nullptr;
  state_ = State::kRefused;
  refusedUntil_ = Clock::now() + kRefusalTime;
  wlog_format(WLOG_ERROR, "QNW", "device %s refused the credentials it is configured with",
              device_.c_str());
}

void DeviceLogin::abandon(Ticket& ticket) {
  std::lock_guard lock(mutex_);
  ticket.trialOf_ = nullptr;
  state_ = State::kUnproven;
}

}  // namespace qn::devicebus
