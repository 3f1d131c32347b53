// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/share.hpp"

#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {

const Caller kAdministrator{"Administrator", 1001, kPeople, {kAdmins}};
const Caller kStandardUser{"StandardUser", 1002, kPeople, {kWriters, kReaders}};
const Caller kPat{"Pat", 1003, kPeople, {kPowerUsers}};
const Caller kOlga{"Olga", 1004, kPeople, {kPowerUsers}};
const Caller kAnna{"Anna", 1005, kPeople, {kPowerUsers, kWriters}};
const Caller kBen{"Ben", 1006, kPeople, {kReaders, kPowerUsers}};

namespace {

Caller this_caller;  // in a process that as() made

// The segments of System V that are mapped here, by the kernel's own list: counting the
// attachments of a table would need the superuser.
std::vector<std::string> attached_segments() {
  std::vector<std::string> segments;
  std::FILE* maps = std::fopen("/proc/self/maps", "re");
  if (maps == nullptr) return {"unknown"};
  char line[4096];
  while (std::fgets(line, sizeof line, maps) != nullptr) {
    if (const std::string text(line); text.find("/SYSV") != std::string::npos) {
      segments.push_back(text);
    }
  }
  std::fclose(maps);
  return segments;
}

std::vector<gid_t> supplementary_groups() {
  std::vector<gid_t> groups(64);
  const int count = getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return groups;
}

Outcome run_as(const Caller& caller, bool real_root, const std::function<void()>& body) {
  return in_child([&] {
    this_caller = caller;
    become_samba_user(caller.uid, caller.gid, caller.groups);
    if (real_root) {
      ASSERT_EQ(0, seteuid(0));
      ASSERT_EQ(0, setresuid(0, caller.uid, 0));
    }
    body();
  });
}

}  // namespace

std::vector<Caller> all_callers() {
  return {kAdministrator, kStandardUser, kPat, kOlga, kAnna, kBen};
}

std::ostream& operator<<(std::ostream& out, const Ruling& ruling) {
  return out << "verdict " << ruling.verdict << ", is_nav " << ruling.is_nav;
}

Footprint footprint_now() {
  Footprint now;
  now.ids = ids_now();
  now.groups = supplementary_groups();
  now.segments = attached_segments();
  now.blocks = static_cast<long>(live_allocations());
  return now;
}

process_trustees_s trustees_of(const Caller& caller) {
  process_trustees_s trustees{};
  trustees.euid = caller.uid;
  trustees.egid = caller.gid;
  trustees.num_sup_gids = static_cast<int>(caller.groups.size());
  trustees.gids = const_cast<gid_t*>(caller.groups.data());
  trustees.admin = trustees.poweruser = -1;  // the decision must overwrite these
  return trustees;
}

Ruling ask(e_fsop_type op, const std::string& path, int type) {
  process_trustees_s trustees = trustees_of(this_caller);
  Ruling ruling{-1, -1};
  const Footprint before = footprint_now();
  const long blocks = static_cast<long>(live_allocations());
  ruling.verdict =
      vfs_enforce_perms(kShareRoot.c_str(), path.c_str(), op, &trustees, type, &ruling.is_nav);
  const long blocks_left = static_cast<long>(live_allocations()) - blocks;
  const Footprint after = footprint_now();
  EXPECT_EQ(0, blocks_left) << "blocks left on the heap";
  EXPECT_EQ(before.segments, after.segments) << "segments left attached";
  EXPECT_TRUE(before.ids == after.ids) << "the identity changed";
  EXPECT_EQ(before.groups, after.groups) << "the groups changed";
  return ruling;
}

Ruling ask_share(e_fsop_type op, const std::string& path, int type) {
  return ask(op, kShareRoot + "/" + path, type);
}

int level_when_asking(const std::string& message, e_fsop_type op, const std::string& path,
                      int type) {
  return level_of(message, [&] { ask_share(op, path, type); });
}

