// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/job.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

namespace tavrix::clusterd {
namespace {

// Fits into a pipe, so the child never waits for its reader.
constexpr std::size_t kLongest = 4000;

Outcome run(const std::function<Outcome()>& work) {
  try {
    return work();
  } catch (const std::exception& error) {
    return {Outcome::Kind::kFailed, error.what()};
  }
}

[[noreturn]] void be_the_child(pid_t parent, int text, const std::function<Outcome()>& work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  Outcome outcome = run(work);
  outcome.text.resize(std::min(outcome.text.size(), kLongest));
  const ssize_t written = write(text, outcome.text.data(), outcome.text.size());
  std::fflush(nullptr);
  _exit(written < 0 ? 1 : static_cast<int>(outcome.kind));
}

std::string read_rest(const Fd& pipe) {
  std::array<char, kLongest> buffer{};
  const ssize_t got = read(pipe.get(), buffer.data(), buffer.size());
  return got > 0 ? std::string(buffer.data(), static_cast<std::size_t>(got)) : "";
}

}  // namespace

Job::~Job() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool Job::start(const std::function<Outcome()>& work) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return false;
  text_.reset(ends[0]);
  const Fd write_end(ends[1]);
  const pid_t parent = getpid();
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) be_the_child(parent, write_end.get(), work);
  if (pid < 0) return false;
  pid_ = pid;
  return true;
}

std::optional<Outcome> Job::ended() {
  int status = 0;
  if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) return std::nullopt;
  pid_ = 0;
  Outcome outcome{Outcome::Kind::kFailed, read_rest(text_)};
  if (WIFEXITED(status) && WEXITSTATUS(status) <= static_cast<int>(Outcome::Kind::kRefused)) {
    outcome.kind = static_cast<Outcome::Kind>(WEXITSTATUS(status));
  } else if (WIFSIGNALED(status)) {
    outcome.text = std::string("its process ended: ") + strsignal(WTERMSIG(status));
  }
  return outcome;
}

}  // namespace tavrix::clusterd
