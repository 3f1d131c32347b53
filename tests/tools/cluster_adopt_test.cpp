// SPDX-License-Identifier: LGPL-3.0-or-later
// A node that is gone: another one settles the files and the notes that its killed processes left.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "tests/tools/nodes.hpp"
#include "tools/notes/open_notes.h"

namespace tavrix::test {
namespace {

class ClusterAdopt : public Nodes {
 protected:
  static constexpr const char* kOfBeta = "/scratch/staging/beta";

  void SetUp() override {
    Nodes::SetUp();
    join_cluster();
    once();
    make_dirs(kOfBeta);
    make_dirs(std::string(kCluster) + "/nodes");
    make_dirs(std::string(kCluster) + "/running");
  }
  static Outcome adopt(const std::vector<std::string>& more = {}) {
    std::vector<std::string> words{"cluster", "adopt", "beta"};
    words.insert(words.end(), more.begin(), more.end());
    return ctl(words);
  }
  // The bytes of a dump file with these events.
  static std::string records(const Paths& paths) {
    for (const std::string& path : paths) send(path);
    flush_staging_buffer(FB_CTX_SWPR);
    const std::string name = "/scratch/staging/alpha/" + list("/scratch/staging/alpha").at(0);
    std::string bytes = read_file(name);
    remove_all(name);
    return bytes;
  }
  static void leave(const std::string& bytes, const std::string& name = "txtempAbCdEf") {
    write_file(std::string(kOfBeta) + "/" + name, bytes);
  }
  static void leave_note(const std::string& path) {
    write_file(path, "changed");
    EXPECT_TRUE(in_child([&] {
                  sethostname("beta", 4);
                  for (const auto index : {PARAM_STAGING_DIR, PARAM_AUDITING_DIR}) {
                    char* folder = global_params[index].value.strval;
                    strcpy(strrchr(folder, '/'), "/beta");
                  }
                  struct stat info {};
                  stat(path.c_str(), &info);
                  open_note note{};
                  const changing_file file = {
                      .inode = info.st_ino, .uid = 1001, .user = "anna", .path = path.c_str()};
                  EXPECT_EQ(0, write_open_note(&note, &file));
                }).ok());
    name_host("alpha");
  }
  // The events in the dump files of a node.
  static Paths dumped_by(const std::string& node) {
    Paths all;
    for (const std::string& name : list("/scratch/staging/" + node)) {
      if (!name.starts_with("pending_")) continue;
      const Paths some = paths_in(read_file("/scratch/staging/" + node + "/" + name));
      all.insert(all.end(), some.begin(), some.end());
    }
    return sorted(all);
  }
  static std::string word_file() { return std::string(kCluster) + "/nodes/beta.json"; }
  static void tell_state(int seconds_ago) {
    write_file(word_file(), R"({"node": "beta", "boot": "x", "time": 1, "beat": 1, "number": 3,
        "generation": 7, "prepared": 3, "settings_hash": "", "smb_conf_hash": "",
        "group_map_hash": "", "problems": []})");
    const timespec time{::time(nullptr) - seconds_ago, 0};
    const timespec times[2] = {time, time};
    ASSERT_EQ(0, utimensat(AT_FDCWD, word_file().c_str(), times, 0));
  }
  static void leave_mark() {
    write_file(std::string(kCluster) + "/running/beta", "boot\n10.0.0.2\n1\n");
  }
  static void expect_refusal(const std::string& reason) {
    const Outcome outcome = adopt();
    EXPECT_EQ(1, outcome.exit_code) << outcome.out;
    EXPECT_TRUE(contains(outcome.err, reason)) << outcome.err;
  }
  // A "ctdb" in the PATH that says so of the node with that address.
  static void ctdb_says(const std::string& disconnected) {
    make_dirs("/scratch/bin");
    write_file("/scratch/bin/ctdb",
               "#!/bin/sh\n[ \"$2\" = ip ] && { echo '|Public IP|Node|'; exit 0; }\n"
               "echo '|Node|IP|Disconnected|Banned|ThisNode|'\n"
               "echo '|0|10.0.0.1|0|0|Y|'\necho '|1|10.0.0.2|" +
                   disconnected + "|0|N|'\n");
    ASSERT_EQ(0, chmod("/scratch/bin/ctdb", 0755));
    setenv("PATH", "/scratch/bin:/usr/bin:/bin", 1);
  }
};

// --- is it gone? ---------------------------------------------------------------------------------

TEST_F(ClusterAdopt, NeedsANode) {
  write_file("/etc/tavrix/tavrix.conf", "");
  const Outcome outcome = adopt();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "this machine is no node of a cluster")) << outcome.err;
  join_cluster();
  EXPECT_EQ(2, ctl({"cluster", "adopt", "../beta"}).exit_code);
}

