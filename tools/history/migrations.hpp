// SPDX-License-Identifier: LGPL-3.0-or-later
// Brings the tables of the history from any older version to the present one.
#pragma once

#include <sqlite3.h>

namespace tavrix::history {

// Goes from the version to the present one, each step in a transaction with its version number.
// Version 0 is a new file. Returns false with the failure on the connection.
[[nodiscard]] bool migrate(sqlite3* database, int version);

}  // namespace tavrix::history
