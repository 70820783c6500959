// The HTTP service alone, with a process function that answers 600 bytes at once: what a request
// costs before anything is translated, and what an idle connection keeps; "/stream" opens
// a stream. Every line on standard input prints the CPU time for each request since the last line
// and the resident memory.
//   qn-http-echo [port]
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "gateway/http/http_service.h"

namespace {

std::atomic<unsigned long> requests{0};

int answer(int&, std::string& body, int& asyncReply, const QNHttpService::stHttpRes& request) {
  ++requests;
  // What the module's frame reads of every request.
  const auto& exchange = *request.exchange;
  if (exchange.getUrl().empty() || exchange.getHead("Host").empty()) return 400;
  if (exchange.getUrl() == "/stream") {
    request.exchange->setMIME();
    asyncReply = 1;
    request.exchange->response(nullptr, 0);
    return 200;
  }
  body.assign(600 - exchange.getHead("X-Forwarded-For").size(), 'x');
  return 200;
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long residentKiB() {
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * sysconf(_SC_PAGESIZE) / 1024;
}

void report() {
  static double lastCpu = 0;
  static unsigned long lastRequests = 0;
  const double cpu = cpuSeconds();
  const unsigned long count = requests;
  std::printf("requests %lu, CPU %.2f us each, resident %ld KiB\n", count - lastRequests,
              count == lastRequests ? 0 : (cpu - lastCpu) * 1e6 / double(count - lastRequests),
              residentKiB());
  std::fflush(stdout);
  lastCpu = cpu;
  lastRequests = count;
}

}  // namespace

int main(int argc, char** argv) {
  qn::Reactors reactors;
  qn::WorkerPool pool(2, 64);
  qn::HttpOptions options;
  options.port = static_cast<uint16_t>(argc > 1 ? std::atoi(argv[1]) : 18081);
  options.connectionsPerAddress = options.connections;
  reactors.start();
  qn::HttpService service(reactors, {pool, pool}, options, answer);
  service.listen();
  std::printf("port %d\n", int{service.port()});
  report();
  for (int c = std::getchar(); c != EOF; c = std::getchar()) {
    if (c == '\n') report();
  }
  service.close();
  reactors.stop();
}
