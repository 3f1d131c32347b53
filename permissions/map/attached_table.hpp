// SPDX-License-Identifier: LGPL-3.0-or-later
// The current table, as a thread has it attached between get_perm_map_addr() and
// put_perm_map_addr().
#pragma once

#include <sys/shm.h>
#include <cstddef>

#include "internal/per_thread.hpp"

namespace tavrix {

// Tells segments apart: an identifier comes back after many others, but not with its time and
// maker. All zero is no segment: none was made at the time zero.
struct SegmentIdentity {
  int segment;
  pid_t maker;
  time_t made;
  bool operator==(const SegmentIdentity&) const = default;
};

struct AttachedTable {
  const void* address = nullptr;
  std::size_t size = 0;
  SegmentIdentity identity{};
};
inline PerThread<AttachedTable> attached_table;

// The table of this thread, if the image is it; null for images elsewhere, of which nothing is
// known and nothing may be kept, for they may change.
[[nodiscard]] inline const AttachedTable* attached_table_at(const void* image) noexcept {
  const AttachedTable* table = attached_table.find();
  return table != nullptr && table->address == image && image != nullptr ? table : nullptr;
}

}  // namespace tavrix
