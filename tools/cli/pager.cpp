// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cli/pager.hpp"

#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tavrix::cli {
namespace {

std::string pager() {
  const char* chosen = std::getenv("PAGER");
  const std::string command = chosen == nullptr ? "less" : chosen;
  return command == "cat" ? "" : command;
}

[[noreturn]] void become(const std::string& command, int input) {
  dup2(input, STDIN_FILENO);
  setenv("LESS", "FRX", 0);  // one screen needs no keys
  // A machine without the pager shows the output all the same.
  execl("/bin/sh", "sh", "-c",
        ("command -v " + command + " >/dev/null || exec cat; exec " + command).c_str(), nullptr);
  _exit(127);
}

}  // namespace

Pager::Pager(bool is_wanted) {
  if (!is_wanted || isatty(STDOUT_FILENO) == 0) return;
  const std::string command = pager();
  int ends[2];
  if (command.empty() || pipe(ends) != 0) return;
  std::fflush(stdout);
  pid_ = fork();
  if (pid_ == 0) {
    close(ends[1]);
    become(command, ends[0]);
  }
  if (pid_ > 0) {
    terminal_ = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
  }
  close(ends[0]);
  close(ends[1]);
}

Pager::~Pager() {
  if (pid_ <= 0) return;
  std::fflush(stdout);
  dup2(terminal_, STDOUT_FILENO);  // the pager's input ends
  close(terminal_);
  while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
  }
}

}  // namespace tavrix::cli
