// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-loader: hand-over, restarts, kills.

#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include "perm_map.h"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

TEST_F(Loader, MakesAPairCurrentAndTellsTheServers) {
  hand_over(team());
  const Outcome outcome = once();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "table 1 is current: 5 folders, 5 entries")) << outcome.err;
  EXPECT_EQ(5, folders_of_current());
  EXPECT_GT(refresh_time(), 0);
  EXPECT_EQ((std::vector<std::string>{".work", "refused"}), list(kInbox));
  EXPECT_TRUE(list(kInbox + "/.work").empty());
  EXPECT_TRUE(contains(read_file("/var/log/tavrix_perms.log"), "Successfully processed"));
}

TEST_F(Loader, WaitsForBothFiles) {
  write_json_pair(team());
  ASSERT_EQ(0, rename("/scratch/size.json", (kInbox + "/size.json").c_str()));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(0, folders_of_current());
  EXPECT_TRUE(exists(kInbox + "/size.json"));
  ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(5, folders_of_current());
}

TEST_F(Loader, SetsARefusedPairAsideAndKeepsTheMap) {
  hand_over(team());
  once();
  const time_t before = refresh_time();
  write_json_pair(team());
  write_file(kInbox + "/size.json", size_json({4, 5, 20}));
  ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
  EXPECT_EQ(1, once().exit_code);
  EXPECT_EQ(5, folders_of_current());
  EXPECT_EQ(before, refresh_time());
  ASSERT_EQ(1U, refused().size());
  const std::string folder = kInbox + "/refused/" + refused()[0];
  EXPECT_EQ((std::vector<std::string>{"data.json", "findings.json", "reason.txt", "size.json"}),
            list(folder));
  EXPECT_TRUE(contains(read_file(folder + "/reason.txt"), "TOTALFSELEMS is 4"))
      << read_file(folder + "/reason.txt");
  EXPECT_TRUE(contains(read_file("/var/log/tavrix_perms.log"), ",4,Failed processing"));
  EXPECT_EQ(1, segments_in_use() - 1) << "the table and the settings";
}

TEST_F(Loader, TwoRefusalsLieSideBySide) {
  for (int i = 0; i < 2; ++i) {
    write_file(kInbox + "/size.json", "nonsense");
    write_file(kInbox + "/data.json", "nonsense");
    EXPECT_EQ(1, once().exit_code);
  }
  EXPECT_EQ(2U, refused().size());
}

TEST_F(Loader, RestoresTheMapAfterARestart) {
  hand_over(team());
  once();
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(0, folders_of_current());
  const Outcome outcome = once();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "restored: table 1 is current: 5 folders")) << outcome.err;
  EXPECT_EQ(5, folders_of_current());
}

TEST_F(Loader, PrefersAPairToTheLocalCopy) {
  hand_over(team());
  once();
  ctl({"map", "remove", "--yes"});
  hand_over(wide(9));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(9, folders_of_current());
}

TEST_F(Loader, WaitsForTheFirstMap) {
  const Outcome outcome = once();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "no map yet")) << outcome.err;
}

TEST_F(Loader, TellsALocalCopyThatIsNoImage) {
  write_file(kCopy, "garbage");
  const Outcome outcome = once();
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "cannot restore")) << outcome.err;
  EXPECT_EQ("garbage", read_file(kCopy));
}

TEST_F(Loader, RemovesTheTableOfALoaderThatDied) {
  hand_over(team());
  once();
  ASSERT_NE(-1, shmget(0x70657269, 4096, IPC_CREAT | IPC_EXCL | 0));
  const Outcome outcome = once();
  EXPECT_TRUE(contains(outcome.err, "removed table 0")) << outcome.err;
  EXPECT_EQ(-1, shmget(0x70657269, 0, 0));
  EXPECT_EQ(5, folders_of_current());
}

