// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/inbox.hpp"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <vector>

#include "tools/cluster/proposal.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::loader {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSizeName = "size.json";
constexpr const char* kDataName = "data.json";
constexpr const char* kStartsName = "starts";
constexpr const char* kStagedName = "staged";

bool is_file(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool is_complete(const Pair& pair) { return is_file(pair.size) && is_file(pair.data); }

// Removes a name of the file, unless it names another file by now. Returns false when the file
// still has the name.
bool remove_if_same(const std::string& name, const std::string& file) {
  struct stat named {
  }, taken{};
  if (stat(name.c_str(), &named) != 0) return errno == ENOENT;
  if (stat(file.c_str(), &taken) != 0) return false;
  if (named.st_dev != taken.st_dev || named.st_ino != taken.st_ino) return true;
  return files::remove(name);
}

// Gives the file a second name. Where that is not possible, the file moves.
bool link_or_move(const std::string& from, const std::string& to) {
  return link(from.c_str(), to.c_str()) == 0 || rename(from.c_str(), to.c_str()) == 0;
}

// Returns a path that sorts by age: the time to the microsecond. Two refusals in one microsecond
// get a number each.
std::string name_of_now(const std::string& folder) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  const std::string name = fmt::format(
      "{}/{:04}{:02}{:02}T{:02}{:02}{:02}.{:06}Z", folder, parts.tm_year + 1900, parts.tm_mon + 1,
      parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, now.tv_nsec / 1000);
  std::string path = name;
  for (int number = 2; files::exists(path); ++number) path = fmt::format("{}-{:02}", name, number);
  return path;
}

}  // namespace

