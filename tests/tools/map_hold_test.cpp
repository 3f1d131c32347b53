// SPDX-License-Identifier: LGPL-3.0-or-later
// Held maps: the limits at their borders, approval, rejection, and deaths on the way.

#include <algorithm>
#include <cctype>
#include <csignal>

#include "tests/tools/keeping.hpp"

namespace tavrix::test {
namespace {

class MapHold : public Keeping {
 protected:
  static constexpr int kHeld = 1;  // the exit code of a run that held a map
  static void expect_held(int folders) {
    EXPECT_EQ(folders, folders_of_current()) << "the previous map is in force";
    EXPECT_TRUE(exists(kKept + "/held.json"));
    EXPECT_EQ((std::vector<std::string>{"data.json", "size.json"}), list(kInbox + "/held"));
    EXPECT_TRUE(list(kInbox + "/.work").empty());
    EXPECT_TRUE(refused().empty());
    EXPECT_FALSE(exists(kCopy + ".before"));
    EXPECT_EQ(2, segments_in_use()) << "the table and the settings";
    EXPECT_EQ(0, ctl({"map", "verify"}).exit_code);
  }
  static void expect_nothing_held() {
    for (const char* name : {"held.json", "held.map", "held.txt", "held.diff.json"}) {
      EXPECT_FALSE(exists(kKept + "/" + name)) << name;
    }
    EXPECT_FALSE(exists(kInbox + "/held"));
  }
  static Outcome hand_over_and_load(const Folder& map) {
    hand_over(map);
    return once();
  }
};

TEST_F(MapHold, HoldsNothingAsShipped) {
  load(100);
  load(1);
  EXPECT_EQ(1, folders_of_current());
  expect_nothing_held();
}

// Of 100 folders, ten are ten per cent, and eleven are more.
TEST_F(MapHold, TheShareOfRemovedFoldersIsExactAtItsBorder) {
  settings("hold removed folders pct = 10\n");
  load(100);
  load(90);
  load(100);
  const Outcome outcome = hand_over_and_load(wide(89));
  EXPECT_EQ(kHeld, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err,
                       "held: it removes 11 of 100 folders, and the limit is 10 per "
                       "cent; \"tavrixctl map diff current held\" shows"))
      << outcome.err;
  expect_held(100);
}

TEST_F(MapHold, ZeroHoldsTheFirstFolderThatGoes) {
  settings("hold removed folders pct = 0\n");
  load(10);
  load(11);
  EXPECT_EQ(kHeld, hand_over_and_load(wide(10)).exit_code);
  expect_held(11);
}

// Of four users, two are fifty per cent, and three are more.
TEST_F(MapHold, TheShareOfUsersIsExactAtItsBorder) {
  people({"daemon", "bin", "sys", "games"});
  settings("hold changed users pct = 50\n");
  load_for({{1, 1}});
  load_for({{1, 3}, {2, 1}});
  const Outcome outcome = hand_over_and_load(team_of({{3, 1}}));
  EXPECT_EQ(kHeld, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err,
                       "held: it changes the rights of 3 of 4 users, and the limit is "
                       "50 per cent"))
      << outcome.err;
  expect_held(3);
}

TEST_F(MapHold, WithoutAGroupListMapNobodyKnowsTheUsersAndTheMapIsHeld) {
  settings("hold changed users pct = 50\n");
  load(3);
  const Outcome outcome = hand_over_and_load(wide(4));
  EXPECT_EQ(kHeld, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the group list map cannot be read")) << outcome.err;
}

TEST_F(MapHold, TheFirstMapOfAllIsNotHeld) {
  settings("hold removed folders pct = 0\nhold changed users pct = 0\n");
  load(3);
  EXPECT_EQ(3, folders_of_current());
}

TEST_F(MapHold, AComparisonThatDiesHoldsTheMap) {
  settings("hold removed folders pct = 50\n");
  load(100);
  hand_over(wide(40));
  reached();
  const Outcome outcome = once_with("fsync@/maps/held.txt:kill:1");
  EXPECT_NE("", reached());
  EXPECT_EQ(kHeld, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "it cannot be compared with the map in force: Killed"))
      << outcome.err;
  expect_held(100);
  EXPECT_FALSE(exists(kKept + "/held.txt")) << "half a difference is none";
  EXPECT_EQ(0, ctl({"map", "approve", "--yes"}).exit_code);
  EXPECT_EQ(40, folders_of_current());
}

