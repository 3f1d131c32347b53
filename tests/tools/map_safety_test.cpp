// SPDX-License-Identifier: LGPL-3.0-or-later
// No map is lost by full disks, kills, failing calls, or an operator beside the loader.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "perm_map.h"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

constexpr int kRounds = 1000;  // of 20 ms

class MapSafety : public Loader {
 protected:
  static std::string reason() {
    const auto names = refused();
    return names.empty() ? "" : read_file(kInbox + "/refused/" + names.back() + "/reason.txt");
  }
  static std::vector<std::string> refused_files() {
    const auto names = refused();
    return names.empty() ? std::vector<std::string>{} : list(kInbox + "/refused/" + names.back());
  }
  // The refused pair is whole and has its reason, and the findings if a check made some; the old
  // map is current and saved.
  static void expect_refused_and_kept(int folders, const std::string& copy) {
    auto files = refused_files();
    std::erase(files, "findings.json");
    EXPECT_EQ((std::vector<std::string>{"data.json", "reason.txt", "size.json"}), files);
    EXPECT_EQ(folders, folders_of_current());
    EXPECT_TRUE(copy == read_file(kCopy)) << "the local copy is another one";
    EXPECT_FALSE(exists(kCopy + ".before"));
    EXPECT_EQ(2, segments_in_use()) << "the table and the settings";
  }
  // The last line reports the refusal, and only the first map is reported as processed.
  static void expect_one_refusal_in_log() {
    const auto lines = lines_of("/var/log/tavrix_perms.log");
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(contains(lines.back(), ",4,Failed processing permission map,2")) << lines.back();
    EXPECT_EQ(operators_log().find("Successfully processed"),
              operators_log().rfind("Successfully processed"));
  }
  static void put_on_small_disk(unsigned long bytes) {
    mount_small_disk("/etc/tavrix", bytes);
    ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"});
  }
  static void fill_disk() {
    write_file("/etc/tavrix/filler", "");
    for (std::string block(4096, 'x');;) {
      const int fd = open("/etc/tavrix/filler", O_WRONLY | O_APPEND);
      const ssize_t done = write(fd, block.data(), block.size());
      close(fd);
      if (done != static_cast<ssize_t>(block.size())) return;
    }
  }
  static pid_t child_of(pid_t pid) {
    const std::string name = std::to_string(pid);
    const std::string text = read_file("/proc/" + name + "/task/" + name + "/children");
    return text.empty() ? 0 : std::stoi(text);
  }
  static bool is_stopped(pid_t pid) {
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/stat");
    return contains(text, ") T ");
  }
  static bool wait_until_stopped(pid_t pid) {
    for (int i = 0; i < kRounds && !is_stopped(pid); ++i) usleep(20000);
    return is_stopped(pid);
  }
};

TEST_F(MapSafety, AFullDiskRefusesThePairAndLeavesTheCopyAlone) {
  put_on_small_disk(1 << 20);
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  const std::string copy = read_file(kCopy);
  fill_disk();
  hand_over(wide(20000));
  EXPECT_EQ(1, once().exit_code);
  expect_refused_and_kept(5, copy);
  EXPECT_TRUE(contains(reason(), "no space in /etc/tavrix")) << reason();
  expect_one_refusal_in_log();
}

TEST_F(MapSafety, ADiskThatFillsDuringTheImportLeavesTheCopyAlone) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  const std::string copy = read_file(kCopy);
  hand_over(wide(30));
  const Outcome outcome = once_with("write@.permbe_map:28:1:99");
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
  expect_refused_and_kept(5, copy);
  expect_one_refusal_in_log();
}

TEST_F(MapSafety, ADocumentThatAbortsTheImportLosesNothingOnAFullDisk) {
  put_on_small_disk(1 << 20);
  import(team());
  const std::string copy = read_file(kCopy);
  fill_disk();
  write_json_pair(team());
  write_file("/scratch/data.json", "[{\"DIR\":\"x\"}]");
  const Outcome outcome =
      ctl({"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ(5, folders_of_current());
  EXPECT_TRUE(copy == read_file(kCopy));
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
}

// After a killed import the loader, the next import and "map restore" all find the copy of before.
TEST_F(MapSafety, AnImportThatIsKilledIsRecoveredByEverybody) {
  for (const std::string who : {"loader", "import", "restore"}) {
    SCOPED_TRACE(who);
    import(team());
    const std::string copy = read_file(kCopy);
    write_json_pair(wide(30));
    // Killed once the import has written the new copy.
    EXPECT_NE(0, run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "map", "import",
                              "/scratch/size.json", "/scratch/data.json"},
                             {}, with_faults("fsync@.permbe_map:kill:1"))
                     .signal);
    ctl({"map", "remove", "--yes"});  // as a restart of the machine does
    if (who == "loader") {
      EXPECT_EQ(0, once().exit_code);
    } else if (who == "restore") {
      EXPECT_EQ(0, ctl({"map", "restore"}).exit_code);
    } else {
      write_file("/scratch/size.json", size_json(count(team())));
      write_file("/scratch/data.json", "[]");
      ctl({"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"});
      EXPECT_EQ(0, ctl({"map", "restore"}).exit_code);
    }
    EXPECT_EQ(5, folders_of_current());
    EXPECT_TRUE(copy == read_file(kCopy));
  }
}

