// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks of the machine itself: login manager, units, file systems, folders, memory.

#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "eventstore.h"
#include "perm_map.h"
#include "tools/doctor/checks.hpp"
#include "tools/status/gather.hpp"
#include "tools/status/machine.hpp"

namespace tavrix::doctor {
namespace {

namespace fs = std::filesystem;

// The folders of configuration files, the strongest first; files with one name hide each other.
constexpr const char* kLogindConf = "/etc/systemd/logind.conf";
constexpr const char* kLogindParts[] = {"/etc/systemd/logind.conf.d", "/run/systemd/logind.conf.d",
                                        "/usr/lib/systemd/logind.conf.d"};
constexpr const char* kUnitFolders[] = {"/etc/systemd/system", "/run/systemd/system",
                                        "/lib/systemd/system"};
constexpr const char* kUnits[] = {"smbd.service", "samba.service", "tavrix-sweeper.service",
                                  "tavrix-loader.service"};

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// The last value of a key in a file; empty when it has none.
std::string value_in(const std::string& path, const std::string& key) {
  std::ifstream in(path);
  std::string value;
  for (std::string line; std::getline(in, line);) {
    const auto equals = line.find('=');
    if (equals != std::string::npos && trimmed(line.substr(0, equals)) == key) {
      value = trimmed(line.substr(equals + 1));
    }
  }
  return value;
}

bool is_yes(const std::string& value) {
  return value == "yes" || value == "true" || value == "on" || value == "1";
}

std::vector<std::string> parts_in(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(folder, none)) {
    if (entry.path().extension() == ".conf") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// The setting of the login manager: a later part wins over an earlier one and over the file.
bool removes_ipc() {
  std::vector<std::pair<std::string, std::string>> parts;  // name, path
  for (const char* folder : kLogindParts) {
    for (const std::string& file : parts_in(folder)) {
      const std::string name = fs::path(file).filename();
      const bool is_hidden = std::any_of(parts.begin(), parts.end(),
                                         [&](const auto& part) { return part.first == name; });
      if (!is_hidden) parts.emplace_back(name, file);
    }
  }
  std::sort(parts.begin(), parts.end());
  std::string value = value_in(kLogindConf, "RemoveIPC");
  for (const auto& [name, file] : parts) {
    if (const std::string later = value_in(file, "RemoveIPC"); !later.empty()) value = later;
  }
  return value.empty() || is_yes(value);
}

uid_t owner_of_set(const char* path, int id) {
  struct semid_ds info {};
  union {
    int val;
    struct semid_ds* buf;
  } argument{.buf = &info};
  const int set = semget(ftok(path, id), 0, 0);
  return set != -1 && semctl(set, 0, IPC_STAT, argument) == 0 ? info.sem_perm.uid : 0;
}

// The first owner of a shared object who is not root; root when there is none.
uid_t foreign_owner() {
  const int keys[] = {TAVRIX_PERM_TABLE0_KEY, TAVRIX_PERM_TABLE1_KEY,
                      ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID),
                      ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_BUFFER_KEY_ID)};
  const auto all = status::segments();
  for (const int key : keys) {
    if (const uid_t owner = status::segment_of(all, key).owner; owner != 0) return owner;
  }
  const uid_t owner = owner_of_set(TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID);
  return owner != 0 ? owner
                    : owner_of_set(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID);
}

struct Folder {
  std::string path;
  mode_t most;  // the bits that others may have at most
  const char* purpose;
};

Check check_folder(const Folder& folder) {
  Check check{.id = "folder", .level = Level::kWell, .sentence = {}, .advice = {}};
  struct stat info {};
  if (stat(folder.path.c_str(), &info) != 0) {
    if (errno == EACCES) {
      check.sentence = folder.path + ": only root can look at it";
      return check;
    }
    check.level = Level::kCritical;
    check.sentence = fmt::format("{} ({}): {}", folder.path, folder.purpose, std::strerror(errno));
    check.advice = fmt::format("install -d -m {:04o} {}", 0700U | folder.most, folder.path);
    return check;
  }
  const mode_t excess = info.st_mode & ~folder.most & 0077U;
  if (!S_ISDIR(info.st_mode)) {
    check.level = Level::kCritical;
    check.sentence = folder.path + " is not a folder";
    check.advice = "remove it, and make the folder";
  } else if (info.st_uid != 0) {
    check.level = Level::kCritical;
    check.sentence = fmt::format("{} ({}) belongs to user {}, not to root", folder.path,
                                 folder.purpose, info.st_uid);
    check.advice = fmt::format("chown root:root {}", folder.path);
  } else if (excess != 0) {
    check.level = (excess & 0022U) != 0 ? Level::kCritical : Level::kWarning;
    check.sentence = fmt::format("{} ({}) has mode {:04o}: other users may get in", folder.path,
                                 folder.purpose, info.st_mode & 07777U);
    check.advice = fmt::format("chmod {:04o} {}", 0700U | folder.most, folder.path);
  }
  return check;
}

}  // namespace

