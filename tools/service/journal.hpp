// SPDX-License-Identifier: LGPL-3.0-or-later
// Prints the programs' messages to standard error. When that is the journal, each line begins with
// its priority in the form that the service manager reads; on a terminal it does not.
#pragma once

#include <string_view>

namespace tavrix::service {

// A warning says that something is refused or waits, and that the previous state stays. An error
// says that something could not be done.
enum class Tone { kInfo, kWarning, kError };

// Prints a text of one or more lines. The journal stores each line as a message of its own, so each
// line gets the priority.
void say(Tone tone, std::string_view text);

// True if standard error is the journal. Compares the file behind it with $JOURNAL_STREAM, because
// a program that a service starts inherits the variable even when its output goes elsewhere.
bool is_journal();

}  // namespace tavrix::service
