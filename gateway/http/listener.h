// The listening ports of the HTTP service: each accepts connections and deals them out to the
// reactors in turn. Made by the service.
#pragma once

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "gateway/http/client_connection.h"
#include "gateway/http/service_core.h"
#include "gateway/sync/mutex.h"

namespace qn {

enum class Transport { Plain, Tls };

// One port. Lives on the first reactor.
class Listener : public std::enable_shared_from_this<Listener> {
 public:
  // Listens at once, accepts after start(). Throws std::system_error.
  Listener(std::shared_ptr<ServiceCore> core, const std::string& address, uint16_t port,
           Access access, Transport transport);

  uint16_t port() const { return port_; }
  Access access() const { return access_; }
  void start();  // any thread
  void close();  // on the first reactor, or before start()

 private:
  void accept();
  void welcome(std::size_t reactor, TcpStream stream);
  bool waitForPlace(std::size_t reactor, TcpStream& stream);
  void serve(std::size_t reactor, TcpStream stream);
  template <class Stream>
  void begin(std::size_t reactor, Stream stream, Arrival arrival);
  void pause();

  const std::shared_ptr<ServiceCore> core_;
  const Access access_;
  const Transport transport_;
  boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, boost::asio::io_context::executor_type>
      acceptor_;
  boost::asio::steady_timer timer_;
  uint16_t port_ = 0;
};

// The main port of a transport, when it has one.
struct MainPort {
  std::string address;
  std::optional<uint16_t> port;  // 0: a free one
  Access access = Access::Everything;
};

// All ports of a transport. Any thread but a reactor's, except where a timer calls it.
class Ports : public std::enable_shared_from_this<Ports> {
 public:
  // On this address of the host, as long as setMain() names no other.
  Ports(std::shared_ptr<ServiceCore> core, std::string address, Transport transport);

  // Has the main port, and by and by the others, there, or no main port. What is connected stays.
  // Throws std::system_error with the reason when the main port cannot be opened; everything is
  // then as it was. Returns the main port, 0 for none.
  uint16_t setMain(const MainPort& wanted);
  // As setMain() would have it again.
  MainPort main() const;
  // Opens a further port, which setExtra() will name. Throws std::system_error with the reason.
  void openExtra(uint16_t port, Access access);
  // Besides the main port, these from now on and no others. One that is taken is logged and tried
  // again every HttpBounds::reopen.
  void setExtra(const std::map<uint16_t, Access>& wanted);
  // Whether it is ours.
  bool serves(uint16_t port) const;
  // For good. Harmless when repeated.
  void close();

 private:
  using ListenerPtr = std::shared_ptr<Listener>;
  using Listeners = std::vector<ListenerPtr>;
  // Before a move.
  struct Former {
    std::string address;
    std::map<uint16_t, Access> wanted;
    ListenerPtr inTheWay;  // ours on the new port; may be null
  };

  ListenerPtr opened(uint16_t port, Access access) QN_REQUIRES(mutex_);
  std::optional<Former> formerFor(const MainPort& wanted);
  Listeners replaceMain(ListenerPtr next, bool allMove) QN_REQUIRES(mutex_);
  void putBack(const Listener& closed) QN_REQUIRES(mutex_);
  void openMissing() QN_REQUIRES(mutex_);
  void open(uint16_t port, Access access) QN_REQUIRES(mutex_);
  bool tryToOpen(uint16_t port, Access access) QN_REQUIRES(mutex_);
  bool isOpen(uint16_t port) const QN_REQUIRES(mutex_);
  void retryLater();
  void retry();
  void closeAll(const Listeners& listeners);

  const std::shared_ptr<ServiceCore> core_;
  const Transport transport_;
  boost::asio::steady_timer timer_;  // the first reactor's
  mutable Mutex mutex_;
  std::string address_ QN_GUARDED_BY(mutex_);
  std::shared_ptr<Listener> main_ QN_GUARDED_BY(mutex_);
  std::map<uint16_t, std::shared_ptr<Listener>> extra_ QN_GUARDED_BY(mutex_);
  std::map<uint16_t, Access> wanted_ QN_GUARDED_BY(mutex_);
  std::set<uint16_t> taken_ QN_GUARDED_BY(mutex_);  // by others; logged
  bool retrying_ QN_GUARDED_BY(mutex_) = false;
};

}  // namespace qn
