// SPDX-License-Identifier: LGPL-3.0-or-later
// A new "staging buffer size", without a moment at which somebody's events find no buffer.
//
// A connection works with the size that the settings had when it began. It cannot attach a segment
// that is smaller, and takes a buffer that is filled past its size for damage. So the segment only
// ever grows, it grows before the settings say so, and the settings change when nobody is left who
// works with another size.
#pragma once

#include <cstdint>
#include <string>

#include "eventstore.h"

namespace tavrix::sweeper {

// Puts the size into the shared block as soon as that is safe: true when it is there, or false and
// the reason. Call it again then.
bool offer_buffer_size(int32_t bytes, global_param_s* block, std::string& why_not);

}  // namespace tavrix::sweeper
