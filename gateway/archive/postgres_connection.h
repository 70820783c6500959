// A connection to PostgreSQL of which no step takes longer than it may, and each ends at once when
// the gateway stops. Used by the thread of postgres_archive.cpp.
#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct pg_conn;
struct pg_result;

namespace qn {

// Raised by one thread, and ends the waits of another. Never lowered.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  void raise() const;
  // Whether it is, at the latest after this time.
  bool waitFor(std::chrono::milliseconds time) const;
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

class PostgresError : public std::runtime_error {
 public:
  explicit PostgresError(const std::string& text, std::string state = {})
      : std::runtime_error(text), state_(std::move(state)) {}
  // The database's code for it; empty when it comes from elsewhere.
  const std::string& state() const { return state_; }

 private:
  std::string state_;
};

// For one thread. After a PostgresError only destroy it. The look-up of a host's name, which cannot
// be interrupted, is the one step that may take longer.
class PostgresConnection {
 public:
  static constexpr std::chrono::seconds kConnectTime{10};
  static constexpr std::chrono::seconds kStatementTime{20};  // at the server
  static constexpr std::chrono::seconds kLockTime{5};        // at the server, for a lock
  static constexpr std::chrono::seconds kAnswerTime{25};     // here, whatever the server does

  // Whether it can be read as a connection URI.
  static bool isUri(const std::string& uri);

  PostgresConnection(const std::string& uri, const Interrupt& interrupt);

  // One statement with its parameters, or several without; the rows' first columns.
  std::vector<std::string> run(const char* sql, const std::vector<std::string>& parameters = {});
  // A COPY ... FROM STDIN in text format.
  void copy(const char* sql, std::string_view rows);

 private:
  struct Finish {
    void operator()(pg_conn* connection) const;
  };
  struct Clear {
    void operator()(pg_result* result) const;
  };
  using Result = std::unique_ptr<pg_result, Clear>;
  using Deadline = std::chrono::steady_clock::time_point;

  void connect();
  void await(short events, Deadline deadline) const;
  void flush(Deadline deadline);
  Result result(Deadline deadline);
  std::vector<std::string> finish(Deadline deadline);
  [[noreturn]] void fail() const;

  const Interrupt& interrupt_;
  std::unique_ptr<pg_conn, Finish> connection_;
};

}  // namespace qn
