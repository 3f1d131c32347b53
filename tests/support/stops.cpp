// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/stops.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <system_error>

namespace tavrix::test {
namespace {

constexpr int kAtCall = SIGTRAP | 0x80;  // with PTRACE_O_TRACESYSGOOD

void require(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

pid_t start_traced(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  require(pid >= 0, "fork");
  if (pid != 0) return pid;
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
  ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  raise(SIGSTOP);
  body();
  _exit(0);
}

// Opening is left out: a read changes nothing, and a file that was just made is seen in front of
// the next call.
bool is_change(long call) {
  constexpr long kChanges[] = {SYS_write,     SYS_ftruncate, SYS_fallocate,    SYS_fsync,
                               SYS_fdatasync, SYS_flock,     SYS_rename,       SYS_renameat2,
                               SYS_unlink,    SYS_lsetxattr, SYS_lremovexattr, SYS_shmget,
                               SYS_shmat,     SYS_shmctl,    SYS_shmdt,        SYS_semget,
                               SYS_semctl,    SYS_semop,     SYS_semtimedop};
  return std::find(std::begin(kChanges), std::end(kChanges), call) != std::end(kChanges);
}

// The number of the call that the child is about to make, or -1 behind a call.
long call_of(pid_t pid) {
  struct __ptrace_syscall_info info {};
  require(ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) > 0, "the call's number");
  return info.op == PTRACE_SYSCALL_INFO_ENTRY ? static_cast<long>(info.entry.nr) : -1;
}

}  // namespace

bool killed_at_change(int nth, const std::function<void()>& body) {
  const pid_t pid = start_traced(body);
  int status = 0;
  require(waitpid(pid, &status, 0) == pid && WIFSTOPPED(status), "the child's start");
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
  require(ptrace(PTRACE_SETOPTIONS, pid, nullptr, options) == 0, "options");
  int changes = 0;
  long signal = 0;
  for (;;) {
    require(ptrace(PTRACE_SYSCALL, pid, nullptr, signal) == 0, "to the next call");
    require(waitpid(pid, &status, 0) == pid, "wait");
    if (!WIFSTOPPED(status)) return false;
    signal = 0;
    if (WSTOPSIG(status) != kAtCall) {
      if (WSTOPSIG(status) != SIGTRAP) signal = WSTOPSIG(status);
      continue;
    }
    if (!is_change(call_of(pid)) || ++changes < nth) continue;
    kill(pid, SIGKILL);
    require(waitpid(pid, &status, 0) == pid, "the child's end");
    return true;
  }
}

}  // namespace tavrix::test
