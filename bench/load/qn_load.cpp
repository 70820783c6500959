// qn-load: keeps a number of keep-alive connections busy with one GET each, logs in with Digest
// (every request its own nonce count) and prints what came out as one JSON line; with --body PUTs
// it, with --rate no more than so many a second, with --tls over TLS, with --handshakes one
// handshake after the other and no requests. Used by bench/proxy_comparison.py against the gateway
// and against a plain proxy, which sees the same bytes, and by bench/cluster.py.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string address = "127.0.0.1";
  uint16_t port = 8080;
  std::string path = "/KAVRO/System/deviceInfo";
  std::string body;
  double rate = 0;  // a second, of all connections together; 0: as fast as it goes
  std::string user = "admin";
  int users = 0;
  std::string password;
  int connections = 1;
  double seconds = 5;
  bool tls = false;
  std::string handshakes;  // "full" or "resumed"
};

struct FreeSsl {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};

SSL_CTX* tlsContext() {
  static SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
  return context;
}

// A blocking socket, with TLS or without.
class Wire {
 public:
  explicit Wire(const Options& options, SSL_SESSION* session = nullptr) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(options.port);
    inet_pton(AF_INET, options.address.c_str(), &to.sin_addr);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
      throw std::runtime_error("cannot connect");
    }
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!options.tls) return;
    ssl_.reset(SSL_new(tlsContext()));
    SSL_set_fd(ssl_.get(), fd_);
    if (session) SSL_set_session(ssl_.get(), session);
    if (SSL_connect(ssl_.get()) != 1) throw std::runtime_error("no handshake");
  }
  ~Wire() { close(fd_); }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  int fd() const { return fd_; }
  SSL* ssl() const { return ssl_.get(); }
  long receive(char* room, std::size_t size) const {
    return ssl_ ? SSL_read(ssl_.get(), room, int(size)) : read(fd_, room, size);
  }
  long send(std::string_view bytes) const {
    return ssl_ ? SSL_write(ssl_.get(), bytes.data(), int(bytes.size()))
                : write(fd_, bytes.data(), bytes.size());
  }
  // Both sides say that they end; reads the tickets, too.
  void end() const {
    char rest[256];
    if (SSL_shutdown(ssl_.get()) < 0) throw std::runtime_error("no end");
    while (SSL_read(ssl_.get(), rest, sizeof rest) > 0) {
    }
  }

 private:
  int fd_ = -1;
  std::unique_ptr<SSL, FreeSsl> ssl_;
};

std::string md5(std::string_view text) {
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
  static EVP_MD_CTX* const context = EVP_MD_CTX_new();
  unsigned char digest[16];
  EVP_DigestInit_ex2(context, algorithm, nullptr);
  EVP_DigestUpdate(context, text.data(), text.size());
  EVP_DigestFinal_ex(context, digest, nullptr);
  std::string hex(32, '0');
  for (int i = 0; i < 16; ++i) {
    hex[2 * i] = "0123456789abcdef"[digest[i] >> 4];
    hex[2 * i + 1] = "0123456789abcdef"[digest[i] & 15];
  }
  return hex;
}

// The value of a quoted parameter of the challenge; the fallback when it is not there, so that a
// server without login gets requests of the same form.
std::string quoted(std::string_view head, std::string_view name, std::string_view fallback) {
  const auto at = head.find(std::string(name) + "=\"");
  if (at == std::string_view::npos) return std::string(fallback);
  const auto from = at + name.size() + 2;
  return std::string(head.substr(from, head.find('"', from) - from));
}

class Connection {
 public:
  Connection(const Options& options, std::string user)
      : options_(options), wire_(options), user_(std::move(user)) {
    learnChallenge();
  }

  int fd() const { return wire_.fd(); }

  void send() {
    char count[9];
    std::snprintf(count, sizeof count, "%08x", ++nonceCount_);
    const auto response = md5(ha1_ + ":" + nonce_ + ":" + count + ":0a4f113b:auth:" + ha2_);
    request("Authorization: Digest username=\"" + user_ + "\", realm=\"" + realm_ + "\", nonce=\"" +
            nonce_ + "\", uri=\"" + options_.path + "\", qop=auth, nc=" + count +
            ", cnonce=\"0a4f113b\", response=\"" + response + "\"\r\n");
    sent_ = Clock::now();
  }

