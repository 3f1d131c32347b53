// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/system_log.hpp"

#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <system_error>
#include <utility>

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

void require(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

// The machine's devices behind links, so that a socket can stand beside them.
void make_dev() {
  fs::create_directory("/.dev");
  require(mount("/dev", "/.dev", nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind /dev");
  require(mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") == 0, "tmpfs on /dev");
  for (const auto& entry : fs::directory_iterator("/.dev")) {
    const fs::path name = entry.path().filename();
    if (name != "log") fs::create_symlink("/.dev" / name, "/dev" / name);
  }
}

// "<14>Nov 21 22:30:00 smbd[4711]: file.cpp:12(function) message"
SystemLine parse(const std::string& text) {
  static const std::regex kLine(
      R"(<(\d+)>\w+ +\d+ [\d:]+ ([^\[:]+)(?:\[\d+\])?: (?:[\w./-]+:\d+\(\w+\) )?([^]*))");
  std::smatch part;
  if (!std::regex_match(text, part, kLine)) return {-1, "?", text};
  std::string message = part[3];
  while (message.ends_with('\n')) message.pop_back();
  return {std::atoi(part[1].str().c_str()), part[2], message};
}

}  // namespace

SystemLog::SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  make_dev();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  require(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind");
  require(chmod("/dev/log", 0666) == 0, "chmod");
  reader_ = std::jthread([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      pollfd ready{socket_.get(), POLLIN, 0};
      if (poll(&ready, 1, 50) == 1) keep_what_is_there();
    }
  });
}

void SystemLog::keep_what_is_there() {
  const std::scoped_lock lock(mutex_);
  char text[65536];
  for (;;) {
    const ssize_t got = recv(socket_.get(), text, sizeof text, 0);
    if (got < 0) return;
    lines_.push_back(parse(std::string(text, static_cast<std::size_t>(got))));
  }
}

std::vector<SystemLine> SystemLog::take() {
  keep_what_is_there();
  const std::scoped_lock lock(mutex_);
  return std::exchange(lines_, {});
}

}  // namespace tavrix::test
