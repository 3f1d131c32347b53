// SPDX-License-Identifier: LGPL-3.0-or-later
// Kept maps: what is kept, what goes, the way back, and that no publication depends on it.

#include <sys/mount.h>
#include <csignal>

#include "tests/tools/keeping.hpp"

namespace tavrix::test {
namespace {

class MapKeep : public Keeping {};

TEST_F(MapKeep, EachMapOfTheLoaderIsKeptWithItsFacts) {
  load(3);
  load(4);
  const auto history = json({"map", "history"})["maps"];
  ASSERT_EQ(2U, history.size());
  EXPECT_EQ(1, history[0]["map"]);
  EXPECT_EQ(3, history[0]["image"]["folders"]);
  EXPECT_FALSE(history[0]["in_force"]);
  EXPECT_EQ("loader", history[1]["how"]);
  EXPECT_EQ(4, history[1]["image"]["folders"]);
  EXPECT_TRUE(history[1]["in_force"]);
  EXPECT_EQ(read_file(kCopy), read_file(kKept + "/2.map"));
}

// The image costs no room while it is the local copy, and no import writes into it later.
TEST_F(MapKeep, TheImageIsASecondNameThatNoImportChanges) {
  load(3);
  const std::string image = read_file(kCopy);
  EXPECT_EQ(inode(kCopy), inode(kKept + "/1.map"));
  load(4);
  EXPECT_EQ(image, read_file(kKept + "/1.map"));
  EXPECT_EQ(1U, links(kKept + "/1.map"));
}

TEST_F(MapKeep, AFileSystemWithoutLinksGetsASecondFile) {
  hand_over(wide(3));
  EXPECT_EQ(0, once_with("link@/etc/tavrix/maps:1:1:99").exit_code);
  EXPECT_EQ(read_file(kCopy), read_file(kKept + "/1.map"));
  EXPECT_NE(inode(kCopy), inode(kKept + "/1.map"));
  EXPECT_EQ((std::vector<uint32_t>{1}), kept());
}

TEST_F(MapKeep, ImportsByHandAreKeptWithTheirOperator) {
  ASSERT_EQ(0, import(wide(3)).exit_code);
  const auto map = json({"map", "history"})["maps"][0];
  EXPECT_EQ("import", map["how"]);
  EXPECT_EQ("root", map["who"]);
}

TEST_F(MapKeep, AMapThatWasInForceBeforeIsFound) {
  load(3);
  remove_all(kKept);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ("found", json({"map", "history"})["maps"][0]["how"]);
}

TEST_F(MapKeep, TheSameMapIsKeptOnce) {
  load(3);
  once();
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(0, ctl({"map", "restore"}).exit_code);
  EXPECT_EQ((std::vector<uint32_t>{1}), kept());
}

TEST_F(MapKeep, TheOldestGoAndNumbersGrow) {
  settings("kept maps = 3\n");
  for (uint32_t folders = 2; folders < 7; ++folders) load(folders);
  EXPECT_EQ((std::vector<std::string>{"3.json", "3.map", "4.json", "4.map", "5.json", "5.map"}),
            list(kKept));
  EXPECT_EQ((std::vector<uint32_t>{3, 4, 5}), kept());
  settings("kept maps = 1\n");
  load(9);
  EXPECT_EQ((std::vector<uint32_t>{6}), kept());
}

TEST_F(MapKeep, ZeroKeepsNone) {
  load(3);
  settings("kept maps = 0\n");
  load(4);
  EXPECT_TRUE(kept().empty());
  EXPECT_EQ(4, folders_of_current());
  EXPECT_EQ("no map is kept\n", ctl({"map", "history"}).out);
}

TEST_F(MapKeep, AWrongSettingKeepsAsShippedAndSaysSo) {
  settings("kept maps = many\n");
  hand_over(wide(3));
  const Outcome outcome = once();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err,
                       "LOADER:kept maps: \"many\" is not a number; the shipped "
                       "value 10 holds"))
      << outcome.err;
  EXPECT_EQ((std::vector<uint32_t>{1}), kept());
}

