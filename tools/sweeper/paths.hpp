// SPDX-License-Identifier: LGPL-3.0-or-later
// Files by which the sweeper remembers things over its own end and the machine's.
#pragma once

namespace tavrix::sweeper {

constexpr const char* kConfFolder = "/tavrix/.conf";
constexpr const char* kRunningMark = "/tavrix/.conf/sweeper.running";

}  // namespace tavrix::sweeper