  // Reads what is there. True when an answer is complete; its status is then in status().
  bool receive() {
    char part[65536];
    const auto got = wire_.receive(part, sizeof part);
    if (got <= 0) throw std::runtime_error("the server closed the connection");
    answer_.append(part, static_cast<std::size_t>(got));
    const auto headEnd = answer_.find("\r\n\r\n");
    if (headEnd == std::string::npos) return false;
    auto at = answer_.find("ontent-Length: ");
    if (at == std::string::npos) at = answer_.find("ontent-length: ");
    if (at == std::string::npos) throw std::runtime_error("an answer without Content-Length");
    const auto length = std::stoul(answer_.substr(at + 15, 20));
    if (answer_.size() < headEnd + 4 + length) return false;
    status_ = std::stoi(answer_.substr(9, 3));
    head_ = answer_.substr(0, headEnd);
    answer_.clear();
    return true;
  }

  int status() const { return status_; }
  Clock::time_point sent() const { return sent_; }

 private:
  void learnChallenge() {
    request("");
    while (!receive()) {
    }
    realm_ = quoted(head_, "realm", "KAVRO");
    nonce_ = quoted(head_, "nonce", "5a1d3f0b9c8e7f6a5a1d3f0b9c8e7f6a5a1d3f0b");
    ha1_ = md5(user_ + ":" + realm_ + ":" + options_.password);
    ha2_ = md5(method() + ':' + options_.path);
  }

  std::string method() const { return options_.body.empty() ? "GET" : "PUT"; }

  void request(const std::string& authorization) {
    const std::string length =
        options_.body.empty() ? ""
                              : "Content-Length: " + std::to_string(options_.body.size()) + "\r\n";
    const auto text = method() + ' ' + options_.path + " HTTP/1.1\r\nHost: " + options_.address +
                      ":" + std::to_string(options_.port) +
                      "\r\nUser-Agent: qn-load\r\nAccept: */*\r\n" + authorization + length +
                      "\r\n" + options_.body;
    if (wire_.send(text) != static_cast<long>(text.size())) {
      throw std::runtime_error("cannot send");
    }
  }

  const Options& options_;
  Wire wire_;
  const std::string user_;
  std::string realm_, nonce_, ha1_, ha2_;
  unsigned nonceCount_ = 0;
  std::string answer_, head_;
  int status_ = 0;
  Clock::time_point sent_;
};

// When the next request may be sent.
class Pace {
 public:
  Pace(const Options& options, Clock::time_point start) : rate_(options.rate), start_(start) {}

  bool isDue(Clock::time_point now) const { return now >= next(); }
  void sent() { ++sent_; }
  // Until the next one, ten seconds at most.
  timespec patience(Clock::time_point now, bool isAnyIdle) const {
    constexpr std::chrono::nanoseconds kMost = std::chrono::seconds(10);
    std::chrono::nanoseconds wait = kMost;
    if (isAnyIdle) wait = std::clamp<std::chrono::nanoseconds>(next() - now, {}, kMost);
    return {wait / std::chrono::seconds(1), (wait % std::chrono::seconds(1)).count()};
  }

 private:
  Clock::time_point next() const {
    if (rate_ <= 0) return start_;
    return start_ + std::chrono::nanoseconds(static_cast<int64_t>(double(sent_) / rate_ * 1e9));
  }

  const double rate_;
  const Clock::time_point start_;
  int64_t sent_ = 0;
};

struct Outcome {
  std::vector<double> latencies;  // microseconds
  long failures = 0;              // answers other than 200
  double seconds = 0;
};

