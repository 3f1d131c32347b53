// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/world.hpp"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <filesystem>
#include <stdexcept>

namespace tavrix::test {

namespace fs = std::filesystem;

const Caller kEddy{"Eddy", 1011, kPeople, {kPowerUsers, kWriters}};
const Caller kVera{"Vera", 1012, kPeople, {kPowerUsers}};
const Caller kNina{"Nina", 1013, kPeople, {kPowerUsers}};
const Caller kStan{"Stan", 1014, kPeople, {kPowerUsers}};
const Caller kSyncAgent{"syncagent", 1015, kPeople, {}};
const Caller kComputer{"pc7$", 1007, kPeople, {kPowerUsers, kWriters}};
const Caller kGuest{"stranger-at-the-door", 65534, 65534, {}};

namespace {

const std::vector<const Caller*> kNewcomers{&kEddy, &kVera, &kNina, &kStan, &kSyncAgent};

void add_users() {
  std::string text = read_file("/etc/passwd");
  for (const Caller* caller : kNewcomers) {
    text += caller->name + ":x:" + std::to_string(caller->uid) + ":" + std::to_string(caller->gid) +
            "::/:/bin/false\n";
  }
  write_file("/etc/passwd", text);
  GroupMap map{{{"tavrix-admins", kAdmins}, {"tavrix-powerusers", kPowerUsers}}, {}};
  for (const Role& role : roles()) {
    if (role.caller != &kGuest) map.users.push_back({role.caller->name, role.caller->groups});
  }
  map.users.push_back({kOlga.name, kOlga.groups});
  write_file("/scratch/groups", group_map_bytes(map));
  ASSERT_EQ(0, rename("/scratch/groups", "/etc/tavrix/groupmap_refresh"));
}

// A share of a second tree without the module, on which every user is root. It shows the answers of
// the server alone.
constexpr const char* kPlainShare = R"(
[plain]
  path = /scratch/plain
  read only = no
  hide dot files = no
  case sensitive = yes
  aio read size = 0
  aio write size = 0
  force user = root
  guest ok = yes
)";

void own(const fs::path& path, uid_t owner) {
  if (lchown(path.c_str(), owner, kPeople) != 0) throw std::runtime_error("chown " + path.string());
}

void folder(const fs::path& path, uid_t owner = 0) {
  fs::create_directories(path);
  own(path, owner);
}

void file(const fs::path& path, uid_t owner = 0) {
  write_file(path, "content\n");
  own(path, owner);
}

// Empties the share's folder and keeps it, because a server process works in it.
void clean(const fs::path& root) {
  char names[4096];
  const ssize_t size = listxattr(root.c_str(), names, sizeof names);
  for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::string(names + at).size()) + 1) {
    removexattr(root.c_str(), names + at);
  }
  for (const auto& entry : fs::directory_iterator(root)) {
    if (entry.path().filename() != ".conf") fs::remove_all(entry.path());
  }
}

void make_team(const fs::path& team) {
  for (const char* name : {"Docs/Deep/Deeper", "Empty", "Fixed", "FullFixed", "Secret", "Drop"}) {
    folder(team / name);
  }
  for (const char* name :
       {"file.txt", "other.txt", "a.sb-x", "Docs/plan.txt", "Docs/Deep/Deeper/far.txt",
        "FullFixed/kept.txt", "Secret/hidden.txt", "Drop/form.txt"}) {
    file(team / name);
  }
  for (const char* name : {"Fixed", "FullFixed"}) {
    setxattr((team / name).c_str(), "user.tavrix.fixed_folder", "", 0, 0);
  }
  fs::create_symlink("file.txt", team / "inside.lnk");
  fs::create_symlink("Secret", team / "secret.lnk");
  fs::create_symlink("../Secret/hidden.txt", team / "Docs/peek.lnk");
  fs::create_symlink("/etc/passwd", team / "outside.lnk");
}

}  // namespace

void make_tree(const std::string& root_name) {
  const fs::path root(root_name);
  fs::create_directories(root);
  clean(root);
  make_team(root / "Shared/Team");
  folder(root / "Shared/Closed/Inner");
  folder(root / "Other");
  file(root / "Shared/Closed/locked.txt");
  file(root / "Shared/stray.txt");
  file(root / "top.txt");
  folder(root / "Private/pat/notes", kPat.uid);
  folder(root / "Private/pat", kPat.uid);
  file(root / "Private/pat/diary.txt", kPat.uid);
  folder(root / "Private/olga", kOlga.uid);
  file(root / "Private/olga/diary.txt", kOlga.uid);
  // The modes of the appliance: clients reach nothing with their own identity.
  for (const char* top : {"Shared", "Private"}) fs::permissions(root / top, fs::perms::owner_all);
}

const std::vector<Role>& roles() {
  static const std::vector<Role> all{{"administrator", &kAdministrator},
                                     {"owner", &kPat},
                                     {"writer", &kAnna},
                                     {"editor", &kEddy},
                                     {"reader", &kBen},
                                     {"viewer", &kVera},
                                     {"navigator", &kNina},
                                     {"stranger", &kStan},
                                     {"standard", &kStandardUser},
                                     {"computer", &kComputer},
                                     {"reserved", &kSyncAgent},
                                     {"guest", &kGuest}};
  return all;
}

Folder matrix_map() {
  const Folder deeper{.name = "Deeper"};
  const Folder docs{.name = "Docs", .children = {{.name = "Deep", .children = {deeper}}}};
  const Folder secret{.name = "Secret",
                      .users = {{kAnna.uid, 0}, {kVera.uid, 0}, {kNina.uid, 0}},
                      .groups = {{kWriters, 0}, {kReaders, 0}}};
  const Folder drop{.name = "Drop", .groups = {{kWriters, 3}, {kReaders, 8}}};
  const Folder team{.name = "Team",
                    .users = {{kAnna.uid, 7}, {kVera.uid, 16}, {kNina.uid, 8}},
                    .groups = {{kWriters, 3}, {kReaders, 1}},
                    .children = {docs, secret, drop}};
  const Folder closed{.name = "Closed", .groups = {{4242, 7}}};
  const Folder shared{.name = "Shared", .groups = {{kPeople, 8}}, .children = {team, closed}};
  const Folder priv{.name = "Private", .groups = {{kPeople, 8}}};
  return {.name = "/", .groups = {{kPeople, 1}}, .children = {shared, priv}};
}

void MatrixWorld::SetUp() {
  Appliance::SetUp();
  // Mounted so that reading changes no time: then every new time is a change.
  ASSERT_EQ(0, mount("/tavrix", "/tavrix", nullptr, MS_BIND, nullptr));
  ASSERT_EQ(0, mount(nullptr, "/tavrix", nullptr, MS_REMOUNT | MS_BIND | MS_NOATIME, nullptr));
  publish_map(matrix_map());
  add_users();
  for (const Caller* caller : kNewcomers) set_password(caller->name);
  Lines lines{"guest ok = yes", "tavrix:reserved user = syncagent",
              "tavrix:allow computer accounts = yes"};
  for (const std::string& line : options()) lines.push_back(line);
  configure(lines);
  bash("sed -i 's|map to guest = never|map to guest = bad user|' /scratch/samba/smb.conf");
  write_file("/scratch/samba/smb.conf", read_file("/scratch/samba/smb.conf") + kPlainShare);
  make_tree(kShareRoot);
  make_tree(kPlainRoot);
  start_smbd();
  robot_ = std::make_unique<Robot>();
}

void MatrixWorld::TearDown() {
  robot_.reset();
  Appliance::TearDown();
}

}  // namespace tavrix::test
