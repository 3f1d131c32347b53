// SPDX-License-Identifier: LGPL-3.0-or-later
// Reports many deletions, or many renames to one new ending, by one user in a short time: the looks
// of a program that encrypts or removes files. A user who tidies up looks the same.
#pragma once

#include <sqlite3.h>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tools/historian/dump_rows.hpp"

namespace tavrix::historian {

// More than `count` within `seconds`; a count of 0 reports nothing.
struct Threshold {
  int count = 0;
  int seconds = 60;
};

struct MassChange {
  bool is_rename = false;
  uint32_t uid = 0;
  std::string user;    // the name in the record, if it has one
  std::string ending;  // of the renames
  int64_t time = 0;    // of the change that crossed the threshold
  int64_t count = 0;
  int seconds = 0;

  [[nodiscard]] std::string sentence() const;
};

class MassChanges {
 public:
  MassChanges(Threshold deletions, Threshold renames) : deletions_(deletions), renames_(renames) {}

  // Looks at rows in the order of their taking. Returns what crosses a threshold now; a wave is
  // reported once, when it begins.
  [[nodiscard]] std::vector<MassChange> look(const std::vector<Row>& rows);

  // Takes up where an earlier run ended: the changes of the last seconds, and the waves that it has
  // reported. False on a failure.
  [[nodiscard]] bool resume(sqlite3* database);

 private:
  // The times of one user's changes in the window.
  struct Wave {
    std::deque<int64_t> times;
    bool is_reported = false;
  };
  // Deletions, or renames to one ending, of one user.
  using Key = std::tuple<bool, uint32_t, std::string>;

  void add(const Row& row, std::vector<MassChange>& found);
  void forget_old(int64_t now);

  Threshold deletions_, renames_;
  std::map<Key, Wave> waves_;
  std::size_t since_forgotten_ = 0;
};

// The part of the name behind its last dot; empty without one.
[[nodiscard]] std::string_view ending_of(std::string_view path);

}  // namespace tavrix::historian
