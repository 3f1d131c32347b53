// SPDX-License-Identifier: LGPL-3.0-or-later
#include "bench/hook_cases.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/sample_map.hpp"
#include "perm_enforcer.h"
#include "tavrix_vfs_utils.h"
#include "vfs_common.h"

namespace tavrix::bench {
namespace {

constexpr uid_t kUser = 1003;
constexpr gid_t kGroup = 9003;
constexpr gid_t kAdmins = 9001;
constexpr int kEntries = 10'000;
const std::string kStaging = "/scratch/hook_staging";
gid_t groups[] = {100, 101, 102, kAdmins};
char user_name[] = "anna";

void set_settings() {
  global_params[PARAM_DEBUG_LEVEL].value.intval = -1;
  global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = 256 << 20;
  global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = 80;
  std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, kStaging.c_str());
}

void touch(const std::string& path) { std::ofstream(path, std::ios::app) << ""; }

// --- system calls of the floors ---

struct Ids {
  uid_t real, effective, saved;
};

Ids become_root() {
  Ids ids{};
  gid_t gids[3];
  static_cast<void>(geteuid());
  getresuid(&ids.real, &ids.effective, &ids.saved);
  getresgid(&gids[0], &gids[1], &gids[2]);
  if (setresuid(0, 0, static_cast<uid_t>(-1)) != 0) std::abort();
  return ids;
}
void give_back(const Ids& ids) {
  if (setresuid(ids.real, ids.effective, ids.saved) != 0) std::abort();
}
void root_for_the_operation() { give_back(become_root()); }
void stat_as_root(const std::string& path) {
  const Ids ids = become_root();
  struct stat st {};
  stat(path.c_str(), &st);
  give_back(ids);
}
void decide(HookWorld& world, const std::string& path, e_fsop_type op) {
  int is_nav = 0;
  const int verdict =
      vfs_enforce_perms("/tavrix", path.c_str(), op, &world.record()->groupmap, 0, &is_nav);
  if (verdict != TXPERMS_HAS_PERMS) std::abort();
}
void send(const std::string& path) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>(path.c_str());
  pop_vfs_event(&event, kUser);
  if (send_modify_vfs_event(&event) != 0) std::abort();
}
void stamp(const std::string& path) {
  const Ids ids = become_root();
  setxattr(path.c_str(), XATTR_MODIFYING_USER, user_name, std::strlen(user_name), XATTR_REPLACE);
  give_back(ids);
}
void require(int result) {
  if (result != 0) std::abort();
}

// --- cases ---

void open_hook(HookWorld& world) {
  e_open_mode mode = OPENMODE_WRITE;
  e_fsop_type op = FSOP_INVAL;
  int is_new = 0;
  struct stat st;
  char* full_path = world.full_file.data();
  require(open_preprocess("/tavrix", world.file.c_str(), &mode, &op, &full_path, &is_new, 0,
                          world.record(), &st, "192.0.2.7", world.slot(), 0));
}
void create_file_hook(HookWorld& world) {
  int exists = 0;
  char* full_path = world.full_file.data();
  require(create_file_preprocess(1, &full_path, world.file.c_str(), world.file.c_str(),
                                 world.slot(), &exists, 0, 1, 0, "/tavrix", world.record()));
  world.give_root_back();
}
void stat_floor(HookWorld& world) {
  struct stat st {};
  static_cast<void>(std::time(nullptr));
  stat(TAVRIX_GROUPMAP_MARKER_PATH, &st);
  stat(TAVRIX_PERMISSION_MARKER_PATH, &st);
  static_cast<void>(geteuid());
  check_perms("/tavrix", world.folder.c_str(), FSOP_STAT, world.record(), 0);
  root_for_the_operation();
}
void opendir_hook(HookWorld& world) {
  char* nlpath = nullptr;
  int is_nav = 0;
  require(opendir_preprocess(".", world.full_folder.c_str(), "/tavrix", &nlpath, world.slot(),
                             world.record(), &is_nav));
  world.give_root_back();
  std::free(nlpath);
}
void rename_hook(HookWorld& world) {
  int isdir = 0;
  int is_nav = 0;
  require(rename_preprocess("/tavrix", world.full_file.c_str(), (world.full_file + "2").c_str(),
                            world.slot(), &isdir, world.record(), &is_nav));
  world.give_root_back();
}
void close_hook(HookWorld& world) {
  static const int fd = open("/scratch/open_file", O_CREAT | O_RDONLY | O_CLOEXEC, 0644);
  modify_file_evt_s record{nullptr, 0, 0};
  modify_file_evt_s* pmodify = &record;
  close_preprocess(0, fd, world.record(), &pmodify, 1, nullptr);
}
void close_floor(HookWorld&) {
  static const int fd = open("/scratch/open_file", O_CREAT | O_RDONLY | O_CLOEXEC, 0644);
  char name[64];
  char path[4097];
  const Ids ids = become_root();
  std::snprintf(name, sizeof name, "/proc/%d/fd/%d", getpid(), fd);
  if (readlink(name, path, sizeof path) < 1) std::abort();
  give_back(ids);
  struct stat st {};
  fstat(fd, &st);
}

// A hook that takes one decision and leaves the process root.
HookCase one_decision(const char* name, e_fsop_type op, std::string HookWorld::*path,
                      std::function<int(HookWorld&)> hook) {
  return {name,
          [hook = std::move(hook)](HookWorld& world) {
            require(hook(world));
            world.give_root_back();
          },
          [op, path](HookWorld& world) {
            decide(world, world.*path, op);
            root_for_the_operation();
          }};
}

