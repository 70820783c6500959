// Who may do what on the admin listener: the login, and what keeps web pages of others from acting
// through the operator's browser. Used by the listener for each request.
#pragma once

#include <memory>
#include <string>

#include "gateway/config/configuration.h"
#include "gateway/http/exchange.h"
#include "gateway/login/login.h"

namespace qn {

inline constexpr char kAdminRealm[] = "qn-gateway";

// Any thread.
class AdminGuard {
 public:
  // The lock after wrong logins is that of the clients' configuration.
  AdminGuard(const AdminOptions& options, const LockOptions& lock);

  // The address that the client called is one of this gateway's. A page of somebody else reaches
  // it under a name that he lets point here; such a name is neither an address nor "localhost".
  // Behind a login names are of no use to him, and operators may have theirs.
  bool isCalledRightly(const ExchangeState& exchange) const;
  // Comes from the listener's own page, or from no page at all.
  static bool isOwnPage(const ExchangeState& exchange);
  // True without a login. Otherwise the answer has got its challenge.
  bool admits(ExchangeState& exchange);
  // The bearer token that opens the metrics alone.
  bool admitsByToken(const ExchangeState& exchange) const;
  bool unlock(std::string_view address) { return login_.unlock(address); }

 private:
  const AdminOptions options_;
  const std::shared_ptr<const Configuration> operators_;  // one user, the operator
  Login login_;
};

}  // namespace qn
