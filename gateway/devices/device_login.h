// The gateway's login at one device, shared by everything that talks to it: how a challenge is
// answered, which requests carry credentials, which wait until another has found out whether they
// are right.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/auth/digest.h"
#include "gateway/config/configuration.h"
#include "gateway/sync/mutex.h"

namespace qn {

// The client's side of HTTP authentication: answers a server's Digest or Basic challenge. Not
// thread-safe; a copy is a login of its own, so two copies must not answer the same challenge.
class ClientLogin {
 public:
  ClientLogin(std::string username, std::string password, DeviceAuth allowed = DeviceAuth::Any);

  // Takes the WWW-Authenticate value of a 401 (several header lines joined by ", "). The strongest
  // scheme that is understood and allowed is used from now on: Digest with SHA-256, Digest with
  // MD5, Basic, which is not allowed any more after Digest. False when there is none; the former
  // challenge then stays.
  bool takeChallenge(std::string_view wwwAuthenticate);

  // The last challenge said that only the nonce was too old: try again with the same password. A
  // challenge in answer to credentials that is not stale means that they are wrong.
  bool stale() const { return challenge_.stale; }

  // The Authorization value for the next request, counted as one use of the nonce; empty before
  // the first challenge. `target` is the request target as sent.
  std::string authorization(std::string_view method, std::string_view target);

 private:
  enum class Scheme { None, Basic, Digest };
  struct Challenge {
    Scheme scheme = Scheme::None;
    DigestAlgorithm algorithm = DigestAlgorithm::MD5;
    bool qopAuth = false;
    bool usable = true;  // nothing in it that is not understood
    bool stale = false;
    std::string realm;
    std::string nonce;
    std::string opaque;
    bool hasOpaque = false;

    int strength() const;
    void take(std::string_view name, std::string_view value);
  };

  std::string digest(std::string_view method, std::string_view target);
  bool isAllowed(Scheme scheme) const;
  void use(Challenge challenge);

  std::string username_;
  std::string password_;
  DeviceAuth allowed_;
  Challenge challenge_;
  std::string ha1_;  // of the challenge's realm
  std::string clientNonce_;
  uint32_t nonceCount_ = 0;
};

// How long refused credentials are not sent again, twice as long after each refusal up to the
// longest; others only in tests.
struct RefusalTimes {
  std::chrono::milliseconds first = std::chrono::minutes(5);
  std::chrono::milliseconds longest = std::chrono::hours(1);
};

// One for each device. Any thread. Devices lock an account after a few wrong passwords, so
// credentials that have not been accepted yet are tried by one request at a time while the others
// wait, and refused ones rest, for everybody.
class DeviceLogin {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kTries = 3;  // sendings of one request that may end in a 401

  DeviceLogin(const DeviceConfig& config, const RefusalTimes& times);

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
    Send,    // with the Authorization value in `authorization`, none when it is empty
    Wait,    // another request is trying the credentials: ask again later
    Refused  // the device has refused them
  };
  Verdict prepare(Ticket& ticket, std::string_view method, std::string_view target,
                  std::string& authorization);

  // The device answered 401. True when the request is to be prepared and sent again.
  bool refused(Ticket& ticket, std::string_view wwwAuthenticate);
  // The device answered something else.
  void accepted(Ticket& ticket);

  // From now on, while the credentials stand refused; none otherwise.
  std::optional<Clock::duration> refusedFor();
  // Whether they stand refused; takes no lock.
  bool rests() const { return Clock::now().time_since_epoch().count() < restsUntil_; }

 private:
  enum class State {
    Unproven,  // no credentials accepted yet; requests go as they are until a 401 comes
    Trying,    // one request has the trial
    Proven,    // the credentials were accepted
    Refused    // until refusedUntil_
  };

  bool isRefused() QN_REQUIRES(mutex_);
  bool retryWithNewChallenge(Ticket& ticket, std::string_view wwwAuthenticate) QN_REQUIRES(mutex_);
  void refuse(Ticket& ticket) QN_REQUIRES(mutex_);
  void abandon(Ticket& ticket);

  const bool enabled_;        // the configuration has credentials
  const std::string device_;  // for the log
  const RefusalTimes times_;
  Mutex mutex_;
  State state_ QN_GUARDED_BY(mutex_) = State::Unproven;
  ClientLogin login_ QN_GUARDED_BY(mutex_);
  uint64_t challenge_ QN_GUARDED_BY(mutex_) = 0;  // counts the challenges taken
  bool warned_ QN_GUARDED_BY(mutex_) = false;     // of a kind of login that is not allowed
  Clock::duration pause_ QN_GUARDED_BY(mutex_);   // after the next refusal
  Clock::time_point refusedUntil_ QN_GUARDED_BY(mutex_);
  std::atomic<Clock::rep> restsUntil_{0};  // the same, for rests()
};

}  // namespace qn