// The size pass, the data pass and the comparison are a process each.
TEST_F(MapHold, AComparisonThatCannotStartIsTriedAgain) {
  settings("hold removed folders pct = 50\n");
  load(100);
  hand_over(wide(90));
  reached();
  const Outcome outcome = once_with("fork:11:3");
  EXPECT_NE("", reached());
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(90, folders_of_current());
  expect_nothing_held();
}

TEST_F(MapHold, AServiceThatEndsWhileItComparesLeavesThePairToTheNext) {
  settings("hold removed folders pct = 50\n");
  load(100);
  auto loader = service(in_haste(kHaste, "fsync@/maps/held.txt:stop:1"));
  hand_over(wide(40));
  ASSERT_TRUE(comes([] { return exists(kReached); }));
  kill(loader->pid(), SIGTERM);
  EXPECT_EQ(0, loader->wait().exit_code);
  EXPECT_FALSE(exists(kKept + "/held.json"));
  EXPECT_EQ(kHeld, once().exit_code);
  expect_held(100);
}

TEST_F(MapHold, ImportsByHandAreNotHeld) {
  settings("hold removed folders pct = 0\n");
  load(10);
  EXPECT_EQ(0, import(wide(2)).exit_code);
  EXPECT_EQ(2, folders_of_current());
}

class MapHeld : public MapHold {
 protected:
  void SetUp() override {
    MapHold::SetUp();
    settings("hold removed folders pct = 10\n");
    load(100);
    ASSERT_EQ(kHeld, hand_over_and_load(wide(50)).exit_code);
  }
};

TEST_F(MapHeld, ItsDifferenceLiesBesideIt) {
  EXPECT_TRUE(contains(read_file(kKept + "/held.txt"), "removed  f50\n"));
  EXPECT_TRUE(contains(read_file(kKept + "/held.txt"), "50 folders removed, 0 added"));
  const auto diff = nlohmann::json::parse(read_file(kKept + "/held.diff.json"));
  EXPECT_EQ(50U, diff["removed"].size());
  EXPECT_EQ(1, ctl({"map", "diff", "current", "held"}).exit_code);
  const auto held = json({"map", "history"})["held"];
  EXPECT_EQ(50, held["changes"]["removed"]);
  EXPECT_EQ(50, held["image"]["folders"]);
  EXPECT_TRUE(contains(ctl({"map", "history"}).out, ": it removes 50 of 100 folders"));
}

TEST_F(MapHeld, ApprovalMakesItCurrent) {
  const Outcome outcome = ctl({"map", "approve", "--yes"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(50, folders_of_current());
  expect_nothing_held();
  const auto newest = json({"map", "history"})["maps"].back();
  EXPECT_EQ("approval", newest["how"]);
  EXPECT_EQ("root", newest["who"]);
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(50, folders_of_current()) << "a restart brings it too";
  EXPECT_EQ(1, ctl({"map", "approve", "--yes"}).exit_code) << "nothing is held any more";
}

TEST_F(MapHeld, RejectionRemovesIt) {
  EXPECT_EQ(0, ctl({"map", "reject", "--yes"}).exit_code);
  expect_nothing_held();
  EXPECT_EQ(100, folders_of_current());
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(100, folders_of_current());
  const Outcome outcome = ctl({"map", "reject", "--yes"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "no map is held"));
}

TEST_F(MapHeld, BothAskFirst) {
  for (const char* command : {"approve", "reject"}) {
    const Outcome outcome = ctl({"map", command});
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, "there is no terminal to ask on; give --yes")) << outcome.err;
  }
  expect_held(100);
}

