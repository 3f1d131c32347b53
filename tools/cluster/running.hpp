// SPDX-License-Identifier: LGPL-3.0-or-later
// Marks of nodes that run, in the shared tree. A node's mark says that there may be events in its
// memory: its sweeper makes it before the buffer, and removes it after the last flush.
//
// The mark of a node that is gone is taken by a rename, which one process wins. The winner tells of
// the loss and then removes the file, so a winner that dies leaves the file for the next one.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix::cluster {

struct RunningMark {
  std::string node;
  std::string boot;     // the run of the machine
  std::string address;  // as the nodes know each other; empty when it is not known
};

[[nodiscard]] std::string running_mark_path(std::string_view node);

// The marks of all nodes, without those that are taken.
[[nodiscard]] std::vector<RunningMark> running_marks();

// This node's address in CTDB, as CTDB's event script has written it; empty when it has not.
[[nodiscard]] std::string this_address();

// Makes the mark of a node for this run of the machine and its address, or touches it. It replaces
// no mark of another run. Returns false and sets errno when it fails.
[[nodiscard]] bool set_running_mark(std::string_view node);

enum class Taking {
  kNothing,  // there is no mark
  kTold,
  kElsewhere,  // another process has taken it, and tells
  kUntold,     // the loss could not be told; the taken mark waits for another attempt
};

// Makes a loss known for good; returns false if that failed.
using Tell = std::function<bool(const std::string& node)>;

// Takes the mark of a node and tells of the loss.
Taking take_running_mark(const std::string& node, const Tell& tell);
// Tells of the losses whose tellers died.
void finish_taken_marks(const Tell& tell);

}  // namespace tavrix::cluster
