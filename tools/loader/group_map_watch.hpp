// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks the group list map whenever it changes. Server processes read it unchecked, and a flipped
// bit may make somebody an administrator. The loader cannot stop them, but it tells the journal.
#pragma once

#include <sys/stat.h>

#include "tools/mapload/report.hpp"

namespace tavrix::loader {

class GroupMapWatch {
 public:
  // Reports what is wrong with the map, once after each change.
  mapload::Report look();

 private:
  timespec changed_{};
  off_t size_ = -1;
  bool missing_was_told_ = false;  // that there is no checksum: older writers make none
};

}  // namespace tavrix::loader
