// SPDX-License-Identifier: LGPL-3.0-or-later
// A progress bar on the terminal, for work that takes longer than a moment.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tavrix::cli {

// Draws on standard error, and only on a terminal that can move its cursor. The bar appears after
// half a second and is gone at the end. Clear it before anything else is printed.
class ProgressBar {
 public:
  // Never draws unless `is_wanted`.
  explicit ProgressBar(bool is_wanted);
  ~ProgressBar() { clear(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Cheap enough for each piece of the work: it draws ten times a second at most.
  void show(const char* task, uint64_t done, uint64_t total);
  void clear();

 private:
  using Clock = std::chrono::steady_clock;
  bool can_draw_;
  bool is_drawn_ = false;
  Clock::time_point next_;
};

// One line, without the return to its start: "checking [=====     ]  50%". It is narrower than the
// terminal, because a line that wraps cannot be erased.
[[nodiscard]] std::string progress_line(const std::string& task, uint64_t done, uint64_t total,
                                        unsigned columns);

}  // namespace tavrix::cli
