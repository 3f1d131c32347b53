// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/robot.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <stdexcept>

namespace tavrix::test {
namespace {

constexpr int kPatienceMilliseconds = 60000;
constexpr const char* kProgram = TAVRIX_SOURCE_DIR "/tests/samba/client/client.py";

}  // namespace

Robot::Robot(const std::string& share) {
  int to_client[2];
  int from_client[2];
  if (pipe2(to_client, O_CLOEXEC) != 0 || pipe2(from_client, O_CLOEXEC) != 0) std::abort();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(to_client[0], STDIN_FILENO);
    dup2(from_client[1], STDOUT_FILENO);
    // Debian's Python by its path: another one in front of it would lack the package.
    execl("/usr/bin/python3", "python3", "-B", kProgram, share.c_str(), nullptr);
    _exit(127);
  }
  close(to_client[0]);
  close(from_client[1]);
  in_ = to_client[1];
  out_ = from_client[0];
}

Robot::~Robot() {
  close(in_);
  close(out_);
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

std::string Robot::read_line() {
  for (;;) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    struct pollfd wait {
      out_, POLLIN, 0
    };
    char chunk[65536];
    if (poll(&wait, 1, kPatienceMilliseconds) != 1) throw std::runtime_error("no answer");
    const ssize_t got = read(out_, chunk, sizeof chunk);
    if (got <= 0) throw std::runtime_error("the client has ended");
    unread_.append(chunk, static_cast<std::size_t>(got));
  }
}

Json Robot::run(const Json& request) {
  const std::string line = request.dump() + "\n";
  for (std::size_t sent = 0; sent < line.size();) {
    const ssize_t wrote = write(in_, line.data() + sent, line.size() - sent);
    if (wrote <= 0) throw std::runtime_error("the client takes nothing");
    sent += static_cast<std::size_t>(wrote);
  }
  return Json::parse(read_line());
}

Json Robot::run(const std::string& user, const Json& steps) {
  return run({{"as", user}, {"steps", steps}});
}

std::string status_of(const Json& answer, std::size_t step) {
  if (answer.contains("error")) return answer["error"];
  if (step >= answer["steps"].size()) return "(no step)";
  return answer["steps"][step]["status"];
}

}  // namespace tavrix::test
