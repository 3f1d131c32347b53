// SPDX-License-Identifier: LGPL-3.0-or-later
// Watches what the loader published: semaphore set, tables and local copy. A look each second costs
// a dozen system calls; a recovery runs only when something is wrong.
#pragma once

#include <sys/stat.h>
#include <chrono>
#include <optional>

#include "tools/mapload/recovery.hpp"
#include "tools/mapload/tables.hpp"

namespace tavrix::loader {

class Watch {
 public:
  // Looks, and repairs what is wrong. Returns the recovery if there was anything to do. Does
  // nothing while somebody else holds the lock.
  std::optional<mapload::Recovery> look();

 private:
  struct State {
    mapload::Tables tables;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec changed{};
    bool operator==(const State& other) const;
  };
  static State state_now();
  [[nodiscard]] bool is_due(const State& now) const;

  std::optional<State> well_;    // the state when nothing was wrong
  std::optional<State> beyond_;  // the state when a recovery could not help
  std::chrono::steady_clock::time_point tried_{};
};

}  // namespace tavrix::loader
