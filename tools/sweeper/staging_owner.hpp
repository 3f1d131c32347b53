// SPDX-License-Identifier: LGPL-3.0-or-later
// The staging buffer's owner: makes it, mends it, and takes over what an earlier run left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tavrix::sweeper {

// Afterwards there are a semaphore and a sound segment of at least that many bytes, and this
// process's own settings have the segment's size. Records of an earlier run stay. A larger segment
// stays as it is: a connection may work with its size. Does nothing when all is well. false, with
// the reason, when that cannot be had.
bool own_staging_buffer(int32_t bytes, std::string& problem);

// There is none: not only one that this process cannot look at.
[[nodiscard]] bool is_segment_missing();
// The segment's bytes; 0 when there is none.
[[nodiscard]] std::size_t segment_bytes();

// How full the buffer is.
struct Fill {
  uint32_t records = 0;
  uint64_t used = 0;   // bytes of records
  uint64_t bytes = 0;  // of the segment
};
[[nodiscard]] Fill buffer_fill();

}  // namespace tavrix::sweeper
