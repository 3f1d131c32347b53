// SPDX-License-Identifier: LGPL-3.0-or-later
// A look at the group list map whenever it changes. Server processes read it without a check, and a
// flipped bit may make somebody an administrator; so at least the journal says so.
#pragma once

#include <sys/stat.h>

#include "tools/mapload/report.hpp"

namespace tavrix::loader {

class GroupMapWatch {
 public:
  // Reports what is wrong with it, once a change.
  mapload::Report look();

 private:
  timespec changed_{};
  off_t size_ = -1;
  bool missing_was_told_ = false;  // of the checksum: writers of old make none
};

}  // namespace tavrix::loader
