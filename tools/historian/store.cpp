// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/store.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <vector>

#include "tools/files/durable.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"
#include "tools/service/journal.hpp"

namespace tavrix::historian {
namespace {

using history::Problem;
using history::Reason;
using service::say;
using service::Tone;

constexpr const char* kWal = "-wal";
constexpr const char* kIndex = "-shm";  // of the WAL, in shared memory

std::optional<gid_t> gid_of(const std::string& name) {
  std::vector<char> room(1 << 16);
  struct group entry {};
  struct group* found = nullptr;
  if (getgrnam_r(name.c_str(), &entry, room.data(), room.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return entry.gr_gid;
}

// True for a folder as the historian makes it. The mode of any other is its owner's choice.
bool is_closed(const std::string& folder) {
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0 || info.st_uid != 0) return false;
  const mode_t mode = info.st_mode & 0777;
  return mode == 0700 || mode == 0750;
}

// "history.db.damaged-20261122T130501Z", or with a number behind it.
std::string free_name(const std::string& file) {
  const std::time_t now = std::time(nullptr);
  const std::string name = fmt::format("{}.damaged-{:%Y%m%dT%H%M%SZ}", file, fmt::gmtime(now));
  std::string free = name;
  for (int number = 1; files::exists(free); ++number) free = fmt::format("{}.{}", name, number);
  return free;
}

}  // namespace

int64_t now_micros() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

bool add_notice(sqlite3* database, const char* kind, int64_t time, const std::string& sentence,
                std::optional<int64_t> uid, std::optional<int64_t> count) {
  history::Statement insert(
      database, "INSERT INTO notices (time, kind, uid, count, text) VALUES (?, ?, ?, ?, ?)");
  insert.bind(1, time);
  insert.bind(2, std::string_view(kind));
  uid ? insert.bind(3, *uid) : insert.bind_null(3);
  count ? insert.bind(4, *count) : insert.bind_null(4);
  insert.bind(5, std::string_view(sentence));
  return insert.run();
}

bool Store::make_folder(Problem& problem) const {
  const std::string folder = files::folder_of(file_);
  if (files::exists(folder)) return true;
  std::error_code error;
  std::filesystem::create_directories(files::folder_of(folder), error);
  if (mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) return true;
  problem = {errno == ENOSPC ? Reason::kFull : Reason::kFailed,
             fmt::format("{}: {}", folder, std::strerror(errno))};
  return false;
}

// SQLite gives the files of the WAL the mode of the database when it makes them.
void Store::give_to_group() {
  group_problem_.clear();
  gid_t gid = 0;
  if (!group_.empty()) {
    if (const auto found = gid_of(group_)) {
      gid = *found;
    } else {
      group_problem_ = fmt::format("there is no group {}: root alone may read the history", group_);
    }
  }
  const mode_t more = gid != 0 ? 0040 : 0;
  for (const char* ending : {"", kWal, kIndex}) {
    const std::string path = file_ + ending;
    if (chown(path.c_str(), 0, gid) != 0 || chmod(path.c_str(), 0600 | more) != 0) {
      if (errno == ENOENT) continue;
      group_problem_ = fmt::format("{}: {}", path, std::strerror(errno));
    }
  }
  const std::string folder = files::folder_of(file_);
  if (gid != 0 && is_closed(folder) &&
      (chown(folder.c_str(), 0, gid) != 0 || chmod(folder.c_str(), 0750) != 0)) {
    group_problem_ = fmt::format("{}: {}", folder, std::strerror(errno));
  }
}

// The database goes before its WAL: SQLite removes a WAL that has no database, and a database
// without its WAL could pass for a sound one.
bool Store::set_aside(const std::string& reason) {
  close();
  const std::string kept = free_name(file_);
  if (!files::replace(kept + ".reason", reason + "\n", 0600)) return false;
  if (rename(file_.c_str(), kept.c_str()) != 0) return false;
  std::rename((file_ + kWal).c_str(), (kept + kWal).c_str());
  unlink((file_ + kIndex).c_str());
  static_cast<void>(files::sync_folder_of(file_));
  say(Tone::kError,
      fmt::format("{}; it is set aside as {}, and a new history begins", reason, kept));
  return true;
}

void Store::note_beginning(const std::string& sentence) const {
  if (!add_notice(get(), history::kNoticeBegun, now_micros(), sentence)) {
    say(Tone::kWarning, fmt::format("{}: {}", file_, sqlite3_errmsg(get())));
  }
}

bool Store::open(Problem& problem) {
  if (database_ != nullptr) return true;
  if (!make_folder(problem)) return false;
  database_ = history::open_to_write(file_, problem);
  if (database_ == nullptr && problem.reason == Reason::kDamaged) {
    const std::string damage = problem.sentence;
    if (!set_aside(damage)) return false;
    database_ = history::open_to_write(file_, problem);
    if (database_ != nullptr) note_beginning(damage);
  }
  if (database_ == nullptr) return false;
  give_to_group();
  return true;
}

bool Store::replace_damaged(const Problem& problem) {
  close();
  if (problem.reason != Reason::kDamaged || !set_aside(problem.sentence)) return false;
  Problem next;
  if (!open(next)) return false;
  note_beginning(problem.sentence);
  return true;
}

bool Store::is_in_place() const {
  int has_moved = 0;
  sqlite3_file_control(get(), "main", SQLITE_FCNTL_HAS_MOVED, &has_moved);
  return has_moved == 0 && files::exists(file_ + kWal);
}

}  // namespace tavrix::historian