TEST_F(MapHeld, ALaterHeldMapTakesItsPlace) {
  const Outcome outcome = hand_over_and_load(wide(40));
  EXPECT_EQ(kHeld, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "it takes the place of an earlier one")) << outcome.err;
  EXPECT_EQ(40, json({"map", "history"})["held"]["image"]["folders"]);
  expect_held(100);
}

TEST_F(MapHeld, ALaterMapThatPassesRemovesIt) {
  const Outcome outcome = hand_over_and_load(wide(99));
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the held map is removed: a later one is in force"))
      << outcome.err;
  expect_nothing_held();
  EXPECT_EQ(99, folders_of_current());
}

TEST_F(MapHeld, ApprovalAgainstAnotherMapWantsForce) {
  ASSERT_EQ(0, import(wide(7)).exit_code);
  const Outcome outcome = ctl({"map", "approve", "--yes"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "another map came into force after this one was held"))
      << outcome.err;
  EXPECT_EQ(7, folders_of_current());
  EXPECT_EQ(0, ctl({"map", "approve", "--force", "--yes"}).exit_code);
  EXPECT_EQ(50, folders_of_current());
}

// A later held map takes the place of the one that somebody has looked at.
TEST_F(MapHeld, IsApprovedOrRejectedByItsChecksumAlone) {
  const std::string looked_at = json({"map", "history"})["held"]["image"]["sha256"];
  ASSERT_EQ(kHeld, hand_over_and_load(wide(40)).exit_code);
  const std::string digest = json({"map", "history"})["held"]["image"]["sha256"];
  for (const char* command : {"approve", "reject"}) {
    for (const std::string& other : {looked_at, looked_at.substr(0, 8), digest + "0"}) {
      const Outcome outcome = ctl({"map", command, "--yes", "--checksum", other});
      EXPECT_NE(0, outcome.exit_code) << command << " " << other;
    }
    const Outcome outcome = ctl({"map", command, "--yes", "--checksum", looked_at});
    EXPECT_EQ(1, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, "another map is held: its checksum is " + digest))
        << outcome.err;
  }
  expect_held(100);
  EXPECT_TRUE(contains(ctl({"map", "history"}).out, "--checksum " + digest.substr(0, 8)));
  std::string capitals = digest.substr(0, 12);
  std::ranges::transform(capitals, capitals.begin(), [](unsigned char c) { return toupper(c); });
  EXPECT_EQ(0, ctl({"map", "approve", "--yes", "--checksum", capitals}).exit_code);
  EXPECT_EQ(40, folders_of_current());
}

TEST_F(MapHeld, IsRejectedByItsChecksum) {
  const std::string digest = json({"map", "history"})["held"]["image"]["sha256"];
  EXPECT_EQ(0, ctl({"map", "reject", "--yes", "--checksum", digest}).exit_code);
  expect_nothing_held();
}

TEST_F(MapHeld, AChecksumHasAtLeastEightDigits) {
  for (const char* wrong : {"", "1a2b3c4", "1a2b3c4x"}) {
    const Outcome outcome = ctl({"map", "approve", "--yes", "--checksum", wrong});
    EXPECT_EQ(2, outcome.exit_code) << wrong;
    EXPECT_TRUE(contains(outcome.err, "at least the first 8")) << outcome.err;
  }
  expect_held(100);
}

TEST_F(MapHeld, ADamagedImageIsNotApproved) {
  std::string image = read_file(kKept + "/held.map");
  image[image.size() / 2] = static_cast<char>(image[image.size() / 2] ^ 1);
  write_file(kKept + "/held.map", image);
  const Outcome outcome = ctl({"map", "approve", "--yes"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "held.map is damaged")) << outcome.err;
  EXPECT_EQ(100, folders_of_current());
}