TEST_F(Loader, GoesOnWithThePairOfALoaderThatDied) {
  make_dirs(kInbox + "/.work");
  write_json_pair(team());
  ASSERT_EQ(0, rename("/scratch/size.json", (kInbox + "/.work/size.json").c_str()));
  ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/.work/data.json").c_str()));
  write_file(kCopy + ".before", "");
  write_file(kCopy, "half an ima");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(5, folders_of_current());
  EXPECT_FALSE(exists(kCopy + ".before"));
}

// A pair is kept until its map is current. So a copy that the mark does not name belongs to a
// refused map.
TEST_F(Loader, PublishesNoCopyThatWasNeverMadeCurrent) {
  hand_over(wide(9));
  once();
  const std::string never_current = read_file(kCopy);
  hand_over(team());
  once();
  ASSERT_EQ(0, rename(kCopy.c_str(), (kCopy + ".before").c_str()));
  write_file(kCopy, never_current);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(5, folders_of_current());
  EXPECT_FALSE(exists(kCopy + ".before"));
}

TEST_F(Loader, TakesBackTheCopyOfBeforeWhenTheNewOneIsTorn) {
  hand_over(team());
  once();
  const std::string copy = read_file(kCopy);
  write_file(kCopy + ".before", copy);
  write_file(kCopy, copy.substr(0, copy.size() / 2));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(copy, read_file(kCopy));
  EXPECT_EQ(5, folders_of_current());
}

// A loader that is killed at any moment and started again leaves one whole map, the old or the new
// one, and no further table.
TEST_F(Loader, SurvivesItsDeathAtAnyMoment) {
  hand_over(wide(3000));
  once();
  std::mt19937 random(5);
  int expected_old = 3000;
  for (int round = 0; round < 40; ++round) {
    const int expected_new = 3001 + round;
    hand_over(wide(static_cast<uint32_t>(expected_new)));
    {
      Child loader([] {
        execl(kLoader.c_str(), kLoader.c_str(), "--once", "--dir", kInbox.c_str(), nullptr);
        _exit(127);
      });
      usleep(static_cast<useconds_t>(random() % 30000));
      loader.kill();
      loader.wait();
    }
    const int between = folders_of_current();
    EXPECT_TRUE(between == expected_old || between == expected_new) << round << ": " << between;
    const Outcome again = once();
    EXPECT_EQ(0, again.exit_code) << again.err;
    EXPECT_EQ(expected_new, folders_of_current()) << round << "\n" << again.err;
    EXPECT_EQ(0, ctl({"map", "verify"}).exit_code) << round;
    EXPECT_EQ(2, segments_in_use()) << "the table and the settings";
    expected_old = folders_of_current();
  }
  EXPECT_TRUE(refused().empty());
}

// The states that a run may leave that dies while it takes a pair, or while the import removes it.
TEST_F(Loader, LosesNoPairThatWasTakenInPart) {
  const std::string work = kInbox + "/.work";
  make_dirs(work);
  const auto take = [&](const char* name) {
    ASSERT_EQ(0, link((kInbox + name).c_str(), (work + name).c_str()));
  };
  hand_over(wide(5));
  take("/data.json");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(5, folders_of_current());

  hand_over(wide(6));
  take("/data.json");
  take("/size.json");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(6, folders_of_current());

  hand_over(wide(7));
  take("/data.json");
  take("/size.json");
  ASSERT_EQ(0, unlink((kInbox + "/data.json").c_str()));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(7, folders_of_current());
  EXPECT_EQ((std::vector<std::string>{".work", "refused"}), list(kInbox));

  write_file(work + "/size.json", "of a pair that was imported");
  hand_over(wide(8));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(8, folders_of_current());
  EXPECT_TRUE(list(work).empty());
  EXPECT_TRUE(refused().empty());
}

// The agent hands over a new pair while the one before it is still in work.
TEST_F(Loader, TakesTheNextPairAfterTheUnfinishedOne) {
  const std::string work = kInbox + "/.work";
  make_dirs(work);
  hand_over(wide(5));
  ASSERT_EQ(0, rename((kInbox + "/size.json").c_str(), (work + "/size.json").c_str()));
  ASSERT_EQ(0, rename((kInbox + "/data.json").c_str(), (work + "/data.json").c_str()));
  hand_over(wide(6));
  const Outcome outcome = once();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, ": 5 folders")) << outcome.err;
  EXPECT_EQ(6, folders_of_current());
}