TEST_F(MapSafety, RemovingWaitsForAnImport) {
  import(team());
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"map", "remove", "--stale"}, {"map", "remove", "--yes"}}) {
    write_json_pair(wide(30));
    Child importing([&] {
      for (const auto& [name, value] : with_faults("setall:stop:1")) {
        setenv(name.c_str(), value.c_str(), 1);
      }
      execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "map", "import", "/scratch/size.json",
            "/scratch/data.json", nullptr);
    });
    ASSERT_TRUE(wait_until_stopped(importing.pid()));
    Child removing([&] { _exit(ctl(words).exit_code); });
    usleep(200000);
    EXPECT_EQ(3, segments_in_use()) << "nothing is removed while the import runs";
    kill(importing.pid(), SIGCONT);
    EXPECT_EQ(0, importing.wait().exit_code);
    EXPECT_EQ(0, removing.wait().exit_code);
    const bool all = words.back() == "--yes";
    EXPECT_EQ(all ? 0 : 30, folders_of_current());
  }
}

TEST_F(MapSafety, ATableThatVanishedIsNotPublished) {
  import(team());
  write_json_pair(wide(30));
  Child importing([&] {
    for (const auto& [name, value] : with_faults("fsync@.permbe_map:stop:1")) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "map", "import", "/scratch/size.json",
          "/scratch/data.json", nullptr);
  });
  ASSERT_TRUE(wait_until_stopped(importing.pid()));
  shmctl(shmget(TAVRIX_PERM_TABLE0_KEY, 0, 0), IPC_RMID, nullptr);
  kill(importing.pid(), SIGCONT);
  const Outcome outcome = importing.wait();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "somebody has removed table 0")) << outcome.err;
  EXPECT_EQ(5, folders_of_current());
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
}

TEST_F(MapSafety, ALockThatCannotBeTakenIsAnError) {
  import(team());
  write_json_pair(wide(30));
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"map", "import", "/scratch/size.json", "/scratch/data.json"},
        {"map", "restore"},
        {"map", "remove", "--yes"},
        {"map", "remove", "--stale"}}) {
    std::vector<std::string> argv = words;
    argv.insert(argv.begin(), TAVRIX_BUILD_DIR "/tools/tavrixctl");
    const Outcome outcome = run_program(argv, {}, with_faults("flock:37:1:99"));
    EXPECT_EQ(2, outcome.exit_code) << words[1];
    EXPECT_TRUE(contains(outcome.err, "cannot take the lock of the maps")) << outcome.err;
  }
  EXPECT_EQ(5, folders_of_current());
}

TEST_F(MapSafety, LintAndImportAgreeOnTooManyFolders) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  const std::string copy = read_file(kCopy);
  write_json_pair(wide(2));
  write_file("/scratch/size.json", size_json({3, 1, 5}));
  EXPECT_EQ(1, ctl({"map", "lint", "/scratch/size.json", "/scratch/data.json"}).exit_code);
  ASSERT_EQ(0, rename("/scratch/size.json", (kInbox + "/size.json").c_str()));
  ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
  EXPECT_EQ(1, once().exit_code);
  expect_refused_and_kept(5, copy);
  expect_one_refusal_in_log();
}

TEST_F(MapSafety, AKilledImportIsToldAsKilledAndItsPairIsKept) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  const std::string copy = read_file(kCopy);
  hand_over(wide(30));
  const Outcome outcome =
      once_with("write@.permbe_map:kill:1");  // the import child's first write to the copy
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(reason(), "killed by signal 9")) << reason();
  expect_refused_and_kept(5, copy);
  expect_one_refusal_in_log();
}

TEST_F(MapSafety, ATrustedSizeFileThatAbortsIsToldSo) {
  import(team());
  write_json_pair(team());
  write_file("/scratch/size.json", "{\"MAPNAME\":{}}");
  const Outcome outcome =
      ctl({"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"});
  EXPECT_EQ(0, outcome.signal);
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "aborted by an assertion")) << outcome.err;
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
}

TEST_F(MapSafety, AForkThatFailsIsToldAsWhatItIs) {
  import(team());
  write_json_pair(wide(30));
  const Outcome outcome = run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "map", "import",
                                       "/scratch/size.json", "/scratch/data.json"},
                                      {}, with_faults("fork:11:1:9"));
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "cannot start a process")) << outcome.err;
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
}

TEST_F(MapSafety, RefusedPairsArePruned) {
  for (int i = 0; i < 5; ++i) {
    write_file(kInbox + "/size.json", "nonsense " + std::to_string(i));
    write_file(kInbox + "/data.json", "nonsense");
    run_program({kLoader, "--once", "--dir", kInbox, "--keep-refused", "3"});
  }
  ASSERT_EQ(3U, refused().size());
  EXPECT_EQ("nonsense 4", read_file(kInbox + "/refused/" + refused()[2] + "/size.json"));
  EXPECT_EQ("nonsense 2", read_file(kInbox + "/refused/" + refused()[0] + "/size.json"));
}

