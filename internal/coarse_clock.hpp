// SPDX-License-Identifier: LGPL-3.0-or-later
// A clock that is read without a system call and advances with the kernel's ticks.
#pragma once

#include <ctime>

namespace tavrix {

// Whole seconds since some moment before the start of the process.
[[nodiscard]] inline time_t coarse_seconds() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

}  // namespace tavrix
