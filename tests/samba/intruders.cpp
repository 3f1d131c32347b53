// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/intruders.hpp"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <random>

namespace tavrix::test {
namespace {

const std::vector<std::string> kGoals = {"/tavrix/Shared/Vault", "/tavrix/Private/anna"};

std::string attributes_of(const std::string& path) {
  std::string names(4096, '\0');
  const ssize_t length = llistxattr(path.c_str(), names.data(), names.size());
  std::string text;
  std::istringstream in(names.substr(0, length < 0 ? 0 : static_cast<std::size_t>(length)));
  std::set<std::string> sorted;
  for (std::string name; std::getline(in, name, '\0');) sorted.insert(name);
  for (const std::string& name : sorted) {
    std::string value(4096, '\0');
    const ssize_t size = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    text += " " + name + "=" + value.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size));
  }
  return text;
}

std::string picture_of(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return "gone";
  std::ostringstream out;
  out << std::oct << st.st_mode << std::dec << " " << st.st_uid << ":" << st.st_gid << " inode "
      << st.st_ino << " links " << st.st_nlink << " size " << st.st_size << " blocks "
      << st.st_blocks << " modified " << st.st_mtim.tv_sec << "." << st.st_mtim.tv_nsec
      << " changed " << st.st_ctim.tv_sec << "." << st.st_ctim.tv_nsec << attributes_of(path);
  if (S_ISREG(st.st_mode)) out << " content " << read_file(path);
  return out.str();
}

void make(const std::string& name, const std::string& content) {
  const std::string path = "/tavrix/" + name;
  write_file(path, content);
  ASSERT_EQ(0, chown(path.c_str(), kAnna.uid, kPeople));
  ASSERT_EQ(0, setxattr(path.c_str(), "user.COLOUR", "blue", 4, 0));
}

std::string told_file(const Intruder& intruder) { return "/scratch/told." + intruder.user; }

// The commands of one smbclient session. They contain no hidden name, because smbclient repeats its
// commands in its output.
std::string commands(std::mt19937& random) {
  static const std::vector<std::string> kFiles = {"a.txt", "Sub\\b.txt", "viewed\\new.txt",
                                                  "drop\\new.txt", "new.txt"};
  static const std::vector<std::string> kFolders = {"Sub", "Fixed", "viewed", "drop", "NewFolder"};
  const auto file = [&] { return kFiles[random() % kFiles.size()]; };
  const auto folder = [&] { return kFolders[random() % kFolders.size()]; };
  std::string text = "cd Shared\\Vault";
  for (int i = 0; i < 10; ++i) {
    const std::string some[] = {
        "put /scratch/data.txt " + file(),
        "rm " + file(),
        "rename " + file() + " " + folder() + "\\moved.txt",
        "rename " + folder() + " " + folder() + "2",
        "mkdir " + folder() + "\\deeper",
        "rmdir " + folder(),
        "deltree " + folder(),
        "setmode " + file() + " +rhs",
        "setmode " + folder() + " +h",
        "utimes " + file() + " -1 2020:01:02-03:04:05 2020:01:02-03:04:05 -1",
        "setea " + file() + " COLOUR red",
        "hardlink " + file() + " linked.txt",
        "symlink a.txt symbolic.txt",
        "scopy " + file() + " copied.txt",
        "reput /scratch/data.txt " + file(),
        "ls",
        "ls \\Shared\\*",
        "ls \\Private\\*",
        "allinfo " + file(),
        "get " + file() + " /dev/null",
    };
    text += "; " + some[random() % std::size(some)];
  }
  return text;
}

void intrude_with_smbclient(const Intruder& intruder, unsigned seed, int tries) {
  std::mt19937 random(seed);
  const std::string told = told_file(intruder) + ".smbclient";
  for (int done = 0; !exists("/scratch/stop") && (tries == 0 || done < tries); done += 10) {
    run_program({"bash", "-c",
                 "timeout 60 smbclient -s /scratch/samba/smb.conf //127.0.0.1/tavrix -U '" +
                     intruder.user + "%" + intruder.password + "' -c '" + commands(random) +
                     "' >>" + told + " 2>&1"});
  }
}

std::string small(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool may_be_told(const Intruder& intruder, const std::string& told) {
  const std::string path = small(told);
  if (path.find("hidden") != std::string::npos || path.find("secret") != std::string::npos) {
    return false;
  }
  const auto covers = [&path](const std::string& name) {
    return name.ends_with('/') ? (path + "/").starts_with(small(name)) : path == small(name);
  };
  return std::any_of(intruder.may_see.begin(), intruder.may_see.end(), covers);
}

}  // namespace

