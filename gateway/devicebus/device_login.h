// The gateway's login at one device: which requests carry credentials, which wait until another
// has found out whether they are right. One for each device.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "gateway/auth/client_login.h"

namespace qn::devicebus {

// Any thread. Devices lock an account after a few wrong passwords, so credentials that have not
// been accepted yet are tried by one request at a time while the others wait, and refused ones are
// not tried again for kRefusalTime.
class DeviceLogin {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kRefusalTime{60};
  static constexpr int kTries = 3;  // sendings of one request that may end in a 401

  DeviceLogin(std::string device, const std::string& username, const std::string& password);

  // One request's part in the login. Ends a trial that got no answer when it is destroyed.
  class Ticket {
   public:
    Ticket() = default;
    ~Ticket();
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

   private:
    friend class DeviceLogin;
    DeviceLogin* trialOf_ = nullptr;  // this request tries the credentials; outlives the ticket
    uint64_t challenge_ = 0;          // number of the challenge that was answered; 0: none
    int refusals_ = 0;
  };

  enum class Verdict {
    kSend,    // with the Authorization value in `authorization`, none when it is empty
    kWait,    // another request is trying the credentials: ask again later
    kRefused  // the device has refused them
  };
  Verdict prepare(Ticket& ticket, std::string_view method, std::string_view target,
                  std::string& authorization);

  // The device answered 401. True when the request is to be prepared and sent again.
  bool refused(Ticket& ticket, std::string_view wwwAuthenticate);
  // The device answered something else.
  void accepted(Ticket& ticket);

 private:
  enum class State {
    kUnproven,  // no credentials accepted yet; requests go as they are until a 401 comes
    kTrying,    // one request has the trial
    kProven,    // the credentials were accepted
    kRefused    // until refusedUntil_
  };

  bool retryWithNewChallenge(Ticket& ticket, std::string_view wwwAuthenticate);
  void refuse(Ticket& ticket);
  void abandon(Ticket& ticket);

  const bool enabled_;        // the configuration has credentials
  const std::string device_;  // for the log
  std::mutex mutex_;
  // Guarded by mutex_:
  State state_ = State::kUnproven;
  ClientLogin login_;
  uint64_t challenge_ = 0;  // counts the challenges taken
  Clock::time_point refusedUntil_;
};

}  // namespace qn::devicebus