TEST_F(ClusterAdopt, LeavesThisMachineToItsSweeper) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"cluster", "adopt", "alpha"},
        {"cluster", "adopt", "alpha", "--yes-it-is-gone"}}) {
    const Outcome outcome = ctl(words);
    EXPECT_EQ(1, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, "it is this machine")) << outcome.err;
  }
}

TEST_F(ClusterAdopt, WaitsForSilence) {
  leave(records({"a"}));
  tell_state(0);
  expect_refusal(" s ago, and it counts as gone after 10 s");
  tell_state(60);
  EXPECT_EQ(0, adopt().exit_code);
}

TEST_F(ClusterAdopt, WaitsUntilTheMarkIsTaken) {
  tell_state(60);
  leave_mark();
  expect_refusal("\"tavrixctl cluster lost beta\" takes the mark");
  unlink((std::string(kCluster) + "/running/beta").c_str());
  EXPECT_EQ(0, adopt().exit_code);
}

TEST_F(ClusterAdopt, BelievesCtdb) {
  tell_state(60);
  leave_mark();
  ctdb_says("0");
  expect_refusal("CTDB is connected with it");
  ctdb_says("1");
  EXPECT_EQ(0, adopt().exit_code);
}

TEST_F(ClusterAdopt, BelievesTheOperator) {
  leave(records({"a"}));
  tell_state(0);
  leave_mark();
  EXPECT_EQ(0, adopt({"--yes-it-is-gone"}).exit_code);
  EXPECT_EQ(Paths{"a"}, dumped_by("beta"));
}

// --- files ---------------------------------------------------------------------------------------

TEST_F(ClusterAdopt, PublishesWholeFilesInTheFolderOfTheirNode) {
  leave(records({"a", "b"}));
  leave(records({"c"}), "txtempBBBBBB");
  const Outcome outcome = adopt();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "published txtempAbCdEf: its flush was killed\n"))
      << outcome.out;
  EXPECT_TRUE(contains(outcome.out, "nothing is left to settle of beta\n")) << outcome.out;
  EXPECT_EQ((Paths{"a", "b", "c"}), dumped_by("beta"));
  EXPECT_TRUE(dumped_by("alpha").empty());
  EXPECT_EQ("nothing is left to settle of beta\n", adopt().out);
}

// The buffer of this node has nothing to do with the files of another one.
TEST_F(ClusterAdopt, PublishesFilesWhoseRecordsAreInItsOwnBufferByChance) {
  leave(records({"a"}));
  send("a");
  EXPECT_EQ(0, adopt().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped_by("beta"));
}

TEST_F(ClusterAdopt, SettlesTheFileOfTheMark) {
  leave(records({"a"}));
  ASSERT_EQ(0, setxattr(kOfBeta, "trusted.tavrix.flush", "txtempAbCdEf", 12, 0));
  EXPECT_EQ(0, adopt().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped_by("beta"));
  EXPECT_EQ(-1, getxattr(kOfBeta, "trusted.tavrix.flush", nullptr, 0));
}

TEST_F(ClusterAdopt, AsksForARescanForACutFile) {
  const std::string bytes = records({"a", "b"});
  leave(bytes.substr(0, bytes.size() - 1));
  EXPECT_EQ(0, adopt().exit_code);
  EXPECT_TRUE(contains(read_file(kRescan), "a file of events was cut"));
  EXPECT_TRUE(list(kOfBeta).empty());
}

TEST_F(ClusterAdopt, SetsForeignBytesAside) {
  leave(std::string(100, '\0'));
  const auto json = Nodes::json({"cluster", "adopt", "beta"});
  EXPECT_EQ("set-aside", json["files"][0]["result"]) << json;
  EXPECT_EQ(Paths{"aside_txtempAbCdEf"}, list(kOfBeta));
}

