// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/samba.hpp"

#include <fcntl.h>
#include <glob.h>
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

// The first file of Samba's folder that a pattern matches; empty when there is none. Series of
// Samba give their private libraries different endings.
std::string file_like(const std::string& pattern) {
  glob_t found{};
  std::string file;
  if (glob((std::string(kSambaFolder) + "/" + pattern).c_str(), 0, nullptr, &found) == 0) {
    file = found.gl_pathv[0];
  }
  globfree(&found);
  return file;
}

std::string content_of(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The number of the form "4.17.12" behind the first mark that one follows.
std::string number_behind(const std::string& content, std::string_view mark) {
  for (auto at = content.find(mark); at != std::string::npos;
       at = content.find(mark, at + mark.size())) {
    const auto begin = at + mark.size();
    const auto end = content.find_first_not_of("0123456789.", begin);
    if (end != std::string::npos && end > begin) return content.substr(begin, end - begin);
  }
  return {};
}

}  // namespace

std::string samba_module() { return std::string(kSambaFolder) + "/vfs/tavrix.so"; }

std::string samba_library() { return file_like("libsmbd-base-*.so.0"); }

std::string samba_comparison_library() {
  return std::string(kSambaFolder) + "/libsamdb-common.so.0";
}

std::string samba_name_of_comparison_library() {
  const std::string file = file_like("libsamdb-common-*.so.0");
  return file.substr(file.rfind('/') + 1);
}

std::string samba_version_in(const std::string& file) {
  constexpr std::string_view kMark("\0SAMBA_", 7);  // a name of its own in the table of strings
  return number_behind(content_of(file), kMark);
}

std::string samba_series_of_module(const std::string& file) {
  return number_behind(content_of(file), "TAVRIX_MODULE_FOR=Samba ");
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
