// SPDX-License-Identifier: LGPL-3.0-or-later
// Changes the "staging buffer size" so that every event finds a buffer at any moment.
//
// A connection works with the size that the settings had when it began. It cannot attach a smaller
// segment, and it takes a buffer that is filled beyond its size for damaged. So the segment only
// grows, it grows before the settings name the new size, and the settings change only when no
// connection works with another size.
#pragma once

#include <cstdint>
#include <string>

#include "eventstore.h"

namespace tavrix::sweeper {

// Puts the size into the shared block if that is safe now. Returns true when the block has it, or
// false and the reason; then call it again later.
bool offer_buffer_size(int32_t bytes, global_param_s* block, std::string& why_not);

}  // namespace tavrix::sweeper
