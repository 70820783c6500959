// The admin listener: metrics, health, the operator's page and what can be done there, on a port
// and threads of its own, so that it answers whatever happens to the others. Made by the host.
//
// It is an HTTP service that has nothing but this one resource: no request reaches the module, and
// the services of the protocol do not know the resource.
#pragma once

#include <memory>
#include <string>

#include "gateway/admin/guard.h"
#include "gateway/admin/observed.h"
#include "gateway/http/http_service.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"

namespace qn {

// On the host's one thread.
class AdminListener {
 public:
  explicit AdminListener(Observed observed);
  ~AdminListener();
  AdminListener(const AdminListener&) = delete;
  AdminListener& operator=(const AdminListener&) = delete;

  // Listens as these options say; not at all on port 0. Throws std::system_error with the reason.
  void open(const AdminOptions& options, const LockOptions& lock);
  // The same for options that have changed. What it is answering is finished first, for a moment; a
  // port that is taken is tried again every few seconds.
  void reopen(const AdminOptions& options, const LockOptions& lock);
  // Harmless when repeated.
  void close();

 private:
  class Service;

  const Observed observed_;
  AdminOptions options_;
  std::unique_ptr<Service> service_;  // null while it is off
};

}  // namespace qn