TEST_F(ClusterAdopt, LeavesALockedFileAndSaysSo) {
  leave(records({"a"}));
  const Fd live(open("/scratch/staging/beta/txtempAbCdEf", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(0, flock(live.get(), LOCK_EX));
  expect_refusal("a file in /scratch/staging/beta is locked: its flusher lives");
  EXPECT_EQ(Paths{"txtempAbCdEf"}, list(kOfBeta));
}

TEST_F(ClusterAdopt, HasOneWinner) {
  leave(records({"a"}));
  const Fd other(open(kOfBeta, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(0, flock(other.get(), LOCK_EX));
  expect_refusal("another process settles the files of beta now");
  EXPECT_EQ(Paths{"txtempAbCdEf"}, list(kOfBeta));
}

// --- notes ---------------------------------------------------------------------------------------

TEST_F(ClusterAdopt, RecordsTheChangesOfOpenFiles) {
  leave_note("/tavrix/a");
  ASSERT_EQ(1U, list("/tavrix/.conf/changing/beta").size());
  const Outcome outcome = adopt();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "recorded 1 changed file that beta had open\n")) << outcome.out;
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"/tavrix/a"}, dumped_by("alpha"));
  EXPECT_TRUE(list("/tavrix/.conf/changing/beta").empty());
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(ClusterAdopt, AsksForARescanWhenAFileIsElsewhere) {
  leave_note("/tavrix/a");
  ASSERT_EQ(0, rename("/tavrix/a", "/tavrix/b"));
  EXPECT_EQ(0, adopt().exit_code);
  EXPECT_TRUE(contains(read_file(kRescan), "ended with a changed file open"));
}

TEST_F(ClusterAdopt, KeepsTheNotesWithoutABufferForTheirEvents) {
  leave_note("/tavrix/a");
  ctl({"events", "buffer", "remove", "--yes"});
  expect_refusal("this node has no staging buffer");
  EXPECT_EQ(1U, list("/tavrix/.conf/changing/beta").size());
  EXPECT_FALSE(exists(kSyncOff));
}

// --- kills ---------------------------------------------------------------------------------------

// Everything that two settled files and a note change, up to the nth call of each kind.
TEST_F(ClusterAdopt, ThatIsKilledAnywhereIsFinishedByTheNext) {
  const std::string bytes = records({"a", "b"});
  int kills = 0;
  for (const std::string call : {"flock", "fsync", "link", "renameat2", "rename", "unlink", "semop",
                                 "lsetxattr", "lremovexattr"}) {
    for (int nth = 1; nth < 20; ++nth) {
      const std::string where = call + " " + std::to_string(nth);
      leave(bytes);
      leave("", "txtempBBBBBB");
      leave_note("/tavrix/c");
      ASSERT_EQ(0, setxattr(kOfBeta, "trusted.tavrix.flush", "txtempAbCdEf", 12, 0));
      run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "cluster", "adopt", "beta"}, {},
                  with_faults(call + ":kill:" + std::to_string(nth)));
      const bool was_killed = !reached().empty();
      kills += was_killed ? 1 : 0;
      once();
      const Outcome outcome = adopt();
      EXPECT_EQ(0, outcome.exit_code) << where << ": " << outcome.err;
      once();
      EXPECT_EQ((Paths{"a", "b"}), dumped_by("beta")) << where;
      // A kill between the event and the removal of its note writes the event twice.
      const Paths of_note = dumped_by("alpha");
      EXPECT_TRUE(of_note == Paths{"/tavrix/c"} || of_note == (Paths{"/tavrix/c", "/tavrix/c"}))
          << where << ": " << of_note.size();
      EXPECT_TRUE(list("/tavrix/.conf/changing/beta").empty()) << where;
      EXPECT_FALSE(exists(kSyncOff)) << where;
      EXPECT_FALSE(exists(kRescan)) << where;
      for (const std::string node : {"alpha", "beta"}) {
        const std::string folder = "/scratch/staging/" + node + "/";
        for (const std::string& name : list(folder)) remove_all(folder + name);
      }
      if (!was_killed) break;
    }
  }
  EXPECT_GT(kills, 8);
}

}  // namespace
}  // namespace tavrix::test
