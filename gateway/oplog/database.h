// The table of the operation log on SQLite. Used by the writer thread of operation_log.cpp only.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/gateway_cfg_bus.h"

struct sqlite3;
struct sqlite3_stmt;

namespace qn {

// A record and the number by which its answer is found.
struct OperationRecord {
  uint64_t number;
  tagLogInfo info;
  int status;  // of the answer; 0: there is none yet
};

struct OperationAnswer {
  uint64_t number;
  int status;
};

class DatabaseError : public std::runtime_error {
 public:
  DatabaseError(const std::string& text, bool unreadable)
      : std::runtime_error(text), unreadable_(unreadable) {}

  // Whether the file is damaged or no database at all.
  bool isUnreadable() const { return unreadable_; }

 private:
  bool unreadable_;
};

// A connection for one thread. What it has written is moved from the write-ahead file into the
// database by a thread that lives as long as that takes: it waits for the disk, and rows that wait
// for it would be lost with the process. Every operation waits at most kBusyTime for other
// processes' locks. After a DatabaseError only destroy it; that takes back what was not committed.
class OperationDatabase {
 public:
  static constexpr int kBusyTimeMs = 500;
  // Of the write-ahead file, give or take one append. Only a reader that stays for long makes it so
  // large, because what it reads cannot be moved into the database.
  static constexpr std::size_t kJournalLimit = 32 * 1024 * 1024;
  static constexpr std::size_t kAwaitedRows = 8192;  // rows whose answer may still come

  // Opens the file, making it and the table when they are missing. Readers of the file are never in
  // the way: the journal is a write-ahead log.
  explicit OperationDatabase(const std::filesystem::path& file);
  ~OperationDatabase();

  // Throws while the write-ahead file is full. Adds the records in order and the answers to those
  // that this object has added before, then drops the oldest beyond `rows`; all of it or nothing.
  void append(std::span<const OperationRecord> records, std::span<const OperationAnswer> answers,
              std::size_t rows);

 private:
  struct Close {
    void operator()(sqlite3* connection) const;
  };
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

  void boundJournal();
  void moveJournal();
  void execute(const char* sql);
  Statement prepare(const char* sql);
  void addStatusColumn();
  void insert(const OperationRecord& record);
  void update(const OperationAnswer& answer);
  void run(const Statement& statement);
  void check(int result);

  const std::filesystem::path file_;
  std::unique_ptr<sqlite3, Close> connection_;
  Statement insert_;
  Statement update_;
  Statement trim_;
  std::map<uint64_t, int64_t> awaited_;  // rows by the numbers of their records
  int journalPages_ = 0;                 // since it was last begun anew
  std::thread mover_;
  std::atomic<bool> moving_{false};
};

}  // namespace qn
