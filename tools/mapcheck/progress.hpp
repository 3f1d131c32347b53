// SPDX-License-Identifier: LGPL-3.0-or-later
// Progress of a check that may take long.
#pragma once

#include <cstdint>
#include <functional>

namespace tavrix::mapcheck {

// Called again and again while the work is done, by the thread that does it; may be empty.
using Progress = std::function<void(uint64_t done, uint64_t total)>;

}  // namespace tavrix::mapcheck
