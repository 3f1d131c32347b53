// SPDX-License-Identifier: LGPL-3.0-or-later
// Old tables that are still in memory. The kernel frees a removed segment when its last process
// detaches, so a process that does not detach keeps the memory of a whole map.
#pragma once

#include <cstddef>
#include <vector>

#include "tools/mapload/tables.hpp"

namespace tavrix::mapload {

// A segment as the kernel tells of it to everybody.
struct SegmentLook {
  bool is_removed = false;
  unsigned permission_bits = 0;
  unsigned long attachments = 0;
  std::size_t bytes = 0;
};
// True if the segment may be an old table: of the appliance's segments only tables have no
// permission bits. The header, which only root can read, makes it sure.
[[nodiscard]] bool may_be_old_table(const SegmentLook& look);

struct PinnedTable {
  Segment segment;
  unsigned long attachments = 0;  // one a process, as a rule
};

// Returns the removed tables that are attached somewhere. Tables that came and went between two
// calls are among them: they are found by what they are, not by their keys, which are gone.
[[nodiscard]] std::vector<PinnedTable> pinned_tables();

}  // namespace tavrix::mapload