bool Inbox::Identity::operator==(const Identity& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

Inbox::Identity Inbox::identity_of(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {};
  return {info.st_dev, info.st_ino, info.st_size, info.st_mtim};
}

Inbox::Inbox(std::string folder, unsigned keep_refused, bool takes_companions)
    : folder_(std::move(folder)),
      work_(folder_ + "/.work"),
      refused_(refused_folder(folder_)),
      held_(folder_ + "/held"),
      keep_refused_(keep_refused),
      takes_companions_(takes_companions) {}

Pair Inbox::in(const std::string& folder) const {
  Pair pair{folder + "/" + kSizeName, folder + "/" + kDataName, "", ""};
  if (!takes_companions_) return pair;
  pair.groups = folder + "/" + cluster::kGroupsName;
  pair.settings = folder + "/" + cluster::kSettingsName;
  return pair;
}

std::string Inbox::prepare() const {
  std::error_code error;
  for (const std::string& folder : {folder_, work_, refused_}) {
    fs::create_directories(folder, error);
    if (error) return fmt::format("{}: {}", folder, error.message());
  }
  return {};
}

Fd Inbox::watch() const {
  Fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (inotify_add_watch(fd.get(), folder_.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR) < 0) {
    fd.reset();
  }
  return fd;
}

void Inbox::drain(const Fd& watch) {
  char events[4096];
  while (read(watch.get(), events, sizeof events) > 0) {
  }
}

std::optional<Pair> Inbox::unfinished() {
  Pair taken = in(work_);
  if (!is_complete(taken)) {
    finish(taken);  // the pair was taken in part and is still whole in the folder, or it was loaded
    return std::nullopt;
  }
  static_cast<void>(leave(taken));
  return taken;
}

// Both files are in the work folder and synced before their names leave the inbox. So a death or a
// power cut on the way leaves the pair whole, here or there.
std::optional<Pair> Inbox::take(std::string& complaint) {
  const Pair from = in(folder_);
  Pair to = in(work_);
  if (!is_complete(from)) return std::nullopt;
  if (stuck_ && *stuck_ == identity_of(from.data)) return std::nullopt;
  mkdir(work_.c_str(), 0755);  // a refusal moves this folder away
  finish(to);
  const bool taken = take_companions(from, to) && link_or_move(from.data, to.data) &&
                     link_or_move(from.size, to.size) && files::sync_file(to.data) &&
                     files::sync_file(to.size) && files::sync_folder(work_);
  if (!taken) {
    complaint = fmt::format("cannot take the pair out of {}: {}", folder_, std::strerror(errno));
    return std::nullopt;
  }
  if (!leave(to)) {
    complaint = fmt::format("cannot remove the pair from {}: {}; it is loaded once", folder_,
                            std::strerror(errno));
    stuck_ = identity_of(from.data);
  }
  return to;
}

bool Inbox::take_companions(const Pair& from, const Pair& to) const {
  if (!takes_companions_) return true;
  const auto take = [](const std::string& file, const std::string& target) {
    return !is_file(file) || (link_or_move(file, target) && files::sync_file(target));
  };
  return take(from.groups, to.groups) && take(from.settings, to.settings);
}

// Files that the agent has put there meanwhile are the next pair and stay.
bool Inbox::leave(const Pair& taken) {
  const Pair from = in(folder_);
  const bool data_left = remove_if_same(from.data, taken.data);
  const bool size_left = remove_if_same(from.size, taken.size);
  if (takes_companions_ && (!remove_if_same(from.groups, taken.groups) ||
                            !remove_if_same(from.settings, taken.settings))) {
    return false;
  }
  return data_left && size_left && files::sync_folder(folder_);
}

unsigned Inbox::note_start() const {
  const std::string path = work_ + "/" + kStartsName;
  const std::string text = files::read_whole(path).value_or("");
  const auto before = static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
  static_cast<void>(files::replace(path, fmt::format("{}\n", before + 1), 0644));
  return before;
}

void Inbox::forget_starts() const {
  const std::string path = work_ + "/" + kStartsName;
  static_cast<void>(files::remove(path));
  static_cast<void>(files::remove(path + ".new"));  // of a run that was killed while it counted
}

// The work folder becomes the folder of the refusal by one rename: the pair is never split between
// two places, and a full disk rarely prevents it. When the reason cannot be written, the pair is
// set aside without it.
std::string Inbox::refuse(const Pair& pair, const Refusal& refusal) const {
  forget_starts();
  if (!refusal.findings.empty()) {
    static_cast<void>(files::replace(findings_path(work_), refusal.findings, 0644));
  }
  static_cast<void>(files::replace(reason_path(work_), refusal.reason + "\n", 0644));
  std::string where = name_of_now(refused_);
  if (rename(work_.c_str(), where.c_str()) != 0) return {};
  static_cast<void>(files::sync_folder(refused_));
  static_cast<void>(files::sync_folder(folder_));
  mkdir(files::folder_of(pair.size).c_str(), 0755);
  prune();
  return where;
}

// The map is stored already, so a pair that cannot be put aside is removed.
void Inbox::hold(const Pair& pair) const {
  std::error_code none;
  fs::remove_all(held_, none);
  forget_starts();
  if (rename(work_.c_str(), held_.c_str()) != 0) return finish(pair);
  static_cast<void>(files::sync_folder(folder_));
  mkdir(work_.c_str(), 0755);
}

void Inbox::prune() const {
  if (keep_refused_ == 0) return;
  std::vector<std::string> names;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(refused_, none)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());  // oldest first
  for (std::size_t i = 0; i + keep_refused_ < names.size(); ++i) {
    fs::remove_all(refused_ + "/" + names[i], none);
  }
}

bool Inbox::note_staged() const { return files::replace(work_ + "/" + kStagedName, "", 0644); }

bool Inbox::was_staged() const { return files::exists(work_ + "/" + kStagedName); }

void Inbox::finish(const Pair& pair) const {
  static_cast<void>(files::remove(pair.size));
  static_cast<void>(files::remove(pair.data));
  static_cast<void>(files::remove(findings_path(work_)));
  static_cast<void>(files::remove(reason_path(work_)));
  if (takes_companions_) {
    static_cast<void>(files::remove(pair.groups));
    static_cast<void>(files::remove(pair.settings));
    static_cast<void>(files::remove(work_ + "/" + kStagedName));
  }
  forget_starts();
}

}  // namespace tavrix::loader