TEST_F(MapKeep, TheGroupListMapOfThenIsKeptAndTakesRoomOnce) {
  people({"daemon"});
  load(3);
  const std::string groups = read_file("/etc/tavrix/groupmap_refresh");
  load(4);
  EXPECT_EQ(inode(kKept + "/1.groups"), inode(kKept + "/2.groups"));
  people({"daemon", "bin"});
  load(5);
  EXPECT_EQ(groups, read_file(kKept + "/2.groups"));
  EXPECT_EQ(read_file("/etc/tavrix/groupmap_refresh"), read_file(kKept + "/3.groups"));
}

TEST_F(MapKeep, HistoryIsForTheSuperuserAlone) {
  load(3);
  struct stat folder {};
  ASSERT_EQ(0, stat(kKept.c_str(), &folder));
  EXPECT_EQ(0700U, folder.st_mode & 07777U);
  ASSERT_EQ(0, stat((kKept + "/1.json").c_str(), &folder));
  EXPECT_EQ(0600U, folder.st_mode & 07777U);
}

TEST_F(MapKeep, HistoryCountsWhomAMapTouched) {
  people({"daemon", "bin", "sys"});
  load_for({{1, 1}});
  load_for({{1, 3}, {2, 1}});
  const auto map = json({"map", "history"})["maps"][1];
  EXPECT_EQ(2, map["changes"]["users_touched"]) << map;
  EXPECT_EQ(3, map["changes"]["users"]);
  EXPECT_EQ(1, map["changes"]["changed"]);
  EXPECT_TRUE(exists(kKept + "/2.changes")) << "asked once";
  remove_all(kKept + "/1.map");
  EXPECT_EQ(map["changes"], json({"map", "history"})["maps"][0]["changes"]);
}

// --- no publication depends on it ----------------------------------------------------------------

TEST_F(MapKeep, AFailureIsAWarningAndTheMapIsInForce) {
  uint32_t folders = 3;
  for (const char* fault : {"mkdir@/etc/tavrix/maps:13:1:99", "link@/etc/tavrix/maps:5:1:99",
                            "write@/etc/tavrix/maps:5:1:99", "fsync@/etc/tavrix/maps:5:1:99",
                            "rename@/etc/tavrix/maps:5:1:99", "open@/etc/tavrix/maps:13:1:99"}) {
    SCOPED_TRACE(fault);
    remove_all(kKept);
    hand_over(wide(++folders));
    reached();
    const Outcome outcome = once_with(fault);
    EXPECT_NE("", reached());
    EXPECT_EQ(0, outcome.exit_code) << outcome.err;
    EXPECT_TRUE(contains(outcome.err, "the map is in force and is not kept: /etc/tavrix/maps: "))
        << outcome.err;
    EXPECT_EQ(static_cast<int>(folders), folders_of_current());
    EXPECT_TRUE(refused().empty());
    EXPECT_EQ(0, once().exit_code);
    EXPECT_EQ(1U, kept().size()) << "the next start keeps it";
  }
}

TEST_F(MapKeep, TheServiceTriesAgainUntilTheMapIsKept) {
  auto loader = service(in_haste(kHaste, "link@/etc/tavrix/maps:5:1:1"));
  hand_over(wide(3));
  wait_for_folders(3);
  EXPECT_TRUE(comes([] { return kept().size() == 1; }));
  kill(loader->pid(), SIGTERM);
  EXPECT_EQ(0, loader->wait().exit_code);
}

// Killed at each call that changes the folder: the map is in force, nothing is half kept, and the
// next start keeps it.
// The loader dies at each call of one kind in turn.
class MapKeepKilled : public MapKeep, public testing::WithParamInterface<const char*> {};