Outcome run(const Options& options) {
  std::vector<std::unique_ptr<Connection>> connections;
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  for (int i = 0; i < options.connections; ++i) {
    const std::string user =
        options.users > 0 ? "u" + std::to_string(1 + i % options.users) : options.user;
    connections.push_back(std::make_unique<Connection>(options, user));
    epoll_event event{.events = EPOLLIN, .data = {.ptr = connections.back().get()}};
    epoll_ctl(poll, EPOLL_CTL_ADD, connections.back()->fd(), &event);
  }
  Outcome outcome;
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(options.seconds));
  Pace pace(options, start);
  std::deque<Connection*> idle;
  for (auto& connection : connections) idle.push_back(connection.get());
  auto lastAnswer = start;
  while (true) {
    const auto turn = Clock::now();
    const bool isOver = turn >= end;
    if (isOver && idle.size() == connections.size()) break;
    for (; !isOver && !idle.empty() && pace.isDue(turn); idle.pop_front()) {
      idle.front()->send();
      pace.sent();
    }
    epoll_event events[64];
    const timespec patience = pace.patience(turn, !isOver && !idle.empty());
    const int count = epoll_pwait2(poll, events, 64, &patience, nullptr);
    if (count < 0 || (count == 0 && turn - lastAnswer > std::chrono::seconds(10))) {
      throw std::runtime_error("no answer in 10 seconds");
    }
    for (int i = 0; i < count; ++i) {
      auto& connection = *static_cast<Connection*>(events[i].data.ptr);
      if (!connection.receive()) continue;
      const auto now = lastAnswer = Clock::now();
      outcome.latencies.push_back(
          std::chrono::duration<double, std::micro>(now - connection.sent()).count());
      if (connection.status() != 200) ++outcome.failures;
      if (now < end && pace.isDue(now)) {
        connection.send();
        pace.sent();
      } else {
        idle.push_back(&connection);
      }
    }
  }
  outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  close(poll);
  return outcome;
}

// One after the other. What was resumed although it should not, or the reverse, is a failure.
Outcome shakeHands(const Options& options) {
  static std::unique_ptr<SSL_SESSION, FreeSsl> session;  // the newest
  SSL_CTX_set_session_cache_mode(tlsContext(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(tlsContext(), [](SSL*, SSL_SESSION* next) {
    session.reset(next);
    return 1;
  });
  const bool resume = options.handshakes == "resumed";
  if (resume) Wire(options).end();
  Outcome outcome;
  const auto start = Clock::now();
  while (std::chrono::duration<double>(Clock::now() - start).count() < options.seconds) {
    const auto before = Clock::now();
    const auto former = std::move(session);
    const Wire wire(options, resume ? former.get() : nullptr);
    if ((SSL_session_reused(wire.ssl()) == 1) != resume) ++outcome.failures;
    outcome.latencies.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - before).count());
    wire.end();
  }
  outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return outcome;
}

double percentile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  CLI::App app{"Loads one resource over keep-alive connections with Digest login."};
  app.add_option("--address", options.address);
  app.add_option("--port", options.port);
  app.add_option("--path", options.path);
  app.add_option("--user", options.user);
  app.add_option("--users", options.users, "connections take turns as u1, u2, ... instead");
  app.add_option("--password", options.password);
  app.add_option("--body", options.body, "of a PUT");
  app.add_option("--rate", options.rate)->check(CLI::Range(0.0, 1e6));
  app.add_option("--connections", options.connections)->check(CLI::Range(1, 4096));
  app.add_option("--seconds", options.seconds)->check(CLI::Range(0.1, 600.0));
  app.add_flag("--tls", options.tls);
  app.add_option("--handshakes", options.handshakes)->check(CLI::IsMember({"full", "resumed"}));
  CLI11_PARSE(app, argc, argv);
  signal(SIGPIPE, SIG_IGN);

  options.tls |= !options.handshakes.empty();
  auto outcome = options.handshakes.empty() ? run(options) : shakeHands(options);
  std::sort(outcome.latencies.begin(), outcome.latencies.end());
  const auto requests = static_cast<double>(outcome.latencies.size());
  std::printf(
      "{\"requests\": %.0f, \"failures\": %ld, \"rps\": %.0f, \"p50_us\": %.1f, \"p99_us\": "
      "%.1f}\n",
      requests, outcome.failures, requests / outcome.seconds, percentile(outcome.latencies, 0.5),
      percentile(outcome.latencies, 0.99));
} catch (const std::exception& error) {
  std::fprintf(stderr, "qn-load: %s\n", error.what());
  return 1;
}
