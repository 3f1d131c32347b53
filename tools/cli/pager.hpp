// SPDX-License-Identifier: LGPL-3.0-or-later
// Long output on a terminal, page by page.
#pragma once

#include <sys/types.h>

namespace tavrix::cli {

// Sends standard output through the program in $PAGER, less by default, until the end of its life.
// Does so only on a terminal, and not if $PAGER is empty or "cat". A person who leaves the pager
// early ends the program by SIGPIPE.
class Pager {
 public:
  explicit Pager(bool is_wanted);
  ~Pager();
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;

 private:
  pid_t pid_ = -1;
  int terminal_ = -1;
};

}  // namespace tavrix::cli
