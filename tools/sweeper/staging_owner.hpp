// SPDX-License-Identifier: LGPL-3.0-or-later
// Makes and repairs the staging buffer, and takes over what an earlier run left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tavrix::sweeper {

// Makes sure that there are a semaphore and a sound segment of at least that many bytes, and sets
// the size in this process's own settings to that of the segment. Keeps the records of an earlier
// run. Keeps a larger segment, because a connection may work with its size. Returns false and the
// reason when it fails.
bool own_staging_buffer(int32_t bytes, std::string& problem);

// True if there is no segment. False also for one that this process cannot look at.
[[nodiscard]] bool is_segment_missing();
// The size of the segment in bytes; 0 when there is none.
[[nodiscard]] std::size_t segment_bytes();

// How full the buffer is.
struct Fill {
  uint32_t records = 0;
  uint64_t used = 0;   // bytes of records
  uint64_t bytes = 0;  // of the segment
};
[[nodiscard]] Fill buffer_fill();

}  // namespace tavrix::sweeper
