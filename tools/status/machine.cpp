// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/machine.hpp"

#include <fmt/format.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "internal/scoped.hpp"

namespace tavrix::status {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kShortName = 15;  // the kernel cuts the short names of processes

std::vector<pid_t> all_processes() {
  std::vector<pid_t> pids;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator("/proc", none)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) pids.push_back(std::stoi(name));
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

std::string target(const std::string& link) {
  std::error_code none;
  return fs::read_symlink(link, none).string();
}

// False for a process that is elsewhere, and for a dead one that nobody has waited for. True for
// one that this user may not look at.
bool may_share_our_objects(pid_t pid) {
  std::error_code error;
  const auto theirs = fs::read_symlink(fmt::format("/proc/{}/ns/ipc", pid), error);
  if (error) return error.value() == EACCES || error.value() == EPERM;
  return theirs == target("/proc/self/ns/ipc");
}

std::string short_name(pid_t pid) { return first_line(fmt::format("/proc/{}/comm", pid)); }

enum class Holds { kNo, kYes, kUnknown };

// The kernel lists an attached segment as a file whose inode is the segment's id.
Holds holds(pid_t pid, const Segment& segment) {
  if (!may_share_our_objects(pid)) return Holds::kNo;
  const Stream maps(std::fopen(fmt::format("/proc/{}/maps", pid).c_str(), "re"));
  if (!maps) return errno == EACCES || errno == EPERM ? Holds::kUnknown : Holds::kNo;
  char line[4096];
  while (std::fgets(line, sizeof line, maps.get()) != nullptr) {
    unsigned long inode = 0;
    char name[32] = "";
    if (std::sscanf(line, "%*s %*s %*s %*s %lu /%31s", &inode, name) == 2 &&
        std::string_view(name).starts_with("SYSV") &&
        inode == static_cast<unsigned long>(segment.id)) {
      return Holds::kYes;
    }
  }
  return Holds::kNo;
}

}  // namespace

std::vector<Segment> segments() {
  std::vector<Segment> all;
  struct shmid_ds info {};
  const int highest = shmctl(0, SHM_INFO, &info);
  for (int slot = 0; slot <= highest; ++slot) {
    const int id = shmctl(slot, SHM_STAT_ANY, &info);
    if (id == -1) continue;
    Segment segment;
    segment.id = id;
    segment.key = info.shm_perm.__key;
    segment.mode = info.shm_perm.mode & 0777U;
    segment.owner = info.shm_perm.uid;
    segment.bytes = info.shm_segsz;
    segment.attached = static_cast<int64_t>(info.shm_nattch);
    segment.created = info.shm_ctime;
    segment.creator = info.shm_cpid;
    segment.is_removed = (info.shm_perm.mode & SHM_DEST) != 0;
    all.push_back(segment);
  }
  return all;
}

Segment segment_of(const std::vector<Segment>& all, int key) {
  const auto found = std::find_if(all.begin(), all.end(), [key](const Segment& segment) {
    return segment.key == key && !segment.is_removed;
  });
  return found == all.end() ? Segment{} : *found;
}

std::vector<Process> processes_of(const std::string& program) {
  std::vector<Process> found;
  for (const pid_t pid : all_processes()) {
    if (short_name(pid) != program.substr(0, kShortName) || !may_share_our_objects(pid)) continue;
    const std::string file = target(fmt::format("/proc/{}/exe", pid));
    const std::string name = fs::path(file).filename();
    if (file.empty() || name.starts_with(program)) found.push_back({pid, program});
  }
  return found;
}

std::optional<std::vector<Process>> holders_of(const Segment& segment) {
  std::vector<Process> holders;
  bool is_one_hidden = false;
  for (const pid_t pid : all_processes()) {
    switch (holds(pid, segment)) {
      case Holds::kNo:
        break;
      case Holds::kYes:
        holders.push_back({pid, short_name(pid)});
        break;
      case Holds::kUnknown:
        is_one_hidden = true;
    }
  }
  if (holders.empty() && is_one_hidden) return std::nullopt;
  return holders;
}

std::optional<int64_t> start_of(pid_t pid) {
  // The name in parentheses may hold blanks, so the fields are counted from its end: the start, in
  // ticks since the boot, is the 20th behind it.
  const std::string line = first_line(fmt::format("/proc/{}/stat", pid));
  const auto name_end = line.rfind(')');
  if (name_end == std::string::npos) return std::nullopt;
  std::istringstream fields(line.substr(name_end + 1));
  std::string field;
  for (int number = 0; number < 20; ++number) fields >> field;
  std::ifstream in("/proc/stat");
  int64_t boot = 0;
  for (std::string text; std::getline(in, text);) {
    if (std::sscanf(text.c_str(), "btime %ld", &boot) == 1) {
      return boot + std::strtoll(field.c_str(), nullptr, 10) / sysconf(_SC_CLK_TCK);
    }
  }
  return std::nullopt;
}

bool is_locked(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return false;
  const std::string file =
      fmt::format(" {:02x}:{:02x}:{} ", major(info.st_dev), minor(info.st_dev), info.st_ino);
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    // A line with an arrow is of a process that waits.
    if (line.find(file) != std::string::npos && line.find("->") == std::string::npos) return true;
  }
  return false;
}

std::optional<int64_t> time_of(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return info.st_mtim.tv_sec;
}

std::string first_line(const std::string& path) {
  std::string line;
  std::ifstream in(path);
  std::getline(in, line);
  return line;
}

}  // namespace tavrix::status