// --- calls that fail once: the pair is loaded all the same ---------------------------------------

TEST_F(MapSafety, ACallThatFailsOnceIsTriedAgain) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  int folders = 10;
  for (const char* fault : {"fork:11:1",
                            "fork:12:2",
                            "open@data.json:24:1",
                            "fopen@data.json:24:1",
                            "open@data.json:5:2",
                            "fopen@size.json:23:1",
                            "stat@.work/data.json:5:2",
                            "semget:12:1",
                            "semget:22:2",
                            "semget:12:3",
                            "getval:22:1",
                            "getval:43:3",
                            "setall:12:1",
                            "shmget:12:1",
                            "shmget:12:5",
                            "shmnew:12:2",
                            "shmat:12:2",
                            "shmat:24:3",
                            "write@.permbe_map:5:1",
                            "fsync@.permbe_map:5:1",
                            "fsync@/etc/tavrix:5:2",
                            "rename@.mark:5:1",
                            "link@.before:5:1",
                            "symlink:12:1",
                            "calloc:12:1",
                            "flock:4:1"}) {
    SCOPED_TRACE(fault);
    hand_over(wide(static_cast<uint32_t>(++folders)));
    reached();
    const Outcome outcome = once_with(fault);
    EXPECT_NE("", reached()) << "no call to fail";
    EXPECT_EQ(folders, folders_of_current()) << outcome.err;
    EXPECT_TRUE(refused().empty()) << outcome.err;
    EXPECT_EQ(2, segments_in_use()) << "the table and the settings";
    once();
    EXPECT_EQ(0, ctl({"map", "verify"}).exit_code);
    EXPECT_FALSE(exists(kCopy + ".before"));
  }
}

TEST_F(MapSafety, ACallThatKeepsFailingSetsThePairAsideWhole) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  const std::string copy = read_file(kCopy);
  hand_over(wide(30));
  EXPECT_EQ(1, once_with("fork:11:1:99").exit_code);
  expect_refused_and_kept(5, copy);
  EXPECT_TRUE(contains(reason(), "given up after 6 tries")) << reason();
}

TEST_F(MapSafety, ALookThatFailsNeverResetsTheSet) {
  import(team());
  for (const char* error : {"12", "13", "22", "28"}) {
    write_json_pair(wide(30));
    run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "map", "import", "/scratch/size.json",
                 "/scratch/data.json"},
                {}, with_faults(std::string("semget:") + error + ":1"));
    EXPECT_EQ(5, folders_of_current()) << error;
    EXPECT_EQ(1, json({"map", "info"})["current"]);
  }
}

// --- faults around the swap ----------------------------------------------------------------------

TEST_F(MapSafety, APublishThatFailsLeavesTheCopyOfTheCurrentMap) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  const std::string copy = read_file(kCopy);
  hand_over(wide(30));
  EXPECT_EQ(1, once_with("setall:1:1:99").exit_code);
  expect_refused_and_kept(5, copy);
  expect_one_refusal_in_log();
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(5, folders_of_current()) << "a restart makes nothing current that was refused";
}

TEST_F(MapSafety, ARemovalThatFailsAfterTheSwapIsNoRefusal) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  hand_over(wide(30));
  const Outcome outcome = once_with("shmrm:1:1:9");
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "cannot remove table 1")) << outcome.err;
  EXPECT_TRUE(refused().empty());
  EXPECT_EQ(30, folders_of_current());
  once();
  EXPECT_EQ(2, segments_in_use()) << "the next start removes it";
}

TEST_F(MapSafety, AnInboxThatKeepsItsFilesIsLoadedOnce) {
  hand_over(wide(30));
  auto loader = service(in_haste(kHaste,
                                 "unlink@/scratch/maps/size.json:1:1:9999,"
                                 "unlink@/scratch/maps/data.json:1:1:9999"));
  wait_for_folders(30);
  usleep(300'000);  // six looks at the inbox
  kill(loader->pid(), SIGTERM);
  const Outcome outcome = loader->wait();
  EXPECT_EQ(0, outcome.exit_code) << "it hears the signal";
  std::size_t imports = 0;
  for (const auto& line : lines_of("/var/log/tavrix_perms.log")) {
    imports += contains(line, "Successfully processed");
  }
  EXPECT_EQ(1U, imports);
  EXPECT_TRUE(contains(outcome.err, "it is loaded once")) << outcome.err;
}

TEST_F(MapSafety, AStatThatFailsOnceDoesNotLeaveThePairWaiting) {
  auto loader = service(in_haste(kHaste, "stat@/scratch/maps/size.json:5:1:3"));
  hand_over(wide(30));
  wait_for_folders(30);
}

}  // namespace
}  // namespace tavrix::test
