// SPDX-License-Identifier: LGPL-3.0-or-later
// The second name of a dump file, by which the history finds it after the agent took the first one.
//
// A flush gives it when the file alone has its records, directly before the file's own name. So a
// file with a second name is whole, and its records are in no buffer. A flusher that is killed
// between the two leaves a file that somebody else names again: one file may then have several
// names here.
#pragma once

namespace tavrix {

enum class HistoryKind { kEvents, kAudit };

// Links the file into TAVRIX_HISTORY_FOLDER. "DIR/FOLDER/pending_1_2.3" becomes
// "events.FOLDER.pending_1_2.3": on a cluster each node has a folder of its name, and the history
// tells by it whose records they are. Without TAVRIX_HISTORY_FOLDER nothing happens. Any other
// failure is logged and changes nothing: the agent comes first.
void link_for_history(const char* file, HistoryKind kind, const char* dump_name) noexcept;

}  // namespace tavrix