TEST_P(MapKeepKilled, LeavesTheMapInForceAndTheHistorySound) {
  const std::string call = GetParam();
  settings("kept maps = 2\n");
  people({"daemon"});
  uint32_t folders = 3;
  int deaths = 0;
  for (int place = 1; place < 40; ++place) {
    SCOPED_TRACE(call + " " + std::to_string(place));
    if (call == "mkdir") remove_all(kKept);
    hand_over(wide(++folders));
    const Outcome outcome = once_with(call + "@/etc/tavrix/maps:kill:" + std::to_string(place));
    if (outcome.signal != SIGKILL) break;  // fewer calls than that
    ++deaths;
    expect_sound_history();
    EXPECT_EQ(0, once().exit_code);
    EXPECT_EQ(static_cast<int>(folders), folders_of_current());
    expect_sound_history();
    EXPECT_EQ(static_cast<int>(folders),
              json({"map", "history"})["maps"].back()["image"]["folders"]);
    EXPECT_LE(kept().size(), 2U);
    EXPECT_TRUE(refused().empty());
  }
  EXPECT_GT(deaths, 0);
}
INSTANTIATE_TEST_SUITE_P(AtAny, MapKeepKilled,
                         testing::Values("mkdir", "link", "write", "fsync", "rename", "unlink",
                                         "open"));

TEST_F(MapKeep, AFullDiskKeepsPublishingAndLetsTheOldestGoEarly) {
  mount_small_disk("/etc/tavrix", 6 << 20);
  ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"});
  for (uint32_t round = 0; round < 12; ++round) {
    hand_over(wide(20000 + round));
    const Outcome outcome = once();
    ASSERT_EQ(0, outcome.exit_code) << round << outcome.err;
    ASSERT_EQ(static_cast<int>(20000 + round), folders_of_current());
  }
  EXPECT_TRUE(refused().empty());
  expect_sound_history();
  EXPECT_LT(kept().size(), 10U) << "they did not fit";
  EXPECT_EQ(12U, kept().back());
}

// --- the way back --------------------------------------------------------------------------------

TEST_F(MapKeep, RollsBackToAMapByteForByte) {
  load(3);
  const std::string image = read_file(kCopy);
  load(4);
  const time_t before = refresh_time();
  const Outcome outcome = ctl({"map", "rollback", "1", "--yes"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "is current: 3 folders")) << outcome.out;
  EXPECT_EQ(3, folders_of_current());
  EXPECT_EQ(image, read_file(kCopy));
  EXPECT_GE(refresh_time(), before);
  const auto newest = json({"map", "history"})["maps"].back();
  EXPECT_EQ(3, newest["map"]);
  EXPECT_EQ("rollback", newest["how"]);
  EXPECT_EQ(1, newest["of"]);
  EXPECT_TRUE(newest["in_force"]);
  EXPECT_EQ(0, ctl({"map", "verify"}).exit_code);
  EXPECT_TRUE(contains(operators_log(), "Successfully processed"));
}

TEST_F(MapKeep, ARestartAfterARollbackBringsTheSameMap) {
  load(3);
  load(4);
  ASSERT_EQ(0, ctl({"map", "rollback", "1", "--yes"}).exit_code);
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(3, folders_of_current());
  load(5);
  EXPECT_EQ(5, folders_of_current());
}

TEST_F(MapKeep, RefusesWhatIsNoWayBack) {
  load(3);
  Outcome outcome = ctl({"map", "rollback", "1", "--yes"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "map 1 is in force already")) << outcome.err;
  outcome = ctl({"map", "rollback", "7", "--yes"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "there is no kept map 7")) << outcome.err;
  load(4);
  outcome = ctl({"map", "rollback", "1"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "this changes the map in force, and there is no terminal"))
      << outcome.err;
  std::string image = read_file(kKept + "/1.map");
  image[image.size() / 2] = static_cast<char>(image[image.size() / 2] ^ 1);
  write_file(kKept + "/1.map", image);
  outcome = ctl({"map", "rollback", "1", "--yes"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "/1.map is damaged")) << outcome.err;
  EXPECT_EQ(4, folders_of_current());
}

