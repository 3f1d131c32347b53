// SPDX-License-Identifier: LGPL-3.0-or-later
// The changes of a time in numbers: by hour or by day, by user and by folder.
#pragma once

#include <sqlite3.h>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrix::history {

enum class Doing { kCreated, kChanged, kRenamed, kDeleted, kRead, kOther };
constexpr std::size_t kDoings = 6;
using Counts = std::array<uint64_t, kDoings>;

[[nodiscard]] Doing doing_of(int operation);
[[nodiscard]] const char* word_of(Doing doing);  // "created"
[[nodiscard]] uint64_t sum_of(const Counts& counts);

// Something in the life of the history itself, as a gap or a mass change.
struct Notice {
  int64_t time = 0;
  std::string kind;
  std::optional<uint32_t> uid;
  std::optional<int64_t> count;
  std::string text;
};

struct Report {
  int64_t since = 0, until = 0;  // microseconds since 1970
  bool by_day = false;           // the steps are days, not hours
  Counts counts{};
  std::map<int64_t, Counts> steps;  // by the beginning of each, from the first record of all on
  struct User {
    uint32_t uid;
    Counts counts;
  };
  std::vector<User> users;  // the most active first
  struct Folder {
    std::string path;
    Counts counts;
  };
  std::vector<Folder> folders;
  std::vector<Notice> notices;  // newest first
};

struct ReportQuestion {
  int64_t since = 0, until = 0;
  std::size_t most = 10;                                        // users and folders
  std::function<void(uint64_t done, uint64_t total)> progress;  // may be empty
};

// Nothing on a failure, which is on the connection.
[[nodiscard]] std::optional<Report> report_on(sqlite3* database, const ReportQuestion& question);

}  // namespace tavrix::history
