// SPDX-License-Identifier: LGPL-3.0-or-later
// Processes that are killed at random moments, and the lists of what was acknowledged to them.
#pragma once

#include <fcntl.h>
#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "tests/storms/storm.hpp"
#include "tests/support/files.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {

class KilledProcesses {
 public:
  void add(const std::function<void()>& body) {
    processes_.push_back(std::make_unique<Child>(body));
  }
  // Kills one after another, in any order. A process that ended before is a failure.
  void kill_all(Storm& storm) {
    std::shuffle(processes_.begin(), processes_.end(), storm.random);
    for (auto& process : processes_) {
      usleep(storm.below(8000));
      process->kill();
    }
    for (auto& process : processes_) {
      const Outcome outcome = process->wait();
      EXPECT_EQ(SIGKILL, outcome.signal)
          << storm.where() << ": exit " << outcome.exit_code << ": " << outcome.err;
      storm.count("process killed");
    }
  }

 private:
  std::vector<std::unique_ptr<Child>> processes_;
};

// A writer's own list of the paths whose records were acknowledged. What is written to it is there
// after the writer's death.
class AcknowledgedList {
 public:
  explicit AcknowledgedList(int writer)
      : file_(open(path_of(writer).c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600)) {}
  void add(const std::string& path) {
    const std::string line = path + "\n";
    if (::write(file_.get(), line.data(), line.size()) < 0) _exit(1);
  }
  // Moves the lists of all writers into one set.
  static void collect(int writers, std::set<std::string>& acknowledged) {
    for (int writer = 0; writer < writers; ++writer) {
      if (!exists(path_of(writer))) continue;
      add_whole_lines(read_file(path_of(writer)), acknowledged);
      remove_all(path_of(writer));
    }
  }

 private:
  // A kill cuts a write where a page of the file ends, so the last line may be a part of one.
  static void add_whole_lines(const std::string& text, std::set<std::string>& lines) {
    for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos;
         at = end + 1) {
      lines.insert(text.substr(at, end - at));
    }
  }
  static std::string path_of(int writer) {
    return "/scratch/acknowledged" + std::to_string(writer);
  }
  Fd file_;
};

}  // namespace tavrix::test