Check check_remove_ipc() {
  const std::string id = "remove-ipc";
  if (!removes_ipc()) return {id, Level::kWell, "the login manager removes no shared objects", ""};
  const uid_t owner = foreign_owner();
  if (owner == 0) {
    return {id, Level::kWell,
            "RemoveIPC is on: the login manager removes objects of users who log out, and none of "
            "ours belongs to one",
            ""};
  }
  return {id, Level::kCritical,
          fmt::format("RemoveIPC is on, and a shared object belongs to user {}: it goes when that "
                      "user logs out",
                      owner),
          "set RemoveIPC=no in /etc/systemd/logind.conf, restart systemd-logind, and restart "
          "tavrix-sweeper and tavrix-loader as root"};
}

Check check_private_ipc() {
  for (const char* folder : kUnitFolders) {
    for (const char* unit : kUnits) {
      const std::string file = fmt::format("{}/{}", folder, unit);
      std::vector<std::string> files = parts_in(file + ".d");
      files.insert(files.begin(), file);
      for (const std::string& each : files) {
        if (!is_yes(value_in(each, "PrivateIPC"))) continue;
        return {
            "private-ipc", Level::kCritical,
            fmt::format("{} sets PrivateIPC: {} sees none of the shared objects", each, unit),
            "remove that line, then \"systemctl daemon-reload\" and restart " + std::string(unit)};
      }
    }
  }
  return {"private-ipc", Level::kWell, "no unit has an IPC namespace of its own", ""};
}

Check check_attributes() {
  const std::string id = "attributes";
  if (getxattr(TAVRIX_TREE, "user.tavrix.doctor", nullptr, 0) >= 0 || errno == ENODATA) {
    return {id, Level::kWell, "the file system of the tree keeps extended attributes of users", ""};
  }
  if (errno == ENOTSUP) {
    return {id, Level::kCritical,
            "the file system of " TAVRIX_TREE
            " keeps no extended attributes of users: no folder is fixed, and no change has a name",
            "use ext4, xfs or btrfs for " TAVRIX_TREE};
  }
  return {id, Level::kCritical, fmt::format(TAVRIX_TREE ": {}", std::strerror(errno)),
          "make " TAVRIX_TREE " with Shared and Private in it"};
}

Checks check_folders(const std::string& inbox) {
  std::vector<status::Unread> unread;
  const auto settings = status::look_at_settings("", unread);
  std::vector<Folder> folders = {
      {"/etc/tavrix", 0055, "settings and local copy"},
      {TAVRIX_CONF_FOLDER, 0, "alarms and notes"},
      {TAVRIX_TREE "/Shared", 0, "the tree"},
      {TAVRIX_TREE "/Private", 0, "the tree"},
      {inbox, 0, "maps on their way"},
  };
  if (!settings.staging_dir.empty()) folders.push_back({settings.staging_dir, 0, "events"});
  if (!settings.auditing_dir.empty()) folders.push_back({settings.auditing_dir, 0, "audits"});
  Checks found;
  for (const Folder& folder : folders) {
    if (Check check = check_folder(folder); !check.sentence.empty()) {
      found.push_back(std::move(check));
    }
  }
  if (found.empty()) {
    found.push_back({"folder", Level::kWell, "the folders are there, and closed to others", ""});
  }
  return found;
}

Check check_history() {
  const std::string id = "history";
  struct stat links {};
  if (stat(TAVRIX_HISTORY_FOLDER, &links) != 0) {
    return {id, Level::kWell, "the history is off: there is no " TAVRIX_HISTORY_FOLDER, ""};
  }
  std::vector<status::Unread> unread;
  const auto settings = status::look_at_settings("", unread);
  for (const std::string& folder : {settings.staging_dir, settings.auditing_dir}) {
    struct stat info {};
    if (folder.empty() || stat(folder.c_str(), &info) != 0 || info.st_dev == links.st_dev) continue;
    return {id, Level::kCritical,
            folder + " and " TAVRIX_HISTORY_FOLDER
                     " are on two file systems: nothing comes into the history",
            "keep both on one file system"};
  }
  return {id, Level::kWell, "dump files can be linked for the history", ""};
}

Check check_huge_pages() {
  const std::string id = "huge-pages";
  const auto pages = status::look_at_huge_pages();
  if (pages.setting.empty()) {
    return {id, Level::kWell, "this kernel has no huge pages for shared memory", ""};
  }
  if (pages.setting != "never" && pages.setting != "deny") {
    return {id, Level::kWell, fmt::format("a map may use huge pages (\"{}\")", pages.setting), ""};
  }
  return {id, Level::kWarning,
          fmt::format("maps use small pages (\"{}\"), which makes decisions slower", pages.setting),
          "run \"systemd-tmpfiles --create tavrix.conf\"; the next map uses huge pages"};
}

Checks check_all(const Places& places) {
  Checks checks{check_remove_ipc(), check_private_ipc(), check_attributes()};
  const auto add = [&checks](const Checks& more) {
    checks.insert(checks.end(), more.begin(), more.end());
  };
  add(check_folders(places.inbox));
  checks.push_back(check_history());
  checks.push_back(check_huge_pages());
  checks.push_back(check_comparison_library());
  checks.push_back(check_module());
  add(check_server_settings(places.smb_conf));
  return checks;
}

Level worst(const Checks& checks) {
  Level level = Level::kWell;
  for (const Check& check : checks) level = std::max(level, check.level);
  return level;
}

}  // namespace tavrix::doctor
