// SPDX-License-Identifier: LGPL-3.0-or-later
// Files in which the sweeper remembers things beyond its own end and a stop of the machine.
#pragma once

namespace tavrix::sweeper {

constexpr const char* kConfFolder = "/tavrix/.conf";
constexpr const char* kRunningMark = "/tavrix/.conf/sweeper.running";

}  // namespace tavrix::sweeper
