// SPDX-License-Identifier: LGPL-3.0-or-later
// Work of the library that may end its process.
#pragma once

#include <string>

#include "tools/ctl/commands.hpp"

namespace tavrix::ctl {

// Runs the work in a process of its own and returns its exit code. When that process ends without
// one, because of a signal, an assertion or an exit within the library, returns kFailure after a
// sentence that says what happened and what to do. `name` begins the sentence, as in "the check".
int survive(const std::string& name, const Action& work);

}  // namespace tavrix::ctl