void Share::SetUp() {
  Isolated::SetUp();
  set_debug_level(-1);
  vfs_set_admins_powerusers(kAdmins, kPowerUsers);
  publish_map(share_map());
  for (const char* team : {"Team", "Team/Docs", "Team/Docs/Deep", "Team/Secret", "Team/Drop",
                           "Team/Gallery", "Team/NotInMap", "Lobby", "Lobby/Inner", "Closed"}) {
    make_folder(std::string("Shared/") + team);
  }
  make_file("Shared/stray.txt");
  make_file("Shared/Team/report.txt");
  make_file("Shared/Team/Docs/plan.txt");
  make_file("Shared/Team/Gallery/picture.jpg");
  make_folder("Private/pat", kPat.uid);
  make_folder("Private/pat/notes", kPat.uid);
  make_file("Private/pat/diary.txt", kPat.uid);
  make_folder("Private/olga", kOlga.uid);
  make_file("Private/olga/diary.txt", kOlga.uid);
  make_file("Private/stray.txt", kPat.uid);
  make_folder("Other");
  make_file("top.txt");
  // As on the appliance, clients reach nothing here under their own identity.
  std::filesystem::permissions(kShareRoot + "/Shared", std::filesystem::perms::owner_all);
  std::filesystem::permissions(kShareRoot + "/Private", std::filesystem::perms::owner_all);
}

void Share::as(const Caller& caller, const std::function<void()>& body) {
  const Outcome outcome = run_as(caller, false, body);
  EXPECT_TRUE(outcome.ok()) << caller.name << ":\n" << outcome.out << outcome.err;
}

void Share::as_effective(const Caller& caller, const std::function<void()>& body) {
  const Outcome outcome = run_as(caller, true, body);
  EXPECT_TRUE(outcome.ok()) << caller.name << ":\n" << outcome.out << outcome.err;
}

Outcome Share::outcome_as(const Caller& caller, const std::function<void()>& body) {
  return run_as(caller, false, body);
}

void Share::publish_map(const Folder& map) { publish(build_image(map, {})); }

void Share::publish_team(const std::vector<Ace>& users, const std::vector<Ace>& groups) {
  publish_map({.name = "/",
               .children = {{.name = "Shared",
                             .children = {{.name = "Team", .users = users, .groups = groups}}}}});
}

void Share::make_folder(const std::string& path, uid_t owner) {
  const std::filesystem::path full = std::filesystem::path(kShareRoot) / path;
  std::filesystem::create_directories(full);
  ASSERT_EQ(0, chown(full.c_str(), owner, kPeople)) << full;
}

void Share::make_file(const std::string& path, uid_t owner) {
  const std::filesystem::path full = std::filesystem::path(kShareRoot) / path;
  std::ofstream(full) << "content\n";
  ASSERT_EQ(0, chown(full.c_str(), owner, kPeople)) << full;
}

// Anna and the writers write in Shared/Team, the readers read there; Lobby may only be passed.
Folder share_map() {
  const Folder deep{.name = "Deep"};
  const Folder docs{.name = "Docs", .children = {deep}};
  const Folder secret{.name = "Secret", .users = {{kAnna.uid, 0}}, .groups = {{kReaders, 0}}};
  const Folder drop{.name = "Drop", .groups = {{kWriters, 3}, {kReaders, 8}}};
  const Folder gallery{.name = "Gallery", .users = {{kAnna.uid, 16}}, .groups = {{kReaders, 16}}};
  const Folder ghost{.name = "Ghost", .users = {{kAnna.uid, 1}}};
  const Folder team{.name = "Team",
                    .users = {{kAnna.uid, 7}},
                    .groups = {{kWriters, 3}, {kReaders, 1}},
                    .children = {docs, secret, drop, gallery, ghost}};
  const Folder inner{.name = "Inner"};
  const Folder lobby{.name = "Lobby",
                     .users = {{kAnna.uid, 8}, {kOlga.uid, 16}},
                     .groups = {{kReaders, 8}},
                     .children = {inner}};
  const Folder closed{.name = "Closed", .groups = {{4242, 7}}};
  const Folder shared{
      .name = "Shared", .groups = {{kPeople, 8}}, .children = {team, lobby, closed}};
  const Folder priv{.name = "Private", .groups = {{kPeople, 8}}};
  return {.name = "/", .groups = {{kPeople, 1}}, .children = {shared, priv}};
}

}  // namespace tavrix::test
