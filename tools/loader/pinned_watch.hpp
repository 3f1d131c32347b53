// SPDX-License-Identifier: LGPL-3.0-or-later
// Reports old tables that stay in memory. Server processes detach an old table at their next
// decision, or a moment after their last one; a table that is attached for longer shows a process
// that hangs, or a program that never detaches.
#pragma once

#include <chrono>
#include <vector>

#include "tools/mapload/pinned.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::loader {

class PinnedWatch {
 public:
  // Reports each table once when it has been pinned for a while, and once when it is gone.
  mapload::Report look();

 private:
  using Clock = std::chrono::steady_clock;
  struct Known {
    mapload::PinnedTable table;
    Clock::time_point since;
    bool is_told = false;
  };
  void forget_gone(const std::vector<mapload::PinnedTable>& pinned, mapload::Report& report);
  Known& known(const mapload::PinnedTable& table);

  std::vector<Known> known_;
};

}  // namespace tavrix::loader
