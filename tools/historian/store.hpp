// SPDX-License-Identifier: LGPL-3.0-or-later
// The database as the historian has it: it makes the file and its folder, gives them to the group
// that may read, sets a damaged file aside, and notices when somebody takes the file away.
#pragma once

#include <optional>
#include <string>

#include "tools/history/database.hpp"

namespace tavrix::historian {

class Store {
 public:
  Store(std::string file, std::string group) : file_(std::move(file)), group_(std::move(group)) {}

  // Opens the database unless it is open. False with the problem. A damaged file is set aside, and
  // a new database is begun.
  [[nodiscard]] bool open(history::Problem& problem);
  void close() { database_.reset(); }
  // Closes the database after a failure. If it is damaged, sets it aside and begins a new one: true
  // when that is open.
  [[nodiscard]] bool replace_damaged(const history::Problem& problem);
  // True while the open files are those that readers find.
  [[nodiscard]] bool is_in_place() const;

  [[nodiscard]] sqlite3* get() const { return database_.get(); }
  [[nodiscard]] explicit operator bool() const { return database_ != nullptr; }
  [[nodiscard]] const std::string& file() const { return file_; }
  // The trouble with the group; empty when there is none.
  [[nodiscard]] const std::string& group_problem() const { return group_problem_; }

  // Makes the folder of the database when there is none.
  [[nodiscard]] bool make_folder(history::Problem& problem) const;

 private:
  void give_to_group();
  [[nodiscard]] bool set_aside(const std::string& reason);
  void note_beginning(const std::string& sentence) const;

  std::string file_;
  std::string group_;
  std::string group_problem_;
  history::Database database_;
};

// Appends a notice; false when it fails.
[[nodiscard]] bool add_notice(sqlite3* database, const char* kind, int64_t time,
                              const std::string& sentence, std::optional<int64_t> uid = {},
                              std::optional<int64_t> count = {});

// Microseconds since the epoch.
[[nodiscard]] int64_t now_micros();

}  // namespace tavrix::historian
