// SPDX-License-Identifier: LGPL-3.0-or-later
// The mark on the disk says that there may be events in memory.
//
// Shared memory does not survive a stop of the machine. The mark is made before the buffer and
// removed at a clean stop after the last flush. A mark without a buffer means that events may be
// lost.
//
// On a cluster each node has a mark of its own, by which other nodes tell of the loss when this one
// is gone (tools/cluster/running.hpp).
#pragma once

#include <string>

namespace tavrix::sweeper {

// Chooses the mark by the settings in that file: this machine's, or this node's of a cluster.
// Returns false and the reason for a node that has no name.
bool choose_running_mark(const std::string& settings_file, std::string& problem);
// The file, by the same settings. Its time is that of the last period's work.
[[nodiscard]] std::string running_mark_path(const std::string& settings_file);

// Asks the agent for a rescan when the mark is there and the buffer is not, or when the mark is of
// another run of this node. Call it before the buffer is made: at the start, and whenever somebody
// may have removed it.
void look_for_lost_buffer();

// Makes the mark when it is not there, and syncs it. Touches it otherwise, so that its time tells
// when the sweeper worked last. A mark that another node took while this one lives is made anew.
void set_running_mark();
void clear_running_mark();

// Asks the agent for a rescan and tells the journal. A request that cannot be written now is tried
// again by repeat_rescan_request().
void ask_for_rescan(const std::string& reason);
void repeat_rescan_request();

}  // namespace tavrix::sweeper
