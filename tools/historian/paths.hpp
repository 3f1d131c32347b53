// SPDX-License-Identifier: LGPL-3.0-or-later
// The historian's files in the appliance's own folder.
#pragma once

#include "eventstore.h"

namespace tavrix::historian {

// The dump files that wait to be taken. A flush links them here.
constexpr const char* kLinks = TAVRIX_HISTORY_FOLDER;
constexpr const char* kRefused = TAVRIX_HISTORY_FOLDER "/refused";
// Its time is that of the historian's last look.
constexpr const char* kMark = TAVRIX_CONF_FOLDER "/historian.running";

constexpr const char* kEventsPrefix = "events.";
constexpr const char* kAuditPrefix = "audit.";

}  // namespace tavrix::historian
