// SPDX-License-Identifier: LGPL-3.0-or-later
// The mark on the disk that says: there may be events in memory.
//
// Shared memory does not survive the machine's stop. The mark is made before the buffer is, and
// goes at a clean stop after the last flush; found without a buffer it says that events are lost.
#pragma once

#include <string>

namespace tavrix::sweeper {

// Asks the agent for a rescan when the mark is there and the buffer is not. Once at the start, and
// whenever the buffer may have been taken away, before it is made again.
void look_for_lost_buffer();

// Makes the mark when it is not there, synced.
void set_running_mark();
void clear_running_mark();

// Tells the agent and the journal. What cannot be written now is tried again by the next call of
// repeat_rescan_request().
void ask_for_rescan(const std::string& reason);
void repeat_rescan_request();

}  // namespace tavrix::sweeper