std::vector<Intruder> intruders() {
  return {{"Ben", "Ben", {"Shared", "Shared/Team/", "Shared/Lobby/", "Shared/Vault/", "Private"}},
          {"Olga",
           "Olga",
           {"Shared", "Shared/Lobby/", "Shared/Vault", "Shared/Vault/Sub", "Shared/Vault/Fixed",
            "Private", "Private/olga/"}},
          {"Pat", "Pat", {"Shared", "Private", "Private/pat/"}},
          {"StandardUser", "StandardUser", {}},
          {"Nobody", "", {}}};
}

void let_guests_in() {
  const std::string path = "/scratch/samba/smb.conf";
  std::string text = read_file(path);
  const std::string never = "map to guest = never";
  text.replace(text.find(never), never.size(), "map to guest = bad user");
  write_file(path, text + "  guest ok = yes\n");
}

bool is_of_the_vault(const std::string& event) {
  return std::any_of(kGoals.begin(), kGoals.end(), [&event](const std::string& goal) {
    return event.find(goal) != std::string::npos;
  });
}

void expect_same_vault(const std::map<std::string, std::string>& before) {
  const auto after = vault_snapshot();
  for (const auto& [path, picture] : before) {
    EXPECT_EQ(picture, after.contains(path) ? after.at(path) : "gone") << path;
  }
  for (const auto& [path, picture] : after) {
    EXPECT_TRUE(before.contains(path)) << path << " is new: " << picture;
  }
}

Folder map_with_vault() {
  Folder root = share_map();
  const Folder hidden{
      .name = "hidden", .users = {{kAnna.uid, 7}, {kOlga.uid, 0}}, .groups = {{kReaders, 0}}};
  const Folder viewed{.name = "viewed", .groups = {{kReaders, 16}}};
  const Folder drop{.name = "drop", .groups = {{kReaders, 8}}};
  root.children.at(0).children.push_back({.name = "Vault",
                                          .users = {{kAnna.uid, 7}, {kOlga.uid, 16}},
                                          .groups = {{kReaders, 1}},
                                          .children = {hidden, viewed, drop}});
  return root;
}

void make_vault() {
  for (const char* folder : {"Shared/Vault/Sub", "Shared/Vault/Fixed", "Shared/Vault/hidden",
                             "Shared/Vault/viewed", "Shared/Vault/drop", "Private/anna/notes"}) {
    std::filesystem::create_directories(std::string("/tavrix/") + folder);
  }
  for (const char* file : {"Shared/Vault/a.txt", "Shared/Vault/Sub/b.txt",
                           "Shared/Vault/hidden/hidden1.txt", "Shared/Vault/viewed/hidden2.txt",
                           "Shared/Vault/drop/hidden3.txt", "Private/anna/diary.txt"}) {
    make(file, "content\n");
  }
  ASSERT_EQ(0, chown("/tavrix/Private/anna", kAnna.uid, kPeople));
  ASSERT_EQ(0, setxattr("/tavrix/Shared/Vault/Fixed", "user.tavrix.fixed_folder", "", 0, 0));
}

std::map<std::string, std::string> vault_snapshot() {
  std::map<std::string, std::string> pictures;
  for (const std::string& goal : kGoals) {
    pictures[goal] = picture_of(goal);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(goal)) {
      pictures[entry.path()] = picture_of(entry.path());
    }
  }
  return pictures;
}

void intrude(const Intruder& intruder, unsigned seed, int tries) {
  Child with_smbclient([&] { intrude_with_smbclient(intruder, seed, tries); });
  const Outcome outcome = run_program(
      {"/usr/bin/python3", TAVRIX_SOURCE_DIR "/tests/samba/intruder.py", intruder.user,
       intruder.password, std::to_string(seed), std::to_string(tries), told_file(intruder)});
  EXPECT_TRUE(outcome.ok()) << outcome.err;
  EXPECT_TRUE(with_smbclient.wait().ok());
}

std::vector<std::string> told_in_spite_of_the_map() {
  std::set<std::string> found;
  for (const Intruder& intruder : intruders()) {
    std::istringstream told(read_file(told_file(intruder)));
    for (std::string path; std::getline(told, path);) {
      if (!may_be_told(intruder, path)) found.insert(intruder.user + ": " + path);
    }
    std::istringstream said(read_file(told_file(intruder) + ".smbclient"));
    for (std::string line; std::getline(said, line);) {
      if (line.find("hidden") != std::string::npos) found.insert(intruder.user + ": " + line);
    }
  }
  return {found.begin(), found.end()};
}

}  // namespace tavrix::test
