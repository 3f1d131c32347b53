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
  constexpr long kChanges[] = {
      SYS_write,      SYS_ftruncate, SYS_fallocate, SYS_fsync,     SYS_fdatasync,    SYS_flock,
      SYS_rename,     SYS_renameat2, SYS_unlink,    SYS_lsetxattr, SYS_lremovexattr, SYS_shmget,
      SYS_shmat,      SYS_shmctl,    SYS_shmdt,     SYS_semget,    SYS_semctl,       SYS_semop,
      SYS_semtimedop, SYS_link,      SYS_mkdir,     SYS_pwrite64};
  return std::find(std::begin(kChanges), std::end(kChanges), call) != std::end(kChanges);
}

// The number of the call that the child is about to make, or -1 behind a call.
long call_of(pid_t pid) {
  struct __ptrace_syscall_info info {};
  require(ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) > 0, "the call's number");
  return info.op == PTRACE_SYSCALL_INFO_ENTRY ? static_cast<long>(info.entry.nr) : -1;
}

enum class Calls { kChanges, kAll };

// A child that is traced from call to call.
class TracedChild {
 public:
  TracedChild(const std::function<void()>& body, Calls calls)
      : pid_(start_traced(body)), calls_(calls) {
    wait();
    require(WIFSTOPPED(status_), "the child's start");
    const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
    require(ptrace(PTRACE_SETOPTIONS, pid_, nullptr, options) == 0, "options");
  }

  // Runs to the front of the nth call; false when the child has ended.
  bool run_to(int nth) {
    for (int seen = 0; run_to_stop();) {
      if (is_counted(call_of(pid_)) && ++seen == nth) return true;
    }
    return false;
  }
  void kill_here() {
    ::kill(pid_, SIGKILL);
    wait();
  }
  // How the child ended, as waitpid() tells it.
  int run_to_end() {
    while (run_to_stop()) {
    }
    return status_;
  }

 private:
  // To the next stop in front of a call or behind one.
  bool run_to_stop() {
    for (long signal = 0;;) {
      require(ptrace(PTRACE_SYSCALL, pid_, nullptr, signal) == 0, "to the next call");
      wait();
      if (!WIFSTOPPED(status_)) return false;
      if (WSTOPSIG(status_) == kAtCall) return true;
      signal = WSTOPSIG(status_) != SIGTRAP ? WSTOPSIG(status_) : 0;
    }
  }
  [[nodiscard]] bool is_counted(long call) const {
    return call != -1 && (calls_ == Calls::kAll || is_change(call));
  }
  void wait() { require(waitpid(pid_, &status_, 0) == pid_, "wait"); }

  pid_t pid_;
  Calls calls_;
  int status_ = 0;
};

bool killed(int nth, const std::function<void()>& body, Calls calls) {
  TracedChild child(body, calls);
  if (!child.run_to(nth)) return false;
  child.kill_here();
  return true;
}

}  // namespace

bool killed_at_change(int nth, const std::function<void()>& body) {
  return killed(nth, body, Calls::kChanges);
}

bool killed_at_call(int nth, const std::function<void()>& body) {
  return killed(nth, body, Calls::kAll);
}

bool stopped_at_change(int nth, const std::function<void()>& body,
                       const std::function<void()>& action) {
  TracedChild child(body, Calls::kChanges);
  if (!child.run_to(nth)) return false;
  action();
  const int status = child.run_to_end();
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status) << " after change " << nth;
  return true;
}

}  // namespace tavrix::test
