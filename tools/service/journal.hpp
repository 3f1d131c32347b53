// SPDX-License-Identifier: LGPL-3.0-or-later
// Words of the programs on standard error: for the journal with their priority in front, as the
// service manager reads it, for people without.
#pragma once

#include <string_view>

namespace tavrix::service {

// Warning: something is held or refused, and what was before goes on. Error: a thing is not done.
enum class Tone { kInfo, kNotice, kWarning, kError };

// Each line of the text is a message of its own there, so each gets the priority.
void say(Tone tone, std::string_view text);

// True if standard error is the journal: a program that was started from a service inherits the
// variable that says so, but may write elsewhere.
bool is_journal();

}  // namespace tavrix::service
