// SPDX-License-Identifier: LGPL-3.0-or-later
// Checksums beside the local copy and the group list map, and that of the table.

#include <sys/shm.h>
#include <csignal>
#include <cstring>
#include <random>

#include "perm_map.h"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

const std::string kGroups = "/etc/tavrix/groupmap_refresh";

class Checksums : public Loader {
 protected:
  static void flip(const std::string& path, std::size_t bit) {
    std::string bytes = read_file(path);
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    write_file(path, bytes);
  }
  static void build_group_map() {
    write_file("/scratch/groups.json",
               R"({"reserved":{"tavrix-admins":9001},"users":{"anna":[9002],"ben":[9003]}})");
    ASSERT_EQ(0, ctl({"groupmap", "build", "/scratch/groups.json", "-o", kGroups}).exit_code);
  }
  static bool sha256sum_agrees(const std::string& name) {
    return run_program({"/bin/sh", "-c", "cd /etc/tavrix && sha256sum -c " + name}).exit_code == 0;
  }
};

TEST_F(Checksums, StandBesideBothFiles) {
  import(team());
  build_group_map();
  EXPECT_TRUE(sha256sum_agrees(".permbe_map.sha256"));
  EXPECT_TRUE(sha256sum_agrees("groupmap_refresh.sha256"));
  EXPECT_EQ(0, ctl({"map", "verify", kCopy}).exit_code);
  EXPECT_EQ(0, ctl({"groupmap", "verify"}).exit_code);
  import(wide(9));
  build_group_map();
  EXPECT_TRUE(sha256sum_agrees(".permbe_map.sha256"));
  EXPECT_TRUE(sha256sum_agrees("groupmap_refresh.sha256"));
}

TEST_F(Checksums, EveryFlipOfTheGroupMapIsFound) {
  build_group_map();
  std::mt19937 random(3);
  for (int i = 0; i < 40; ++i) {
    const std::size_t bit = random() % (i < 30 ? 200 * 8 : 8192 * 8);
    flip(kGroups, bit);
    const Outcome outcome = ctl({"groupmap", "verify"});
    EXPECT_EQ(1, outcome.exit_code) << bit << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "does not match")) << outcome.out;
    flip(kGroups, bit);
  }
}

TEST_F(Checksums, AFlippedCopyIsNotRestored) {
  import(team());
  const std::size_t bits = read_file(kCopy).size() * 8;
  std::mt19937 random(4);
  for (int i = 0; i < 20; ++i) {
    const std::size_t bit = random() % bits;
    flip(kCopy, bit);
    ctl({"map", "remove", "--yes"});
    EXPECT_EQ(1, once().exit_code) << bit;
    EXPECT_EQ(2, ctl({"map", "restore"}).exit_code) << bit;
    EXPECT_EQ(0, folders_of_current()) << bit;
    EXPECT_EQ(1, ctl({"map", "verify", kCopy}).exit_code) << bit;
    flip(kCopy, bit);
  }
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(5, folders_of_current());
}

TEST_F(Checksums, AFlippedCopyIsWrittenAgainWhileTheTableIsThere) {
  import(team());
  const std::string copy = read_file(kCopy);
  flip(kCopy, 1500);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_TRUE(copy == read_file(kCopy));
}

TEST_F(Checksums, ACopyOfAnEarlierReleaseIsTakenWithAWarning) {
  import(team());
  ctl({"map", "remove", "--yes"});
  remove_all(kCopy + ".sha256");
  remove_all(kCopy + ".mark");
  const Outcome outcome = once();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "has no checksum beside it")) << outcome.err;
  EXPECT_EQ(5, folders_of_current());
  EXPECT_TRUE(sha256sum_agrees(".permbe_map.sha256"));
}

TEST_F(Checksums, VerifyKnowsATableThatIsNotWhatWasImported) {
  import(team());
  EXPECT_EQ(0, ctl({"map", "verify"}).exit_code);
  const int id = shmget(TAVRIX_PERM_TABLE1_KEY, 0, 0);
  auto* table = static_cast<char*>(shmat(id, nullptr, 0));
  table[100] ^= 1;  // the generation: no record is wrong
  shmdt(table);
  const Outcome outcome = ctl({"map", "verify"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "its checksum differs")) << outcome.out;
}

TEST_F(Checksums, TheLoaderTellsOfADamagedGroupMap) {
  import(team());
  build_group_map();
  EXPECT_FALSE(contains(once().err, "groupmap"));
  auto loader = service(in_haste(kHaste));
  flip(kGroups, 400);  // which is a record, too
  EXPECT_TRUE(comes([&] { return contains(loader->err_so_far(), "groupmap_refresh has"); }));
  kill(loader->pid(), SIGTERM);
  const std::string said = loader->wait().err;
  EXPECT_TRUE(contains(said, "groupmap_refresh has 2 errors")) << said;
  build_group_map();
  remove_all(kGroups + ".sha256");
  EXPECT_TRUE(contains(once().err, "groupmap_refresh has no checksum")) << said;
}

}  // namespace
}  // namespace tavrix::test
