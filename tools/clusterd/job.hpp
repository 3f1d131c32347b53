// SPDX-License-Identifier: LGPL-3.0-or-later
// Work in a child, beside the daemon's looks: an import of a large map takes minutes, and the lease
// must be renewed meanwhile. The child ends with the daemon.
#pragma once

#include <sys/types.h>
#include <functional>
#include <optional>

#include "internal/scoped.hpp"
#include "tools/clusterd/prepare.hpp"

namespace tavrix::clusterd {

class Job {
 public:
  Job() = default;
  ~Job();
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  // False with errno.
  [[nodiscard]] bool start(const std::function<Outcome()>& work);
  [[nodiscard]] bool is_running() const { return pid_ > 0; }
  // The outcome when the work has ended since the last call.
  [[nodiscard]] std::optional<Outcome> ended();

 private:
  pid_t pid_ = 0;
  Fd text_;  // the child writes its sentence there
};

}  // namespace tavrix::clusterd
