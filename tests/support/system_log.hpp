// SPDX-License-Identifier: LGPL-3.0-or-later
// The system log of this world, as a daemon reads it: the lines of every process, with their
// priorities.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "internal/scoped.hpp"

namespace tavrix::test {

struct SystemLine {
  int priority = 0;     // facility and level
  std::string program;  // "smbd"
  std::string message;  // without the source file, line and function of the library's messages
};

class SystemLog {
 public:
  // Needs a private world: /dev becomes a folder of its own there.
  SystemLog();
  // The lines since the last call, in order.
  std::vector<SystemLine> take();

 private:
  void keep_what_is_there();
  Fd socket_;
  std::mutex mutex_;
  std::vector<SystemLine> lines_;
  std::jthread reader_;  // a queue that nobody empties stops the processes that write
};

}  // namespace tavrix::test
