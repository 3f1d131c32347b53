// SPDX-License-Identifier: LGPL-3.0-or-later
// The tables that a thread has attached: one between get_perm_map_addr() and put_perm_map_addr(),
// and one that it keeps for a scope or a session.
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

struct AttachedTables {
  AttachedTable passing;  // between get_perm_map_addr() and put_perm_map_addr()
  AttachedTable kept;
};
inline PerThread<AttachedTables> attached_tables;

// This thread's table, if `image` is one of its tables. Null for an image elsewhere: its size is
// unknown, and nothing learnt about it may be kept, because it may change.
[[nodiscard]] inline const AttachedTable* attached_table_at(const void* image) noexcept {
  const AttachedTables* tables = attached_tables.find();
  if (tables == nullptr || image == nullptr) return nullptr;
  if (tables->kept.address == image) return &tables->kept;
  return tables->passing.address == image ? &tables->passing : nullptr;
}

// Makes the passing table the kept one, so that the next get_perm_map_addr() does not replace it.
// Null when nothing is known about the table.
[[nodiscard]] inline const AttachedTable* keep_attached_table(const void* image) noexcept {
  AttachedTables* tables = attached_tables.find();
  if (tables == nullptr || tables->passing.address != image) return nullptr;
  tables->kept = tables->passing;
  tables->passing = {};
  return &tables->kept;
}
inline void forget_kept_table() noexcept {
  if (AttachedTables* tables = attached_tables.find(); tables != nullptr) tables->kept = {};
}

}  // namespace tavrix
