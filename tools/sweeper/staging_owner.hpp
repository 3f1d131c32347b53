// The staging buffer's owner: makes it, and takes over what an earlier run left.
#pragma once

#include <cstdint>

namespace tavrix::sweeper {

// Afterwards there are a semaphore and a segment of the size in the settings. Records of an earlier
// run stay, or are flushed first when the segment is replaced by one of another size. false, after
// a line on standard error, when that cannot be had.
bool own_staging_buffer();

// Records in the buffer now.
uint32_t staged_records();

}  // namespace tavrix::sweeper
