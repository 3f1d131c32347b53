// SPDX-License-Identifier: LGPL-3.0-or-later
// Work that a file system may keep for ever, such as a shared tree that waits for its cluster.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace tavrix::ctl {

struct InTime {
  enum class End {
    kDone,
    kHangs,  // longer than the patience
    kDied    // without an answer
  } end = End::kDied;
  std::string text;  // the answer
};

// Does the work in a process of its own. Nothing ends a process that waits for a file system, so
// one that hangs is left behind, without the caller's output: it ends when the tree answers.
[[nodiscard]] InTime in_time(std::chrono::milliseconds patience,
                             const std::function<std::string()>& work);

}  // namespace tavrix::ctl
