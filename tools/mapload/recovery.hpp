// SPDX-License-Identifier: LGPL-3.0-or-later
// Puts right what a death, a power cut or a careless hand has left of the map: the semaphore set,
// the two tables, the local copy. One recovery for the service, for its watch and for operators.
#pragma once

#include <string>

#include "tools/mapload/report.hpp"

namespace tavrix::mapload {

enum class Restore {
  kNo,          // an import follows
  kYes,         // from the local copy, unless it is older than what was published
  kAsOperator,  // an older copy too
};

struct Recovery {
  Report report;           // what was wrong and what was done
  bool good = true;        // the published map is current, or there never was one
  bool try_again = false;  // a look failed; nothing was changed
  std::string status;      // one line
};

// Under the lock.
Recovery recover(Restore restore);

// A cheap look without the lock: false when a recovery would find something to do.
bool is_well();

// Removes tables that are not the published one, under the lock. How many, or -1.
int remove_stale_tables(Report& report);

}  // namespace tavrix::mapload
