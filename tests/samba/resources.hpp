// SPDX-License-Identifier: LGPL-3.0-or-later
// The resources of a server process: attached segments, descriptors, memory, and how often it has
// waited.
#pragma once

#include <unistd.h>
#include <fstream>
#include <string>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {

inline std::string of_process(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// The System V segments that a process has attached.
inline int attachments_of(pid_t pid) {
  std::ifstream maps(of_process(pid, "maps"));
  int count = 0;
  for (std::string line; std::getline(maps, line);) {
    count += line.find("/SYSV") != std::string::npos ? 1 : 0;
  }
  return count;
}

inline std::size_t descriptors_of(pid_t pid) { return list(of_process(pid, "fd")).size(); }

// A number of the process's status file, such as "RssAnon" (kB).
inline long status_of(pid_t pid, const std::string& name) {
  std::ifstream status(of_process(pid, "status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1));
  }
  return -1;
}

inline long waits_of(pid_t pid) { return status_of(pid, "voluntary_ctxt_switches"); }

// Waits for something that another process does; false when it does not come.
template <typename Condition>
bool comes(Condition condition) {
  for (int i = 0; i < 2000; ++i) {
    if (condition()) return true;
    usleep(10'000);
  }
  return false;
}

inline bool comes_to_rest(pid_t server) {
  return comes([server] { return attachments_of(server) == 0; });
}

}  // namespace tavrix::test
