// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/appliance.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <fstream>

namespace tavrix::test {
namespace {

constexpr int kPatienceMilliseconds = 20000;

}  // namespace

Client::Client(const std::string& user) {
  int to_client[2];
  int from_client[2];
  if (pipe2(to_client, O_CLOEXEC) != 0 || pipe2(from_client, O_CLOEXEC) != 0) std::abort();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(to_client[0], STDIN_FILENO);
    dup2(from_client[1], STDOUT_FILENO);
    dup2(from_client[1], STDERR_FILENO);
    execlp("stdbuf", "stdbuf", "-o0", "smbclient", "-s", "/scratch/samba/smb.conf",
           "//127.0.0.1/tavrix", "-U", (user + "%" + user).c_str(), nullptr);
    _exit(127);
  }
  close(to_client[0]);
  close(from_client[1]);
  in_ = to_client[1];
  out_ = from_client[0];
  say("");
}

Client::~Client() {
  close(in_);
  close(out_);
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

std::string Client::read_until(const std::string& mark) {
  std::string text;
  while (!text.ends_with(mark)) {
    struct pollfd wait {
      out_, POLLIN, 0
    };
    char chunk[4096];
    if (poll(&wait, 1, kPatienceMilliseconds) != 1) return text + " (no more)";
    const ssize_t got = read(out_, chunk, sizeof chunk);
    if (got <= 0) return text + " (end)";
    text.append(chunk, static_cast<std::size_t>(got));
  }
  return text;
}

bool Client::send(const std::string& line) {
  if (write(in_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return false;
  int unread = 1;
  for (int waited = 0; unread > 0 && waited < kPatienceMilliseconds; ++waited) {
    usleep(1000);
    if (ioctl(in_, FIONREAD, &unread) != 0) return false;
  }
  return unread == 0;
}

std::string Client::say(const std::string& command) {
  // The mark shows where the command's answer ends. Send it only when the client has read the
  // command: smbclient may wait for more input although it holds a whole line.
  const std::string mark = "=" + std::to_string(++said_) + "=\n";
  if (!command.empty() && !send(command + "\n")) return "(gone)";
  if (!send("!echo " + mark)) return "(gone)";
  return read_until(mark);
}

// The server processes that serve a client. Only those have the module loaded.
std::vector<pid_t> Client::servers() {
  const std::string session = read_file("/scratch/samba/smbd.pid");
  std::istringstream in(
      run_program({"pgrep", "-s", std::to_string(std::atoi(session.c_str()))}).out);
  std::vector<pid_t> found;
  for (pid_t pid = 0; in >> pid;) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
      if (line.find("vfs/tavrix") == std::string::npos) continue;
      found.push_back(pid);
      break;
    }
  }
  return found;
}

}  // namespace tavrix::test
