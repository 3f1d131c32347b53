// SPDX-License-Identifier: LGPL-3.0-or-later
// The folder in which flushes link their dump files for the historian.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "internal/scoped.hpp"

namespace tavrix::historian {

// A dump file that waits.
struct Link {
  std::string name;
  std::string folder;  // the name of the folder that the dump file lay in; empty if it is unknown
  std::string node;    // whose records they are; empty on a machine alone
  bool is_audit = false;
  int64_t time = 0;  // microseconds since the epoch, from the name or else from the file
};

// In the order of time. Names that no flush gives are left out.
[[nodiscard]] std::vector<Link> waiting_links();

// A link's file. Its inode and the time of its last write tell it from others under any name.
struct Content {
  uint64_t inode = 0;
  int64_t mtime = 0;  // nanoseconds since the epoch
  std::string bytes;
};
enum class Read { kDone, kGone, kForeign, kFailed };  // kFailed: errno says why
[[nodiscard]] Read read_link_file(const std::string& name, Content& content);

[[nodiscard]] bool remove_link(const std::string& name);
// Moves a file that no flush wrote to the folder of refused ones, with the reason in a file beside
// it. Returns false with errno.
[[nodiscard]] bool refuse_link(const std::string& name, const std::string& reason);
[[nodiscard]] unsigned refused_files();

enum class Folder { kThere, kMade, kGone, kFailed };
// Makes the folder, and those above it, when there is none.
[[nodiscard]] Folder make_links_folder();
[[nodiscard]] bool has_links_folder();

// Links the dump files that wait in the agent's folders, because they may have been made while
// there was no folder of links. Leaves out those that were refused already, and those last written
// before `since`, in microseconds. Returns their number.
unsigned adopt_waiting_dumps(const std::vector<std::string>& staging,
                             const std::vector<std::string>& auditing, int64_t since);

// A lock on a folder, or none while another process has it. The kernel drops it with its process.
[[nodiscard]] Fd lock_folder(const std::string& folder);

}  // namespace tavrix::historian
