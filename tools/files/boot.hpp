// SPDX-License-Identifier: LGPL-3.0-or-later
// The run of the machine.
#pragma once

#include <string>

namespace tavrix::files {

// The kernel's name of this run, another one after each boot; "unknown" when it cannot be read.
[[nodiscard]] std::string this_boot();

}  // namespace tavrix::files