// A rollback that is killed leaves one whole map, and the next start the one or the other.
TEST_F(MapKeep, ARollbackThatIsKilledLeavesOneWholeMap) {
  load(3);
  load(4);
  for (const char* fault :
       {"link@.before:kill:1", "rename@.permbe_map:kill:1", "link@.fill:kill:1",
        "rename@.permbe_map:kill:2", "fork:kill:1", "fork:kill:2", "fsync@.permbe_map:kill:1",
        "fsync@.permbe_map:kill:2", "rename@.mark:kill:1", "setall:kill:1", "shmrm:kill:1",
        "open@permission_refresh:kill:1", "unlink@.before:kill:1", "link@/maps/:kill:1"}) {
    SCOPED_TRACE(fault);
    if (folders_of_current() != 4) load(4);
    const std::string number = std::to_string(kept_with(3));
    reached();
    run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "map", "rollback", number, "--yes"}, {},
                with_faults(fault));
    EXPECT_NE("", reached());
    ctl({"map", "remove", "--yes"});  // as a restart of the machine does
    EXPECT_EQ(0, once().exit_code);
    const int folders = folders_of_current();
    EXPECT_TRUE(folders == 3 || folders == 4) << folders;
    EXPECT_FALSE(exists(kCopy + ".before"));
    EXPECT_EQ(0, ctl({"map", "verify"}).exit_code);
    EXPECT_EQ(0, ctl({"map", "verify", kCopy}).exit_code);
    expect_sound_history();
    EXPECT_EQ(folders, json({"map", "history"})["maps"].back()["image"]["folders"]);
  }
}

TEST_F(MapKeep, TheLoaderSaysWhatAnOperatorMadeCurrent) {
  auto loader = service(in_haste(kHaste));
  for (const uint32_t folders : {3U, 4U}) {
    hand_over(wide(folders));
    wait_for_folders(static_cast<int>(folders));
  }
  ASSERT_TRUE(comes([] { return kept().size() == 2; }));
  ASSERT_EQ(0, ctl({"map", "rollback", "1", "--yes"}).exit_code);
  hand_over(wide(5));
  wait_for_folders(5);
  kill(loader->pid(), SIGTERM);
  const std::string said = loader->wait().err;
  EXPECT_TRUE(contains(said, "map 3 is in force: rolled back to map 1 by root")) << said;
}

// --- kept maps by name ---------------------------------------------------------------------------

TEST_F(MapKeep, AKeptMapIsAnOperandOfADifference) {
  load(3);
  load(4);
  const Outcome outcome = ctl({"map", "diff", "kept-1", "current"});
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "added    f3\n")) << outcome.out;
  EXPECT_EQ(0, ctl({"map", "diff", "kept-2", "current"}).exit_code);
  EXPECT_TRUE(contains(ctl({"map", "diff", "kept-9", "current"}).err, "there is no kept map 9"));
  EXPECT_TRUE(contains(ctl({"map", "diff", "held", "current"}).err, "no map is held"));
}

TEST_F(MapKeep, ShellsCompleteNumbersAndOperands) {
  load(3);
  load(4);
  EXPECT_EQ("1\t\n2\t\n", ctl({"--complete", "map", "rollback", ""}).out);
  EXPECT_EQ("current\t\nkept-1\t\nkept-2\t\n:files\t\n",
            ctl({"--complete", "map", "diff", ""}).out);
}

TEST_F(MapKeep, StatusCountsThem) {
  load(3);
  load(4);
  EXPECT_EQ(2, json({"status"})["map"]["kept"]["count"]);
  EXPECT_TRUE(contains(ctl({"status"}).out, "\nkept         2 maps, the oldest of "));
  EXPECT_TRUE(contains(ctl({"status", "--metrics"}).out, "\ntavrix_map_kept 2\n"));
}

}  // namespace
}  // namespace tavrix::test
