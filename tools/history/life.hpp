// SPDX-License-Identifier: LGPL-3.0-or-later
// The lives of the objects that had a name: each is followed backwards and forwards through renames
// and moves, its own and those of the folders above it.
#pragma once

#include <sqlite3.h>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/history/record.hpp"

namespace tavrix::history {

// The meaning of a record for the object.
enum class Event {
  kMade,
  kChanged,
  kRead,
  kRenamed,   // its own rename or move
  kCarried,   // a folder above it was renamed or moved
  kReplaced,  // another object was renamed to its name: it is gone
  kDeleted,
  kDeletedAbove  // a folder above it was deleted, and with it the object
};

struct Step {
  Event event;
  Record record;
  std::string path;      // of the object, before the step
  std::string new_path;  // behind a rename or a move; empty for other steps
};

enum class Beginning { kMade, kUnknown };  // unknown: before the history, or not by a client
enum class Ending {
  kAlive,
  kDeleted,  // the object, or a folder above it
  kReplaced,
  kUnknown  // something else has the name without a record that the object left it
};

struct Life {
  Beginning beginning = Beginning::kUnknown;
  Ending ending = Ending::kAlive;
  std::string last_path;        // the name that it has, or had last
  std::vector<Step> steps;      // in order of time
  uint64_t steps_left_off = 0;  // older changes and reads beyond the limit
};

struct LifeQuestion {
  std::string path;  // any name that the object ever had, whole
  bool reads = false;
  bool all = false;                // every object that had the name, not only the last
  std::size_t most_lives = 100;    // with `all`
  std::size_t most_changes = 200;  // changes and reads of a life; its other steps are all there
};

struct Lives {
  std::vector<Life> lives;  // the last object to have the name comes first
  bool has_more = false;    // older objects had the name too
};

// Nothing on a failure, which is on the connection.
[[nodiscard]] std::optional<Lives> lives_of(sqlite3* database, const LifeQuestion& question);

}  // namespace tavrix::history
