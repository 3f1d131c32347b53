// SPDX-License-Identifier: LGPL-3.0-or-later
// Alarms of the event pipeline: they say that events were lost, so the history has a gap there.
#pragma once

#include <sqlite3.h>

namespace tavrix::historian {

// Keeps a notice of each alarm that was raised since the last look. False on a failure.
[[nodiscard]] bool note_alarms(sqlite3* database);

}  // namespace tavrix::historian
