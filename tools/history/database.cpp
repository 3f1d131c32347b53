// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/database.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "tools/history/migrations.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::history {
namespace {

constexpr int kPatience = 5000;  // milliseconds to wait for a lock
constexpr mode_t kMode = 0600;

std::string sentence_of(Reason reason, const std::string& file, const std::string& detail) {
  switch (reason) {
    case Reason::kMissing:
      return fmt::format("{}: there is no history; tavrix-historian makes it", file);
    case Reason::kDenied:
      return fmt::format("{}: only root and the group of the settings may use the history", file);
    case Reason::kLocked:
      return fmt::format("{}: another program keeps the history locked", file);
    case Reason::kFull:
      return fmt::format("{}: the disk is full", file);
    case Reason::kDamaged:
      return fmt::format("{}: the history is damaged ({})", file, detail);
    case Reason::kForeign:
      return fmt::format("{}: this is a database, but no history", file);
    case Reason::kOlder:
      return fmt::format(
          "{}: the history is of an older version; tavrix-historian brings it up to "
          "date when it starts",
          file);
    case Reason::kNewer:
      return fmt::format("{}: the history is of a newer version; use the programs that wrote it",
                         file);
    default:
      return fmt::format("{}: {}", file, detail);
  }
}

Problem make(Reason reason, const std::string& file, const std::string& detail = "") {
  return {reason, sentence_of(reason, file, detail)};
}

// A look at the file before SQLite opens it: its messages do not tell these cases apart.
std::optional<Problem> look(const std::string& file) {
  struct stat info {};
  if (stat(file.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return make(Reason::kMissing, file);
    return make(errno == EACCES ? Reason::kDenied : Reason::kFailed, file, std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) return make(Reason::kFailed, file, "not a regular file");
  if (access(file.c_str(), R_OK) != 0) {
    return make(errno == EACCES ? Reason::kDenied : Reason::kFailed, file, std::strerror(errno));
  }
  return std::nullopt;
}

Database open(const std::string& file, int flags, Problem& problem) {
  sqlite3* raw = nullptr;
  const int code = sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
  Database database(raw);
  if (raw != nullptr) sqlite3_extended_result_codes(raw, 1);
  if (code != SQLITE_OK) {
    problem =
        raw == nullptr ? make(Reason::kFailed, file, sqlite3_errstr(code)) : problem_of(raw, file);
    return nullptr;
  }
  sqlite3_busy_timeout(raw, kPatience);
  return database;
}

// The version, or nothing with the problem. A new file has version 0 and no tables.
std::optional<int> version_of(sqlite3* database, const std::string& file, Problem& problem) {
  const auto version = number_of(database, "PRAGMA user_version");
  const auto tables = number_of(database, "SELECT count(*) FROM sqlite_schema");
  if (!version || !tables) {
    problem = problem_of(database, file);
    return std::nullopt;
  }
  if (*version == 0 && *tables > 0) {
    problem = make(Reason::kForeign, file);
    return std::nullopt;
  }
  if (*version > kSchemaVersion) {
    problem = make(Reason::kNewer, file);
    return std::nullopt;
  }
  return static_cast<int>(*version);
}

// The file gets its mode before SQLite writes to it: the files of the WAL inherit it.
bool make_file(const std::string& file, Problem& problem) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode);
  if (fd == -1) {
    const Reason reason = errno == ENOSPC ? Reason::kFull : Reason::kFailed;
    problem = make(reason, file, std::strerror(errno));
    return false;
  }
  close(fd);
  return true;
}

struct Failure {
  sqlite3* database = nullptr;
  int code = SQLITE_OK;
  int error = 0;  // of the system
  std::string message;
};

// A rollback makes the connection forget the failure that called for it. The transaction keeps it.
thread_local Failure rolled_back;

Failure failure_of(sqlite3* database) {
  return {database, sqlite3_extended_errcode(database), sqlite3_system_errno(database),
          sqlite3_errmsg(database)};
}

bool is_good(int code) { return code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE; }

bool prepare_to_write(sqlite3* database) {
  // The WAL stays when the writer closes: a reader without the right to make it needs it.
  int is_kept = 1;
  sqlite3_file_control(database, "main", SQLITE_FCNTL_PERSIST_WAL, &is_kept);
  return execute(database,
                 "PRAGMA auto_vacuum = INCREMENTAL;"  // before the first table
                 "PRAGMA journal_mode = WAL;"
                 "PRAGMA synchronous = FULL;"
                 "PRAGMA temp_store = MEMORY;"
                 "PRAGMA cache_size = -65536;"
                 "PRAGMA journal_size_limit = 67108864;");
}

}  // namespace

Reason reason_of(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return Reason::kLocked;
    case SQLITE_FULL:
      return Reason::kFull;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return Reason::kDamaged;
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return Reason::kDenied;
    default:
      return Reason::kFailed;
  }
}

Problem problem_of(sqlite3* database, const std::string& file) {
  Failure failure = failure_of(database);
  if (is_good(failure.code) && rolled_back.database == database) failure = rolled_back;
  return make(failure.error == ENOSPC ? Reason::kFull : reason_of(failure.code), file,
              failure.message);
}

Database open_to_read(const std::string& file, Problem& problem) {
  if (const auto found = look(file)) {
    problem = *found;
    return nullptr;
  }
  Database database = open(file, SQLITE_OPEN_READONLY, problem);
  if (database == nullptr) return nullptr;
  const auto version = version_of(database.get(), file, problem);
  if (!version) return nullptr;
  if (*version < kSchemaVersion) {
    problem = make(*version == 0 ? Reason::kMissing : Reason::kOlder, file);
    return nullptr;
  }
  // A question touches many pages once: mapped, they cost no call each.
  static_cast<void>(execute(database.get(), "PRAGMA mmap_size = 17179869184;"));
  return database;
}

Database open_to_write(const std::string& file, Problem& problem) {
  if (!make_file(file, problem)) return nullptr;
  Database database = open(file, SQLITE_OPEN_READWRITE, problem);
  if (database == nullptr) return nullptr;
  // The version comes first: a newer or foreign database must not be changed.
  const auto version = version_of(database.get(), file, problem);
  if (!version) return nullptr;
  if (!prepare_to_write(database.get()) || !migrate(database.get(), *version)) {
    problem = problem_of(database.get(), file);
    return nullptr;
  }
  return database;
}

bool execute(sqlite3* database, const char* sql) {
  return sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Transaction::Transaction(sqlite3* database)
    : database_(database), is_open_(execute(database, "BEGIN IMMEDIATE")) {
  rolled_back = {};
}

Transaction::~Transaction() {
  if (!is_open_) return;
  rolled_back = failure_of(database_);
  // A failure may have rolled it back already.
  if (sqlite3_get_autocommit(database_) == 0) static_cast<void>(execute(database_, "ROLLBACK"));
}

bool Transaction::commit() {
  if (!is_open_ || !execute(database_, "COMMIT")) return false;
  is_open_ = false;
  return true;
}

}  // namespace tavrix::history
