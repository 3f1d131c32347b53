// SPDX-License-Identifier: LGPL-3.0-or-later
// Opens the database of the history, for its one writer and its many readers.
//
// It is in WAL mode: a reader sees the state at the start of its transaction, and neither waits for
// the writer nor makes it wait. A reader that keeps a transaction open keeps the WAL from being
// reused, so it keeps them short.
#pragma once

#include <sqlite3.h>
#include <memory>
#include <optional>
#include <string>

namespace tavrix::history {

constexpr const char* kDatabaseFile = "/var/lib/tavrix/history/history.db";

enum class Reason {
  kMissing,
  kDenied,
  kLocked,   // another program keeps it; may pass
  kFull,     // no space is left; may pass
  kDamaged,  // no database, or pages of it are broken
  kForeign,  // a sound database, but not a history
  kOlder,    // the writer brings it up to date when it opens it
  kNewer,
  kFailed,
};

struct Problem {
  Reason reason = Reason::kFailed;
  std::string sentence;  // names the file
};

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

// Opens for reading alone; makes and changes nothing. Returns null with the problem.
[[nodiscard]] Database open_to_read(const std::string& file, Problem& problem);

// Opens for writing. Makes the file when it is missing, and brings an older one up to date. Commits
// are on the disk when they return.
[[nodiscard]] Database open_to_write(const std::string& file, Problem& problem);

// The reason and the sentence of the last failure on the connection.
[[nodiscard]] Problem problem_of(sqlite3* database, const std::string& file);
[[nodiscard]] Reason reason_of(int code);  // of SQLite, extended or not

// Runs statements without results; false on a failure.
[[nodiscard]] bool execute(sqlite3* database, const char* sql);

// A transaction that is rolled back unless it is committed.
class [[nodiscard]] Transaction {
 public:
  // Begins at once as the writer.
  explicit Transaction(sqlite3* database);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  [[nodiscard]] bool begun() const { return is_open_; }
  [[nodiscard]] bool commit();

 private:
  sqlite3* database_;
  bool is_open_;
};

}  // namespace tavrix::history
