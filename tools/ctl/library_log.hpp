// SPDX-License-Identifier: LGPL-3.0-or-later
// What the library says to the system log while a command runs.
#pragma once

namespace tavrix::ctl {

enum class LogTo { kSystemLog, kStandardError };

// This program defines syslog() itself, so that its operator may watch the library.
void send_library_log(LogTo where);

// Gives this process a parameter block of its own with that debug level, unless it has one.
void set_debug_level(int level);

}  // namespace tavrix::ctl
