// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/terminal.hpp"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <system_error>

#include "tests/support/become_program.hpp"

namespace tavrix::test {
namespace {

constexpr std::chrono::seconds kPatience{30};
constexpr winsize kSize{24, 80, 0, 0};

}  // namespace

TerminalOutcome run_on_terminal(
    const std::vector<std::string>& argv,
    const std::vector<std::pair<std::string, std::string>>& answers,
    const std::vector<std::pair<std::string, std::string>>& environment) {
  std::fflush(nullptr);
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, &kSize);
  if (child == -1) throw std::system_error(errno, std::generic_category(), "forkpty");
  if (child == 0) {
    become_program(argv, environment);
    _exit(127);
  }
  TerminalOutcome outcome;
  std::size_t next_answer = 0;
  std::size_t looked_at = 0;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    pollfd ready{master, POLLIN, 0};
    if (poll(&ready, 1, 100) > 0) {
      char bytes[4096];
      const ssize_t length = read(master, bytes, sizeof bytes);
      if (length <= 0) break;  // EIO: the program closed its side
      outcome.shown.append(bytes, static_cast<std::size_t>(length));
    }
    while (next_answer < answers.size()) {
      const auto& [shown, typed] = answers[next_answer];
      const auto at = outcome.shown.find(shown, looked_at);
      if (at == std::string::npos) break;
      looked_at = at + shown.size();
      ++next_answer;
      if (write(master, typed.data(), typed.size()) < 0) break;
    }
    if (std::chrono::steady_clock::now() > end) kill(child, SIGKILL);
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(master);
  if (WIFEXITED(status)) outcome.exit_code = WEXITSTATUS(status);
  return outcome;
}

}  // namespace tavrix::test
