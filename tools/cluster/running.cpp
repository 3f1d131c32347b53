// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/running.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>

#include "internal/scoped.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/files/boot.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::cluster {
namespace {

constexpr std::string_view kTaken = ".lost.";  // ".lost.NODE+BOOT"
constexpr char kBetween = '+';                 // in no name of a node

std::string in_folder(std::string_view name) { return fmt::format("{}/{}", kRunningFolder, name); }

std::vector<std::string> names_in_folder() {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kRunningFolder), closedir);
  if (!folder) return names;
  while (const dirent* entry = readdir(folder.get())) names.emplace_back(entry->d_name);
  std::ranges::sort(names);
  return names;
}

RunningMark read_mark(const std::string& node) {
  RunningMark mark{.node = node, .boot = {}, .address = {}};
  std::ifstream in(running_mark_path(node));
  std::getline(in, mark.boot);
  std::getline(in, mark.address);
  return mark;
}

bool make_folders() {
  for (const char* folder : {kSharedFolder, kRunningFolder}) {
    if (mkdir(folder, 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Tells of the loss that a taken mark stands for. Its caller has tried to lock the mark, so that
// others do not tell meanwhile; where locks do not reach other nodes, it may be told twice.
Taking tell_and_remove(const std::string& taken, const std::string& node, const Tell& tell) {
  if (!tell(node)) return Taking::kUntold;
  if (files::remove(taken)) static_cast<void>(files::sync_folder(kRunningFolder));
  return Taking::kTold;
}

}  // namespace

std::string running_mark_path(std::string_view node) { return in_folder(node); }

std::vector<RunningMark> running_marks() {
  std::vector<RunningMark> marks;
  for (const std::string& name : names_in_folder()) {
    if (is_node_name(name) && !name.ends_with(".new")) marks.push_back(read_mark(name));
  }
  return marks;
}

std::string this_address() {
  std::ifstream in(kAddress);
  std::string line;
  std::getline(in, line);
  return line;
}

bool set_running_mark(std::string_view node) {
  const std::string path = running_mark_path(node);
  const std::string boot = files::this_boot();
  if (files::exists(path)) {
    const RunningMark mark = read_mark(std::string(node));
    if (mark.boot != boot) {
      errno = EEXIST;
      return false;
    }
    // The time of the mark is that of the last period's work. A mark that is taken now is made
    // anew.
    if (mark.address == this_address() && utimensat(AT_FDCWD, path.c_str(), nullptr, 0) == 0)
      return true;
  }
  return make_folders() &&
         files::replace(path, fmt::format("{}\n{}\n{}\n", boot, this_address(), time(nullptr)),
                        0600) &&
         files::sync_folder(kSharedFolder);
}

Taking take_running_mark(const std::string& node, const Tell& tell) {
  const std::string path = running_mark_path(node);
  const Fd mark(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!mark) return Taking::kNothing;
  static_cast<void>(flock(mark.get(), LOCK_EX | LOCK_NB));
  const std::string taken =
      in_folder(fmt::format("{}{}{}{}", kTaken, node, kBetween, read_mark(node).boot));
  if (rename(path.c_str(), taken.c_str()) != 0) return Taking::kElsewhere;
  return tell_and_remove(taken, node, tell);
}

void finish_taken_marks(const Tell& tell) {
  for (const std::string& name : names_in_folder()) {
    if (!name.starts_with(kTaken)) continue;
    const std::string path = in_folder(name);
    const Fd taken(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!taken || flock(taken.get(), LOCK_EX | LOCK_NB) != 0 || !files::exists(path)) continue;
    const std::string rest = name.substr(kTaken.size());
    tell_and_remove(path, rest.substr(0, rest.find(kBetween)), tell);
  }
}

}  // namespace tavrix::cluster
