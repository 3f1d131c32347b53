// SPDX-License-Identifier: LGPL-3.0-or-later
// Processes that work with the library now, each with the settings of the moment when it began.
#pragma once

namespace tavrix::sweeper {

// Server processes: those that have the library mapped and meet us in shared memory. The
// appliance's own programs write no events and are not counted.
int live_connections();

}  // namespace tavrix::sweeper
