// SPDX-License-Identifier: LGPL-3.0-or-later
// Repairs the semaphore set, the two tables and the local copy after a death, a power cut or a
// slip. The service, its watch and the operators' commands share this one recovery.
#pragma once

#include <string>

#include "tools/mapload/report.hpp"

namespace tavrix::mapload {

enum class Restore {
  kNo,          // makes no table from the local copy, because an import follows
  kYes,         // makes one, unless the copy is older than the map published last
  kAsOperator,  // makes one from an older copy too
};

struct Recovery {
  Report report;           // what was wrong and what was done
  bool good = true;        // the published map is current, or there never was one
  bool try_again = false;  // a call failed in a way that may pass by itself
  std::string status;      // one line
};

// Call it under the lock of the maps.
Recovery recover(Restore restore);

// A cheap check without the lock: false when a recovery would find something to do.
bool is_well();

// Removes the table that is not the published one. Call it under the lock. Returns the number of
// tables removed, or -1.
int remove_stale_tables(Report& report);

}  // namespace tavrix::mapload
