// SPDX-License-Identifier: LGPL-3.0-or-later
// Shared by the services: messages for the journal (journal.hpp), and signals as input.
#pragma once

#include "internal/scoped.hpp"
#include "tools/service/journal.hpp"

namespace tavrix::service {

// Blocks SIGTERM, SIGINT and SIGHUP, and returns a descriptor that becomes readable when one comes.
Fd take_signals();
// Returns the number of the next signal that has come, or 0. Does not wait.
int next_signal(const Fd& signals);

}  // namespace tavrix::service
