// What one request costs the device-configuration bus alone: CPU time of this process for a number
// of requests to a trivial keep-alive device, which is another process.
//
// qn-bench-devicebus [REQUESTS [IN_FLIGHT]]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/asio/post.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <memory>
#include <string>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/devicebus/device_bus.h"
#include "gateway/net/reactors.h"
#include "gateway/net/worker_pool.h"

namespace {

const std::string kUrl = "/KAVRO/System/deviceInfo?format=json&devIndex=1";

std::string deviceReply() {
  const std::string body = "{\"DeviceInfo\":{\"deviceName\":\"" + std::string(570, 'x') + "\"}}";
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Every piece that arrives is taken for one whole request, which holds on loopback.
[[noreturn]] void serve(int listener) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string reply = deviceReply();
  std::vector<pollfd> sockets = {{listener, POLLIN, 0}};
  std::array<char, 4096> request;
  for (;;) {
    poll(sockets.data(), sockets.size(), -1);
    const std::size_t known = sockets.size();
    for (std::size_t i = 1; i < known; ++i) {
      if (!sockets[i].revents) continue;
      if (recv(sockets[i].fd, request.data(), request.size(), 0) <= 0) _exit(0);
      if (send(sockets[i].fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) _exit(1);
    }
    if (sockets[0].revents) sockets.push_back({accept(listener, nullptr, nullptr), POLLIN, 0});
  }
}

// Starts the device; its port, or 0.
uint16_t startDevice() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, generic, length) != 0 || listen(listener, 512) != 0) return 0;
  if (getsockname(listener, generic, &length) != 0) return 0;
  const pid_t child = fork();
  if (child == 0) serve(listener);
  close(listener);
  return child > 0 ? ntohs(address.sin_port) : 0;
}

// Sends the next request whenever one is answered.
struct Chain {
  std::atomic<long>* left = nullptr;
  std::latch* ended = nullptr;
  long failures = 0;

  void next() {
    if (left->fetch_sub(1) <= 0) return ended->count_down();
    if (QN_DeviceCfgBus_ProcessAsyn(0, kUrl, "", &answered, this, 10000) != 0) std::abort();
  }
  static int answered(void*, int length, void* userData) {
    auto& self = *static_cast<Chain*>(userData);
    if (length < 500) ++self.failures;
    self.next();
    return 0;
  }
};

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

struct Usage {
  double user = 0;
  double system = 0;
  static Usage now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {seconds(usage.ru_utime), seconds(usage.ru_stime)};
  }
};

void publishDevice(uint16_t port, std::size_t inFlight, std::size_t reactors) {
  auto configuration = std::make_shared<qn::Configuration>();
  qn::DeviceConfig device;
  device.index = "1";
  device.host = "127.0.0.1";
  device.port = port;
  configuration->devices.push_back(device);
  configuration->bus.deviceConnections = inFlight * reactors;
  configuration->buildIndexes();
  qn::publishConfiguration(configuration);
}

}  // namespace

int main(int argc, char** argv) {
  const long requests = argc > 1 ? std::atol(argv[1]) : 300000;
  const long inFlight = argc > 2 ? std::atol(argv[2]) : 64;
  const uint16_t port = startDevice();
  if (requests <= 0 || inFlight <= 0 || port == 0) return 1;

  qn::Reactors reactors;
  qn::WorkerPool workers(1, 1);
  publishDevice(port, static_cast<std::size_t>(inFlight), reactors.size());
  qn::DeviceDirectory devices;
  qn::DeviceBus bus(reactors, workers, devices);
  reactors.start();
  bus.start();

  std::atomic<long> left{requests};
  std::latch ended(inFlight);
  std::vector<Chain> chains(static_cast<std::size_t>(inFlight), Chain{&left, &ended});
  const auto start = std::chrono::steady_clock::now();
  const Usage before = Usage::now();
  for (std::size_t i = 0; i < chains.size(); ++i) {
    boost::asio::post(reactors.context(i % reactors.size()),
                      [&chain = chains[i]] { chain.next(); });
  }
  ended.wait();
  const Usage after = Usage::now();
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;

  long failures = 0;
  for (const Chain& chain : chains) failures += chain.failures;
  const double perRequest = 1e6 / static_cast<double>(requests);
  std::printf(
      "%ld requests, %ld in flight, %ld failed: %.0f/s, CPU us/request: %.2f user, %.2f system\n",
      requests, inFlight, failures, static_cast<double>(requests) / taken.count(),
      (after.user - before.user) * perRequest, (after.system - before.system) * perRequest);
  bus.stop();
  return failures == 0 ? 0 : 1;
}
