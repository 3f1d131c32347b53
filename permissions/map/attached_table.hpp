// SPDX-License-Identifier: LGPL-3.0-or-later
// The table that a thread has attached between get_perm_map_addr() and put_perm_map_addr().
#pragma once

#include <sys/shm.h>
#include <cstddef>

#include "internal/per_thread.hpp"

namespace tavrix {

// Identifies a segment of shared memory. The kernel uses an identifier again after many others, but
// not with the same time and maker. All zero means no segment, since none was made at time zero.
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

// This thread's table, if `image` is that table. Null for an image elsewhere: its size is unknown,
// and nothing learnt about it may be kept, because it may change.
[[nodiscard]] inline const AttachedTable* attached_table_at(const void* image) noexcept {
  const AttachedTable* table = attached_table.find();
  return table != nullptr && table->address == image && image != nullptr ? table : nullptr;
}

}  // namespace tavrix
