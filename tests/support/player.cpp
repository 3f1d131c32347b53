// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/player.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>

#include "tavrix_session.h"
#include "tests/support/rule_table.hpp"

namespace tavrix::test {
namespace {

std::string work_of(const Caller& caller) { return "Work" + std::to_string(caller.uid); }

bool touch(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

}  // namespace

Player::Player(const Caller& caller, uint32_t seed, const Way& way)
    : caller_(caller),
      session_(caller),
      random_(seed),
      way_(way),
      root_(kShareRoot + "/Shared/" + work_of(caller)) {
  // The refreshes free and replace the groups.
  session_->groupmap.gids = nullptr;
  session_->groupmap.num_sup_gids = 0;
  session_->refresh_creds.groupmap_refresh = 0;
  tree_[root_] = true;
  for (const Area& area : kAreas) {
    tree_[root_ + "/" + area.name] = true;
    tree_[root_ + "/" + area.name + "/d0"] = true;
    tree_[root_ + "/" + area.name + "/f0"] = false;
  }
}

Folder Player::folder_of(const Caller& caller) {
  Folder work{.name = work_of(caller), .users = {{caller.uid, 7}}};
  for (const Area& area : kAreas) {
    work.children.push_back(
        {.name = area.name, .users = {{caller.uid, static_cast<uint16_t>(area.mask)}}});
  }
  return work;
}

void Player::make_folders(const Caller& caller) {
  for (const Area& area : kAreas) {
    const std::string folder = kShareRoot + "/Shared/" + work_of(caller) + "/" + area.name;
    make_dirs(folder + "/d0");
    write_file(folder + "/f0", "content");
  }
}

// --- the model ----------------------------------------------------------------------------------

std::string Player::some_area() {
  // Mostly where the player may do something.
  const std::size_t area = random_() % 2 == 0 ? 0 : random_() % kAreas.size();
  return root_ + "/" + kAreas[area].name;
}

std::string Player::some_name() {
  std::string path = some_area();
  for (auto depth = random_() % 3; depth > 0; --depth) {
    path += "/d" + std::to_string(random_() % 4);
  }
  return path + (random_() % 2 == 0 ? "/d" : "/f") + std::to_string(random_() % 4);
}

std::string Player::some_new_name() {
  for (;;) {
    std::string path = some_name();
    if (tree_.count(path) == 0) return path;
  }
}

e_file_type Player::type_of(const std::string& path) const {
  const auto found = tree_.find(path);
  if (found == tree_.end()) return FSTYPE_DOES_NOT_EXIST;
  return found->second ? FSTYPE_FOLDER : FSTYPE_FILE;
}

bool Player::is_below_a_file(const std::string& path) const {
  for (auto at = path.rfind('/'); at > root_.size(); at = path.rfind('/', at - 1)) {
    if (type_of(path.substr(0, at)) == FSTYPE_FILE) return true;
  }
  return false;
}

Player::Masks Player::masks_of(const std::string& path) const {
  if (caller_.uid == kAdministrator.uid) return {7, 7};
  const std::string behind = path.substr(root_.size() + 1);
  const auto slash = behind.find('/');
  for (const Area& area : kAreas) {
    if (behind.substr(0, slash) != area.name) continue;
    return {area.mask, slash == std::string::npos ? 7 : area.mask};
  }
  return {0, 0};
}

bool Player::grants(e_fsop_type op, const std::string& path) const {
  const e_file_type type = type_of(path);
  if (op == FSOP_OPEN_READ && type == FSTYPE_FOLDER) return true;
  const Masks masks = masks_of(path);
  return rule_says(op, type, masks.self, masks.parent).granted;
}

std::string Player::relative(const std::string& path) { return path.substr(kShareRoot.size() + 1); }

template <typename Hook, typename Operation>
bool Player::run(bool granted, int refusal, Hook hook, Operation operation) {
  const uid_t before = geteuid();
  const int result = hook();
  const int error = errno;
  EXPECT_EQ(granted ? 0 : -1, result);
  bool done = false;
  if (result == 0) {
    done = operation();
    if (*session_.slot() != nullptr) {
      EXPECT_EQ(0U, geteuid());
      EXPECT_EQ(0, tavrix_vfs_unbecome_root(*session_.slot()));
      *session_.slot() = nullptr;
    }
  } else if (!granted) {
    EXPECT_EQ(refusal, error);
  }
  EXPECT_EQ(nullptr, *session_.slot());
  EXPECT_EQ(before, geteuid());
  return done;
}

void Player::expect_stamp(const std::string& path) {
  char value[64] = "";
  tx_perm_ctx_t* root = tavrix_vfs_become_root();
  const ssize_t size = getxattr(path.c_str(), XATTR_MODIFYING_USER, value, sizeof value);
  tavrix_vfs_unbecome_root(root);
  EXPECT_EQ(caller_.name, std::string(value, size < 0 ? 0 : static_cast<std::size_t>(size)));
}

// --- operations ---------------------------------------------------------------------------------

void Player::make_dir() {
  std::string path = some_name();
  const bool done = run(
      grants(FSOP_MKDIR, path), EACCES,
      [&] {
        return mkdir_preprocess("/tavrix", relative(path).c_str(), path.c_str(), session_.get(),
                                session_.slot());
      },
      [&] { return mkdir(path.c_str(), 0755) == 0; });
  if (!done) return;
  char* full_path = path.data();
  mkdir_postprocess(session_.get(), &full_path);
  tree_[path] = true;
  expect("MKDIR DIR " + path);
  expect_stamp(path);
}

void Player::create_folder() {
  std::string path = some_name();
  const bool make = random_() % 2 == 0;
  char* full_path = path.data();
  const bool done = run(
      grants(make ? FSOP_MKDIR : FSOP_OPENDIR, path), EACCES,
      [&] {
        return create_dir_preprocess(0, relative(path).c_str(), &full_path, make ? 1 : 0, "/tavrix",
                                     session_.get(), session_.slot());
      },
      [&] { return make && mkdir(path.c_str(), 0755) == 0; });
  if (!done) return;
  create_dir_postprocess(path.c_str(), session_.get());
  tree_[path] = true;
  expect("MKDIR DIR " + path);
}

void Player::create_file() {
  std::string path = some_name();
  char* full_path = path.data();
  const bool there = tree_.count(path) != 0;
  const bool open_if = random_() % 2 == 0;
  int exists = -1;
  const e_fsop_type op = open_if && there ? FSOP_OPEN_WRITE : FSOP_CREATE;
  const bool done = run(
      grants(op, path), EACCES,
      [&] {
        return create_file_preprocess(1, &full_path, relative(path).c_str(), path.c_str(),
                                      session_.slot(), &exists, 0, open_if ? 3 : 2, 0, "/tavrix",
                                      session_.get());
      },
      [&] { return touch(path, O_CREAT | O_EXCL | O_WRONLY); });
  EXPECT_EQ(there ? 1 : 0, exists);
  if (!done) return;
  create_file_postprocess(session_.get(), path.c_str());
  tree_[path] = false;
  expect("CREATE FILE " + path);
  expect_stamp(path);
}

void Player::open_and_close() {
  std::string path = some_name();
  const std::string name = relative(path);
  char* full_path = path.data();
  const bool write = random_() % 2 == 0;
  e_open_mode mode = write ? OPENMODE_WRITE : OPENMODE_READ;
  e_fsop_type op = FSOP_INVAL;
  int is_new = 0;
  struct stat st {};
  const int result = open_preprocess("/tavrix", name.c_str(), &mode, &op, &full_path, &is_new, 0,
                                     session_.get(), &st, "10.0.0.1", session_.slot(), 0);
  EXPECT_EQ(grants(write ? FSOP_OPEN_WRITE : FSOP_OPEN_READ, path) ? 0 : -1, result) << path;
  // A path below a file fails with another error than a missing one.
  EXPECT_EQ(tree_.count(path) == 0 && !is_below_a_file(path) ? 1 : 0, is_new);
  if (result != 0 || type_of(path) != FSTYPE_FILE) return;
  tx_perm_ctx_t* root = tavrix_vfs_become_root();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  tavrix_vfs_unbecome_root(root);
  ASSERT_GT(fd, 0);
  modify_file_evt_s record{nullptr, write && random_() % 2 == 0 ? 1 : 0, 0};
  if (record.is_modified == 1) expect("OPEN FILE " + path);
  modify_file_evt_s* pmodify = &record;
  close_preprocess(0, fd, session_.get(), &pmodify, 1, nullptr);
  close(fd);
}

void Player::unlink_file() {
  const std::string path = some_name();
  const bool done = run(
      grants(FSOP_OPEN_WRITE, path), EACCES,
      [&] {
        return unlink_preprocess("/tavrix", relative(path).c_str(), path.c_str(), session_.get(),
                                 session_.slot());
      },
      [&] { return unlink(path.c_str()) == 0; });
  if (!done) return;
  unlink_postprocess(path.c_str(), session_.get());
  tree_.erase(path);
  expect("UNLINK FILE " + path);
}

void Player::remove_dir() {
  const std::string path = some_name();
  const bool done = run(
      grants(FSOP_RMDIR, path), EPERM,
      [&] {
        return rmdir_preprocess(path.c_str(), "/tavrix", relative(path).c_str(), session_.get(),
                                session_.slot());
      },
      [&] { return rmdir(path.c_str()) == 0; });
  if (!done) return;
  rmdir_postprocess(path.c_str(), session_.get());
  tree_.erase(path);
  expect("RMDIR DIR " + path);
}

void Player::move() {
  const std::string from = some_name();
  const std::string to = some_new_name();
  const e_file_type type = type_of(from);
  const auto parent = [](const std::string& path) { return path.substr(0, path.rfind('/')); };
  const bool moves = type == FSTYPE_FOLDER && parent(from) != parent(to);
  const bool granted = type != FSTYPE_DOES_NOT_EXIST &&
                       grants(moves ? FSOP_MOVE_SRC : FSOP_OPEN_WRITE, from) &&
                       grants(moves ? FSOP_MOVE_DEST : FSOP_RENAME_DEST, to);
  int isdir = -1;
  int is_nav = -1;
  const bool done = run(
      granted, type == FSTYPE_DOES_NOT_EXIST ? ENOENT : EACCES,
      [&] {
        return rename_preprocess("/tavrix", from.c_str(), to.c_str(), session_.slot(), &isdir,
                                 session_.get(), &is_nav);
      },
      [&] { return rename(from.c_str(), to.c_str()) == 0; });
  if (!done) return;
  rename_postprocess(to.c_str(), from.c_str(), isdir, session_.get());
  std::map<std::string, bool> moved;
  for (const auto& [path, is_dir] : tree_) {
    const bool is_moved = path == from || path.starts_with(from + "/");
    moved[is_moved ? to + path.substr(from.size()) : path] = is_dir;
  }
  tree_ = std::move(moved);
  expect(std::string("RENAME ") + (type == FSTYPE_FOLDER ? "DIR " : "FILE ") + from + " -> " + to);
}

void Player::look() {
  const std::string path = some_name();
  const std::string name = relative(path);
  const auto nothing = [] { return true; };
  run(
      grants(FSOP_STAT, path), EPERM,
      [&] { return stat_preprocess(session_.get(), name.c_str(), "/tavrix", session_.slot()); },
      nothing);
  run(
      grants(FSOP_LSTAT, path), EACCES,
      [&] { return lstat_preprocess("/tavrix", name.c_str(), session_.slot(), session_.get()); },
      nothing);
  run(
      grants(FSOP_CHDIR, path), EACCES,
      [&] { return chdir_preprocess(name.c_str(), "/tavrix", session_.get(), session_.slot()); },
      nothing);
  run(
      true, 0,
      [&] { return statvfs_preprocess("/tavrix", "/tavrix", session_.get(), session_.slot()); },
      nothing);
}

void Player::list_folder() {
  const std::string path = random_() % 2 == 0 ? some_area() : some_name();
  std::vector<std::string> names;
  int is_nav = -1;
  run(
      grants(FSOP_OPENDIR, path), EACCES,
      [&] {
        return fdopendir_preprocess("/tavrix", relative(path).c_str(), 0, session_.get(), &is_nav,
                                    session_.slot());
      },
      [&] {
        DIR* stream = opendir(path.c_str());
        if (stream == nullptr) return false;
        while (const dirent* entry = readdir(stream)) {
          if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
        }
        closedir(stream);
        return true;
      });
  if (way_.asks_in_batches && type_of(path) == FSTYPE_FOLDER) {
    check_in_batch(path, names);
  } else {
    check_one_by_one(path, names);
  }
}

void Player::check_one_by_one(const std::string& folder, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    char buffer[4096];
    int allowed = -1;
    readir_postprocess(&allowed, name.c_str(), relative(folder).c_str(), buffer, sizeof buffer,
                       "/tavrix", session_.get());
    EXPECT_EQ(grants(FSOP_STAT, folder + "/" + name), allowed == TXPERMS_HAS_PERMS)
        << folder << name;
  }
}

// The entries of the folder, and names that may be missing there, up to 300 questions.
void Player::check_in_batch(const std::string& folder, std::vector<std::string> names) {
  for (auto more = 1 + random_in_way_() % 300; names.size() < more;) {
    names.push_back((random_in_way_() % 2 == 0 ? "d" : "f") + std::to_string(random_in_way_() % 9));
  }
  std::vector<tavrix_entry_s> entries;
  for (const std::string& name : names) {
    const bool is_known = random_in_way_() % 2 == 0;
    entries.push_back({name.c_str(), is_known ? type_of(folder + "/" + name) : 0, TXPERMS_NOT_SET});
  }
  const uid_t before = geteuid();
  EXPECT_EQ(0, tavrix_decide_entries("/tavrix", relative(folder).c_str(), FSOP_STAT, session_.get(),
                                     entries.data(), sizeof entries[0], entries.size()));
  EXPECT_EQ(before, geteuid());
  for (const tavrix_entry_s& entry : entries) {
    EXPECT_EQ(grants(FSOP_STAT, folder + "/" + entry.name), entry.verdict == TXPERMS_HAS_PERMS)
        << folder << "/" << entry.name << ", type " << entry.path_type;
  }
}

void Player::set_times() {
  const std::string path = some_name();
  if (type_of(path) != FSTYPE_FILE) return;
  char* full_path = nullptr;
  const bool done = run(
      true, 0,
      [&] {
        return ntimes_file_preprocess(&full_path, "/tavrix", relative(path).c_str(),
                                      session_.slot());
      },
      [&] { return utimensat(AT_FDCWD, full_path, nullptr, 0) == 0; });
  EXPECT_TRUE(done);
  ntimes_file_postprocess(full_path, session_.get());
  std::free(full_path);
  expect("OPEN FILE " + path);
}

void Player::play(int operations) {
  refresh_credentials(session_.get());
  using Operation = void (Player::*)();
  static constexpr Operation kOperations[] = {
      &Player::make_dir,       &Player::create_folder,  &Player::create_file, &Player::create_file,
      &Player::open_and_close, &Player::open_and_close, &Player::unlink_file, &Player::remove_dir,
      &Player::move,           &Player::look,           &Player::look,        &Player::list_folder,
      &Player::set_times};
  if (way_.has_session) {
    EXPECT_EQ(0, tavrix_session_begin());
  }
  for (int i = 0; i < operations && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE(caller_.name + ", operation " + std::to_string(i));
    (this->*kOperations[random_() % std::size(kOperations)])();
    if (random_in_way_() % 50 == 0) tavrix_session_idle();
  }
  if (way_.has_session) tavrix_session_end();
  EXPECT_EQ(0, tavrix_session_is_holding());
  std::free(session_->groupmap.gids);
  session_->groupmap.gids = nullptr;
}

std::vector<std::string> Player::differences() const {
  std::map<std::string, bool> disk;
  disk[root_] = true;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
    disk[entry.path()] = entry.is_directory();
  }
  std::vector<std::string> found;
  for (const auto& [path, is_dir] : tree_) {
    if (disk.count(path) == 0 || disk[path] != is_dir) found.push_back("not on the disk: " + path);
  }
  for (const auto& [path, is_dir] : disk) {
    if (tree_.count(path) == 0) found.push_back("on the disk only: " + path);
  }
  return found;
}

}  // namespace tavrix::test