// The import child of a killed loader goes on, and removes the pair at its end.
TEST_F(Loader, WaitsForTheImportOfALoaderThatDied) {
  for (int round = 0; round < 5; ++round) {
    const int folders = 20000 + round;
    hand_over(wide(static_cast<uint32_t>(folders)));
    {
      Child loader([] {
        execl(kLoader.c_str(), kLoader.c_str(), "--once", "--dir", kInbox.c_str(), nullptr);
        _exit(127);
      });
      const std::string pid = std::to_string(loader.pid());
      std::string children = "/proc/" + pid;
      children += "/task/" + pid;
      children += "/children";
      for (int tries = 0; tries < 20000 && read_file(children).empty(); ++tries) usleep(100);
      loader.kill();
      loader.wait();
    }
    const Outcome again = once(in_haste(kHaste));
    EXPECT_EQ(0, again.exit_code) << again.err;
    EXPECT_EQ(folders, folders_of_current()) << again.err;
  }
  EXPECT_TRUE(refused().empty());
}

// A pair that ends the loader itself would keep every later one waiting.
TEST_F(Loader, SetsAPairAsideThatEndsItAtEachStart) {
  hand_over(team());
  once();
  hand_over(wide(9));
  for (int start = 0; start < 5; ++start) {
    EXPECT_EQ(SIGKILL, once_with("fork:kill:1").signal) << start;
    EXPECT_TRUE(refused().empty()) << start;
  }
  const Outcome outcome = once_with("fork:kill:1");
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "the loader ended 5 times while it loaded this pair"));
  ASSERT_EQ(1U, refused().size());
  EXPECT_EQ((std::vector<std::string>{"data.json", "reason.txt", "size.json"}),
            list(kInbox + "/refused/" + refused()[0]));
  EXPECT_EQ(5, folders_of_current());
  EXPECT_TRUE(contains(operators_log(), ",4,Failed processing"));
  hand_over(wide(7));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(7, folders_of_current());
}

TEST_F(Loader, CountsTheStartsOfEachPairByItself) {
  for (int pair = 0; pair < 3; ++pair) {
    hand_over(wide(5));
    for (int start = 0; start < 4; ++start) once_with("fork:kill:1");
    EXPECT_EQ(0, once().exit_code) << pair;
  }
  EXPECT_TRUE(refused().empty());
  EXPECT_TRUE(list(kInbox + "/.work").empty());
}

TEST_F(Loader, WatchesItsFolderUntilItIsToldToEnd) {
  Child loader([] {
    execl(kLoader.c_str(), kLoader.c_str(), "--dir", kInbox.c_str(), nullptr);
    _exit(127);
  });
  for (const uint32_t folders : {5U, 7U, 9U}) {
    hand_over(wide(folders));
    wait_for_folders(static_cast<int>(folders));
  }
  ::kill(loader.pid(), SIGHUP);
  write_file(kInbox + "/size.json", "nonsense");
  write_file(kInbox + "/data.json", "nonsense");
  for (int tries = 0; tries < 1000 && refused().empty(); ++tries) usleep(20000);
  EXPECT_EQ(1U, refused().size());
  EXPECT_EQ(9, folders_of_current());
  hand_over(wide(11));
  wait_for_folders(11);
  ::kill(loader.pid(), SIGTERM);
  EXPECT_EQ(0, loader.wait().exit_code);
}

TEST_F(Loader, IsForTheSuperuserAndNeedsSettings) {
  ctl({"config", "remove", "--yes"});
  EXPECT_EQ(2, run_program({kLoader, "--once", "--dir", "/dev/null/x"}).exit_code);
  EXPECT_EQ(0, run_program({kLoader, "--help"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
