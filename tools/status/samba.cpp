// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/samba.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <fstream>
#include <iterator>
#include <string_view>

#include "internal/scoped.hpp"

namespace tavrix::status {
namespace {

constexpr const char* kSambaFolder = "/usr/lib/x86_64-linux-gnu/samba";

}  // namespace

std::string samba_module() { return std::string(kSambaFolder) + "/vfs/tavrix.so"; }

std::string samba_library() { return std::string(kSambaFolder) + "/libsmbd-base-samba4.so.0"; }

std::string samba_comparison_library() {
  return std::string(kSambaFolder) + "/libsamdb-common.so.0";
}

std::string samba_version_in(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  constexpr std::string_view kBefore("\0SAMBA_", 7);  // a name of its own in the table of strings
  for (auto at = content.find(kBefore); at != std::string::npos;
       at = content.find(kBefore, at + kBefore.size())) {
    const auto begin = at + kBefore.size();
    const auto end = content.find_first_not_of("0123456789.", begin);
    if (end != std::string::npos && end > begin) return content.substr(begin, end - begin);
  }
  return {};
}

std::optional<std::string> testparm(const std::string& smb_conf) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  const Fd output(ends[0]);
  Fd input(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::array<const char*, 5> arguments = {"testparm", "-s", "-v",
                                          smb_conf.empty() ? nullptr : smb_conf.c_str(), nullptr};
  pid_t child = 0;
  const int error = posix_spawnp(&child, "testparm", &actions, nullptr,
                                 const_cast<char* const*>(arguments.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  input.reset();
  if (error != 0) return std::nullopt;
  std::string text;
  std::array<char, 4096> chunk{};
  for (ssize_t got = 0; (got = read(output.get(), chunk.data(), chunk.size())) > 0;) {
    text.append(chunk.data(), static_cast<std::size_t>(got));
  }
  int end = 0;
  waitpid(child, &end, 0);
  if (!WIFEXITED(end) || WEXITSTATUS(end) != 0) return std::nullopt;
  return text;
}

}  // namespace tavrix::status