TEST_F(MapHeld, StatusWarnsAndSaysWhatToDo) {
  const auto status = json({"status"});
  EXPECT_EQ("it removes 50 of 100 folders, and the limit is 10 per cent",
            status["map"]["kept"]["held_reason"]);
  const std::string screen = ctl({"status"}).out;
  EXPECT_TRUE(contains(screen, "WARNING: a map is held for ")) << screen;
  EXPECT_TRUE(contains(screen, "\"tavrixctl map approve\" or \"tavrixctl map reject\"")) << screen;
  EXPECT_TRUE(contains(ctl({"status", "--metrics"}).out, "\ntavrix_map_held 1\n"));
}

TEST_F(MapHeld, ShellsCompleteItsName) {
  EXPECT_EQ("held\t\n", ctl({"--complete", "map", "diff", "current", "he"}).out.substr(0, 6));
}

TEST_F(MapHeld, ALaterMapWithoutRoomLeavesItAlone) {
  hand_over(wide(40));
  EXPECT_EQ(1, once_with("write@/maps/held.map:28:1:99").exit_code);
  EXPECT_EQ(1U, refused().size());
  EXPECT_EQ(50, json({"map", "history"})["held"]["image"]["folders"]);
  EXPECT_TRUE(contains(read_file(kKept + "/held.txt"), "50 folders removed"));
  EXPECT_EQ(0, ctl({"map", "approve", "--yes"}).exit_code);
  EXPECT_EQ(50, folders_of_current());
}

// A loader that dies while it holds a map holds it again at its next start.
// The loader dies at each call of one kind in turn. The size pass, the data pass and the comparison
// are processes of their own: a death of theirs holds the map too.
class MapHoldKilled : public MapHold, public testing::WithParamInterface<const char*> {};

TEST_P(MapHoldKilled, HoldsTheMapAgain) {
  const std::string call = GetParam();
  settings("hold removed folders pct = 10\n");
  load(100);
  int reached_calls = 0;
  for (int place = 1; place < 20; ++place) {
    SCOPED_TRACE(call + " " + std::to_string(place));
    ctl({"map", "reject", "--yes"});
    hand_over(wide(50));
    reached();
    const Outcome outcome = once_with(call + ":kill:" + std::to_string(place));
    const bool is_reached = !reached().empty();
    if (outcome.signal == SIGKILL) {
      EXPECT_EQ(100, folders_of_current());
      once();
    }
    expect_held(100);
    EXPECT_EQ(50, json({"map", "history"})["held"]["image"]["folders"]);
    if (!is_reached) break;
    ++reached_calls;
  }
  EXPECT_GT(reached_calls, 0);
}
INSTANTIATE_TEST_SUITE_P(AtAny, MapHoldKilled,
                         testing::Values("write@/maps/held.map", "fsync@/maps/held.map",
                                         "rename@/maps/held", "open@/maps/held.map",
                                         "unlink@/maps/held", "fsync@/etc/tavrix/maps",
                                         "rename@/scratch/maps/held"));

TEST_F(MapHold, WithoutRoomToStoreItThePairIsSetAsideAsRefused) {
  settings("hold removed folders pct = 10\n");
  load(100);
  hand_over(wide(50));
  EXPECT_EQ(1, once_with("write@/maps/held.map:28:1:99").exit_code);
  ASSERT_EQ(1U, refused().size());
  EXPECT_TRUE(contains(read_file(kInbox + "/refused/" + refused()[0] + "/reason.txt"),
                       "cannot be stored until somebody approves it: No space left"));
  EXPECT_EQ(100, folders_of_current());
  expect_nothing_held();
}

TEST_F(MapHold, AReloadTakesNewLimits) {
  auto loader = service(in_haste(kHaste));
  hand_over(wide(100));
  wait_for_folders(100);
  settings("hold removed folders pct = 10\n");
  kill(loader->pid(), SIGHUP);
  hand_over(wide(50));
  EXPECT_TRUE(comes([] { return exists(kInbox + "/held/data.json"); }));
  EXPECT_EQ(100, folders_of_current());
  hand_over(wide(101));
  wait_for_folders(101);
  kill(loader->pid(), SIGTERM);
  EXPECT_EQ(0, loader->wait().exit_code);
}

}  // namespace
}  // namespace tavrix::test
