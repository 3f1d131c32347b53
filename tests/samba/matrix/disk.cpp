// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/disk.hpp"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <filesystem>
#include <set>

#include "tests/support/files.hpp"

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kStamp = "user.tavrix.last_smb_accessed_by";

// Hexadecimal text, for the values are shown when a test fails.
std::string attribute_of(const std::string& path, const char* name) {
  char value[4096];
  const ssize_t size = lgetxattr(path.c_str(), name, value, sizeof value);
  std::string text;
  for (ssize_t i = 0; i < size; ++i) {
    char byte[3];
    std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned char>(value[i]));
    text += byte;
  }
  return text;
}

std::string attributes_of(const std::string& path) {
  char names[4096];
  const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
  std::set<std::string> sorted;
  for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::string(names + at).size()) + 1) {
    sorted.insert(names + at);
  }
  std::string text;
  for (const std::string& name : sorted) {
    if (name == kStamp) continue;
    text += " " + name + "=" + attribute_of(path, name.c_str());
  }
  return text;
}

int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

std::string behind(const fs::path& link, const std::string& root) {
  std::error_code none;
  const std::string path = fs::canonical(link, none).string();
  return !none && path.starts_with(root + "/") ? path.substr(root.size() + 1) : "";
}

Disk::Object object_at(const fs::path& path, const std::string& root) {
  struct stat st {};
  struct stat target {};
  lstat(path.c_str(), &st);
  Disk::Object object{
      .number = st.st_ino,
      .is_folder = stat(path.c_str(), &target) == 0 && S_ISDIR(target.st_mode),
      .is_fixed = lgetxattr(path.c_str(), "user.tavrix.fixed_folder", nullptr, 0) == 0,
      .owner = st.st_uid,
      .links = S_ISDIR(st.st_mode) ? 1 : st.st_nlink,
      .stamp = attribute_of(path, kStamp)};
  if (S_ISREG(st.st_mode)) object.content = read_file(path);
  if (S_ISLNK(st.st_mode)) {
    object.content = fs::read_symlink(path);
    object.leads_to = behind(path, root);
  }
  object.written = nanoseconds(st.st_mtim);
  object.looks = "accessed " + std::to_string(nanoseconds(st.st_atim)) + attributes_of(path);
  return object;
}

// The present path of an object, after the renames of the folders above it.
std::string moved(const std::string& path, const std::map<std::string, std::string>& renamed) {
  for (std::string above = path;;) {
    if (const auto found = renamed.find(above); found != renamed.end()) {
      return found->second + path.substr(above.size());
    }
    const auto slash = above.rfind('/');
    if (slash == std::string::npos) return path;
    above.resize(slash);
  }
}

class Comparison {
 public:
  Comparison(const Disk& before, const Disk& after) : before_(before), after_(after) {
    find_renamed();
    compare_old();
    find_new();
    for (const auto& [path, time] : stamped_) {
      if (!touched_.contains(path)) changes_.push_back({Change::kFolderStamped, path, {}});
    }
  }
  std::vector<Change> take() { return std::move(changes_); }

 private:
  void touch_parent(const std::string& path) {
    const auto slash = path.rfind('/');
    touched_.insert(slash == std::string::npos ? "" : path.substr(0, slash));
  }
  // From the top down: a renamed folder is settled before what lies below it.
  void find_renamed() {
    std::map<ino_t, std::string> now_at;
    for (const auto& [path, object] : after_.objects()) {
      if (object.links == 1) now_at[object.number] = path;
    }
    for (const auto& [path, object] : before_.objects()) {
      const auto found = now_at.find(object.number);
      if (object.links != 1 || found == now_at.end()) continue;
      if (moved(path, renamed_) == found->second) continue;
      renamed_[path] = found->second;
      changes_.push_back({Change::kRenamed, path, found->second});
      touch_parent(path);
      touch_parent(found->second);
    }
  }
  void compare_old() {
    for (const auto& [path, object] : before_.objects()) {
      const std::string now_at = moved(path, renamed_);
      const Disk::Object* now = after_.find(now_at);
      if (now == nullptr || now->number != object.number) {
        if (now == nullptr || !explained_.contains(now_at)) vanished(path, now, now_at);
        continue;
      }
      explained_.insert(now_at);
      if (now->content != object.content) changes_.push_back({Change::kWritten, now_at, {}});
      if (now->looks != object.looks) changes_.push_back({Change::kLooksChanged, now_at, {}});
      if (now->written == object.written) continue;
      if (object.is_folder) {
        stamped_[now_at] = now->written;
      } else if (now->content == object.content && now->looks == object.looks) {
        changes_.push_back({Change::kLooksChanged, now_at, {}});
      }
    }
  }
  // An object that was replaced by a rename is part of that rename.
  void vanished(const std::string& path, const Disk::Object* now, const std::string& now_at) {
    touch_parent(path);
    if (now != nullptr) {
      for (const auto& [from, to] : renamed_) {
        if (to == now_at) return;
      }
    }
    changes_.push_back({Change::kVanished, path, {}});
  }
  void find_new() {
    for (const auto& [path, object] : after_.objects()) {
      if (explained_.contains(path)) continue;
      touch_parent(path);
      changes_.push_back({Change::kAppeared, path, {}});
    }
  }

  const Disk& before_;
  const Disk& after_;
  std::vector<Change> changes_;
  std::map<std::string, std::string> renamed_;
  std::set<std::string> explained_;         // paths of after that were there before
  std::set<std::string> touched_;           // folders whose entries changed
  std::map<std::string, int64_t> stamped_;  // folders whose time changed
};

}  // namespace

Disk Disk::now(const std::string& root) {
  Disk disk;
  disk.objects_[""] = object_at(root, root);
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = entry.path().string().substr(root.size() + 1);
    if (path.starts_with(".conf")) continue;
    disk.objects_[path] = object_at(entry.path(), root);
  }
  return disk;
}

const Disk::Object* Disk::find(const std::string& path) const {
  const auto found = objects_.find(path);
  return found == objects_.end() ? nullptr : &found->second;
}

std::string text_of(const Change& change) {
  switch (change.kind) {
    case Change::kAppeared:
      return "made " + change.path;
    case Change::kVanished:
      return "removed " + change.path;
    case Change::kRenamed:
      return "renamed " + change.path + " to " + change.to;
    case Change::kWritten:
      return "wrote " + change.path;
    default:
      return "times or attributes of " + change.path;
  }
}

std::vector<Change> changes_between(const Disk& before, const Disk& after) {
  return Comparison(before, after).take();
}

}  // namespace tavrix::test
