// SPDX-License-Identifier: LGPL-3.0-or-later
// The library's lines for the system log, while a command runs.
#pragma once

namespace tavrix::ctl {

enum class LogTo { kSystemLog, kStandardError };

// Chooses where the lines go. This program defines syslog() itself, so that the operator can watch
// the library on the terminal.
void send_library_log(LogTo where);

// Sets the debug level of this process. A process without a parameter block gets one of its own.
void set_debug_level(int level);

}  // namespace tavrix::ctl
