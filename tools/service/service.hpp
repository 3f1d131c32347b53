// What the appliance's services share: words for the journal, and signals as input.
#pragma once

#include <string>

#include "internal/scoped.hpp"

namespace tavrix::service {

enum class Tone { kInfo, kError };

// To the journal, with its level in front, or to a terminal.
void say(Tone tone, const std::string& text);

// SIGTERM, SIGINT and SIGHUP are blocked from now on and come from here.
Fd take_signals();
// The number of the signal that is there, or 0.
int next_signal(const Fd& signals);

}  // namespace tavrix::service