std::vector<HookCase> preprocess_cases() {
  using W = HookWorld;
  return {
      {"open", open_hook,
       [](W& w) {
         stat_as_root(w.full_file);
         decide(w, w.full_file, FSOP_OPEN_WRITE);
       }},
      {"close", close_hook, close_floor},
      {"create_file", create_file_hook,
       [](W& w) {
         stat_as_root(w.full_file);
         decide(w, w.full_file, FSOP_OPEN_WRITE);
         root_for_the_operation();
       }},
      one_decision("unlink", FSOP_OPEN_WRITE, &W::full_file,
                   [](W& w) {
                     return unlink_preprocess("/tavrix", w.file.c_str(), w.full_file.c_str(),
                                              w.record(), w.slot());
                   }),
      {"opendir", opendir_hook,
       [](W& w) {
         decide(w, w.full_folder, FSOP_OPENDIR);
         root_for_the_operation();
       }},
      one_decision("fdopendir", FSOP_OPENDIR, &W::full_folder,
                   [](W& w) {
                     int is_nav = 0;
                     return fdopendir_preprocess("/tavrix", w.folder.c_str(), 0, w.record(),
                                                 &is_nav, w.slot());
                   }),
      one_decision("mkdir", FSOP_MKDIR, &W::full_folder,
                   [](W& w) {
                     return mkdir_preprocess("/tavrix", w.folder.c_str(), w.full_folder.c_str(),
                                             w.record(), w.slot());
                   }),
      one_decision("create_dir", FSOP_OPENDIR, &W::full_folder,
                   [](W& w) {
                     char* full_path = w.full_folder.data();
                     return create_dir_preprocess(0, w.folder.c_str(), &full_path, 0, "/tavrix",
                                                  w.record(), w.slot());
                   }),
      one_decision("rmdir", FSOP_RMDIR, &W::full_folder,
                   [](W& w) {
                     return rmdir_preprocess(w.full_folder.c_str(), "/tavrix", w.folder.c_str(),
                                             w.record(), w.slot());
                   }),
      one_decision(
          "chdir", FSOP_CHDIR, &W::full_folder,
          [](W& w) { return chdir_preprocess(w.folder.c_str(), "/tavrix", w.record(), w.slot()); }),
      {"rename", rename_hook,
       [](W& w) {
         stat_as_root(w.full_file);
         decide(w, w.full_file, FSOP_OPEN_WRITE);
         decide(w, w.full_file + "2", FSOP_RENAME_DEST);
         root_for_the_operation();
       }},
      {"stat",
       [](W& w) {
         require(stat_preprocess(w.record(), w.folder.c_str(), "/tavrix", w.slot()));
         w.give_root_back();
       },
       stat_floor},
      one_decision(
          "lstat", FSOP_LSTAT, &W::full_folder,
          [](W& w) { return lstat_preprocess("/tavrix", w.folder.c_str(), w.slot(), w.record()); }),
  };
}

std::vector<HookCase> record_cases() {
  using W = HookWorld;
  return {
      {"record_stamped", [](W& w) { create_file_postprocess(w.record(), w.full_file.c_str()); },
       [](W& w) {
         stamp(w.full_file);
         send(w.full_file);
       }},
      {"record", [](W& w) { unlink_postprocess(w.full_file.c_str(), w.record()); },
       [](W& w) { send(w.full_file); }},
  };
}

}  // namespace

HookWorld::HookWorld() : record_(std::make_unique<connection_private_data_s>()) {
  set_settings();
  const sample::Shape shape = shape_of(10'000);
  publish(shape);
  folder = some_paths(shape, 1).front();
  full_folder = "/tavrix/" + folder;
  file = folder + "/report.docx";
  full_file = "/tavrix/" + file;
  std::filesystem::create_directories(full_folder);
  std::filesystem::create_directories(kStaging);
  touch(full_file);
  touch(TAVRIX_GROUPMAP_MARKER_PATH);
  touch(TAVRIX_PERMISSION_MARKER_PATH);
  for (int i = 0; i < kEntries; ++i) entries.push_back("entry" + std::to_string(i));
  create_eventstore_staging_semaphore();
  create_staging_buffer();
  vfs_set_admins_powerusers(kAdmins, 9002);
  init_tlb(&record_->vfs_table_cache);
  record_->user_name_as_passed_in = user_name;
  const time_t later = std::time(nullptr) + 3600;  // newer than the refresh files
  record_->refresh_creds = {later, later, kUser, kUser};
  record_->groupmap.euid = kUser;
  record_->groupmap.egid = kGroup;
  record_->groupmap.num_sup_gids = 4;
  record_->groupmap.gids = groups;
  if (setegid(kGroup) != 0 || setresuid(kUser, kUser, 0) != 0) throw std::runtime_error("identity");
}

HookWorld::~HookWorld() {
  if (setresuid(0, 0, 0) != 0 || setegid(0) != 0) std::abort();
  destroy_tlb(&record_->vfs_table_cache);
  remove_staging_buffers();
  destroy_eventstore_staging_buffer_semaphore();
  std::filesystem::remove_all("/tavrix/Shared");
  global_params[PARAM_DEBUG_LEVEL].value.intval = 0;
}

void HookWorld::give_root_back() {
  require(tavrix_vfs_unbecome_root(ctx_));
  ctx_ = nullptr;
}

const std::vector<HookCase>& hook_cases() {
  static const std::vector<HookCase> cases = [] {
    auto all = preprocess_cases();
    for (HookCase& one : record_cases()) all.push_back(std::move(one));
    return all;
  }();
  return cases;
}

}  // namespace tavrix::bench
