// SPDX-License-Identifier: LGPL-3.0-or-later
// Shared by the appliance's services: words for the journal (journal.hpp), and signals as input.
#pragma once

#include "internal/scoped.hpp"
#include "tools/service/journal.hpp"

namespace tavrix::service {

// SIGTERM, SIGINT and SIGHUP are blocked from now on and come from here.
Fd take_signals();
// The number of the signal that is there, or 0.
int next_signal(const Fd& signals);

}  // namespace tavrix::service
