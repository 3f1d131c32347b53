// SPDX-License-Identifier: LGPL-3.0-or-later
// Counts the processes that work with the library now. Each has the settings of the moment when it
// began.
#pragma once

namespace tavrix::sweeper {

// Returns the number of server processes: those that have the library mapped and share our System V
// objects. The appliance's own programs write no events and are not counted.
int live_connections();

}  // namespace tavrix::sweeper
