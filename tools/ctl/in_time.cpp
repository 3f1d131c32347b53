// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/in_time.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "internal/scoped.hpp"

namespace tavrix::ctl {
namespace {

using Clock = std::chrono::steady_clock;
using End = InTime::End;

// A byte behind the answer says that it is whole.
constexpr char kWhole = '\n';

// Whoever reads the caller's output waits until nobody has it open any more.
void let_go_of_output() {
  const Fd nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(nowhere.get(), stream);
  }
}

[[noreturn]] void be_the_child(const std::function<std::string()>& work, int pipe_end) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  let_go_of_output();
  std::string answer;
  try {
    answer = work() + kWhole;
  } catch (const std::exception&) {
    _exit(1);
  }
  for (std::size_t at = 0; at < answer.size();) {
    const ssize_t written = write(pipe_end, answer.data() + at, answer.size() - at);
    if (written < 0 && errno != EINTR) _exit(1);
    at += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
  }
  _exit(0);
}

// Reads until the other end is closed.
End read_until(Clock::time_point end, int pipe_end, std::string& text) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd ready{pipe_end, POLLIN, 0};
    const int count = poll(&ready, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    if (count == 0) return End::kHangs;
    if (count < 0) continue;  // a signal
    char part[4096];
    const ssize_t got = read(pipe_end, part, sizeof part);
    if (got == 0) return text.ends_with(kWhole) ? End::kDone : End::kDied;
    if (got > 0) text.append(part, static_cast<std::size_t>(got));
  }
}

}  // namespace

InTime in_time(std::chrono::milliseconds patience, const std::function<std::string()>& work) {
  InTime result;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return result;
  const Fd reader(ends[0]);
  Fd writer(ends[1]);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) be_the_child(work, writer.get());
  writer.reset();
  if (child == -1) return result;
  result.end = read_until(Clock::now() + patience, reader.get(), result.text);
  if (result.end == End::kHangs) {
    kill(child, SIGKILL);
  } else {
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) continue;
  }
  if (result.end == End::kDone) result.text.pop_back();
  return result;
}

}  // namespace tavrix::ctl
