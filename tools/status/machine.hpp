// SPDX-License-Identifier: LGPL-3.0-or-later
// The machine as every user may see it: segments of System V, processes, locks, folders.
//
// Nothing here attaches, locks or makes anything.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrix::status {

// A segment of shared memory in this IPC namespace.
struct Segment {
  int id = -1;  // -1: there is none
  int key = 0;  // 0 for one that was removed and is still attached
  unsigned mode = 0;
  uid_t owner = 0;
  uint64_t bytes = 0;
  int64_t attached = 0;  // attachments
  int64_t created = 0;   // seconds since 1970
  pid_t creator = 0;
  bool is_removed = false;  // it goes with its last attachment
  [[nodiscard]] bool exists() const { return id != -1; }
};
// All segments. The kernel tells them to every user, whatever their permission bits.
std::vector<Segment> segments();
Segment segment_of(const std::vector<Segment>& all, int key);

struct Process {
  pid_t pid = 0;
  std::string name;
  bool operator==(const Process&) const = default;
};
// The processes of a program in our IPC namespace, by the name of its file. A process that this
// user cannot look at counts by its short name alone.
std::vector<Process> processes_of(const std::string& program);
// The processes that have the segment attached, without those that this user may not look into.
// Nothing when there are such processes and no other has it.
std::optional<std::vector<Process>> holders_of(const Segment& segment);
// The second at which a process began.
std::optional<int64_t> start_of(pid_t pid);

// True if somebody holds a lock of the whole file.
bool is_locked(const std::string& path);

// The second of a file's last write. Nothing when there is no file, or when it cannot be seen;
// errno tells.
std::optional<int64_t> time_of(const std::string& path);
// The first line of a file, without its newline; empty when it cannot be read.
std::string first_line(const std::string& path);

}  // namespace tavrix::status
