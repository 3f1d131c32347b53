// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs the library's two passes, each in a process of its own: a file that breaks the grammar
// aborts that process, and neither the table nor the calling program goes with it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "mkperms_shm.h"

namespace tavrix::mapload {

// How a pass ended.
struct PassEnd {
  enum class Kind { kReturned, kAborted, kKilled, kNotStarted, kStopped } kind = Kind::kReturned;
  int code = 0;    // kReturned
  int signal = 0;  // kKilled
  int error = 0;   // kNotStarted
  [[nodiscard]] bool ok() const { return kind == Kind::kReturned && code == 0; }
  // True if the same files may pass the next time.
  [[nodiscard]] bool is_transient() const;
  [[nodiscard]] std::string text() const;
};

struct Supervision {
  bool verbose = false;               // lets the library's own output through
  std::function<void()> progress;     // called while a pass runs, about every 50 ms
  std::function<bool()> should_stop;  // likewise; true ends the pass
  std::function<int()> prepare;       // called in the child; an errno keeps the pass from starting
};

// Runs other work in a process of its own; its code is what it returns.
PassEnd run_apart(const std::function<int()>& work, const Supervision& how);

// Reads the counts of the size file, or of the local copy when both paths are null.
struct SizePass {
  PassEnd end;
  memsummary_s summary{};  // without its paths
};
SizePass run_size_pass(const char* size_path, const char* data_path, const Supervision& how);

// Fills the image at summary.membuf from the data file and writes the local copy; without file
// names in the summary, fills it from the local copy.
PassEnd run_data_pass(const memsummary_s& summary, const Supervision& how);

// The number of folders that a running data pass has filled so far.
[[nodiscard]] uint64_t folders_done(const void* image);

}  // namespace tavrix::mapload
