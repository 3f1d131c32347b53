// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/process.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "tests/support/become_program.hpp"

namespace tavrix::test {
namespace {

constexpr int kExpectationFailed = 99;
constexpr int kThrew = 98;
constexpr int kNotStarted = 127;

void require(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

int capture_file() {
  const int fd = memfd_create("captured", 0);
  require(fd >= 0, "memfd_create");
  return fd;
}

std::string content_so_far(int fd) {
  std::string text;
  std::array<char, 65536> chunk{};
  for (off_t at = 0;;) {
    const ssize_t got = pread(fd, chunk.data(), chunk.size(), at);
    if (got <= 0) break;
    text.append(chunk.data(), static_cast<std::size_t>(got));
    at += got;
  }
  return text;
}

std::string content_of(int fd) {
  std::string text = content_so_far(fd);
  ::close(fd);
  return text;
}

template <typename Body>
pid_t start(int out, int err, Body body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  require(pid >= 0, "fork");
  if (pid != 0) return pid;
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  body();
  std::fflush(nullptr);
  _exit(kNotStarted);
}

int failures() {
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  return test == nullptr ? 0 : test->result()->total_part_count();
}

Outcome outcome_of(pid_t pid, int out, int err) {
  int status = 0;
  while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  Outcome outcome;
  if (WIFEXITED(status)) outcome.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  outcome.out = content_of(out);
  outcome.err = content_of(err);
  return outcome;
}

int failures_at_start = 0;

pid_t start_body(int out, int err, const std::function<void()>& body) {
  return start(out, err, [&body] {
    failures_at_start = failures();
    int code = 0;
    try {
      body();
      end_child();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "threw: %s\n", error.what());
      code = kThrew;
    }
    std::fflush(nullptr);
    _exit(code);
  });
}

}  // namespace

bool Outcome::aborted_with(const std::string& condition) const {
  return signal == SIGABRT &&
         err.find("Assertion `" + condition + "' failed.") != std::string::npos;
}

void end_child() {
  std::fflush(nullptr);
  _exit(failures() != failures_at_start ? kExpectationFailed : 0);
}

Outcome in_child(const std::function<void()>& body) { return Child(body).wait(); }

Child::Child(const std::function<void()>& body)
    : pid_(0), out_(capture_file()), err_(capture_file()) {
  pid_ = start_body(out_, err_, body);
}

Child::~Child() {
  if (waited_) return;
  kill();
  wait();
}

std::string Child::out_so_far() const { return content_so_far(out_); }

std::string Child::err_so_far() const { return content_so_far(err_); }

void Child::kill() { ::kill(pid_, SIGKILL); }

Outcome Child::wait() {
  waited_ = true;
  return outcome_of(pid_, out_, err_);
}

void become_program(const std::vector<std::string>& argv,
                    const std::vector<std::pair<std::string, std::string>>& environment) {
  for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  std::perror(words[0]);
}

Outcome run_program(const std::vector<std::string>& argv, const std::string& input,
                    const std::vector<std::pair<std::string, std::string>>& environment) {
  const int in = capture_file();
  require(write(in, input.data(), input.size()) == static_cast<ssize_t>(input.size()), "input");
  lseek(in, 0, SEEK_SET);
  const int out = capture_file();
  const int err = capture_file();
  const pid_t pid = start(out, err, [&] {
    dup2(in, STDIN_FILENO);
    become_program(argv, environment);
  });
  ::close(in);
  return outcome_of(pid, out, err);
}

Ids ids_now() {
  Ids ids{};
  getresuid(&ids.r, &ids.e, &ids.s);
  getresgid(&ids.rg, &ids.eg, &ids.sg);
  return ids;
}

void become_samba_user(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
  require(setgroups(groups.size(), groups.data()) == 0, "setgroups");
  require(setresgid(0, gid, 0) == 0, "setresgid");
  require(setresuid(uid, uid, 0) == 0, "setresuid");
}

int attach_count(int key) {
  const int id = shmget(key, 0, 0);
  struct shmid_ds info {};
  if (id == -1 || shmctl(id, IPC_STAT, &info) == -1) return -1;
  return static_cast<int>(info.shm_nattch);
}

int attachments() {
  std::ifstream lines("/proc/sysvipc/shm");
  std::string line;
  std::getline(lines, line);
  int all = 0;
  for (; std::getline(lines, line);) {
    int attached = 0;
    if (std::sscanf(line.c_str(), "%*d %*d %*o %*u %*u %*u %d", &attached) == 1) all += attached;
  }
  return all;
}

int segments_in_use() {
  struct shm_info info {};
  if (shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info)) == -1) return -1;
  return info.used_ids;
}

}  // namespace tavrix::test
