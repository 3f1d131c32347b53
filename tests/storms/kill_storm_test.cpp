// SPDX-License-Identifier: LGPL-3.0-or-later
// Processes that are killed at random moments, many at a time.

#include "tests/storms/acknowledged.hpp"
#include "tests/storms/killed.hpp"
#include "tests/storms/sessions.hpp"
#include "tests/storms/storm.hpp"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

// Writers that keep a list of what was acknowledged, flushers of all kinds, and a sweeper.
class KillStorm : public EventStorm {
 protected:
  static constexpr int kWriters = 3;
  static constexpr std::size_t kEnough = 1000;  // acknowledged events, or the storm says little
  static constexpr int kMostRounds = 5000;      // of a machine that is too slow for that

  void round(Storm& storm) {
    KilledProcesses processes;
    for (int writer = 0; writer < kWriters; ++writer) {
      processes.add([round = storm.rounds(), writer, has_session = storm.gives_session()] {
        write(round, writer, has_session);
      });
    }
    for (const FB_CTX ctx : {FB_CTX_SWPR, FB_CTX_DISCON}) {
      processes.add([ctx] {
        for (;;) flush_staging_buffer(ctx);
      });
    }
    processes.add([] {
      execl(TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "tavrix-sweeper", "--foreground", nullptr);
    });
    processes.kill_all(storm);
    for (const std::string& name : others()) {
      storm.count(name.starts_with("txtemp") ? "file of a killed flush left" : "other file left");
    }
    AcknowledgedList::collect(kWriters, acknowledged_);
  }

  [[noreturn]] static void write(int round, int writer, bool has_session) {
    StormSession session(has_session, static_cast<unsigned>(round * kWriters + writer));
    AcknowledgedList log(writer);
    for (int number = 0;; ++number) {
      const std::string path =
          std::to_string(round) + "-" + std::to_string(writer) + "-" + std::to_string(number);
      session.do_or_fork([&] {
        if (append(path) == 0) log.add(path);
      });
      session.rest_at_times();
    }
  }

  std::set<std::string> acknowledged_;
};

// A slow machine writes little in a round: the storm lasts until enough was acknowledged.
TEST_F(KillStorm, OfEventsLosesNothingAndDoublesNothing) {
  Storm storm("kill.events", 2);
  const StormFootprint footprint;
  while (storm.goes_on() || (acknowledged_.size() < kEnough && storm.rounds() < kMostRounds)) {
    ASSERT_NO_FATAL_FAILURE(round(storm));
    if (HasFailure()) break;
  }
  const Outcome last = once();
  EXPECT_EQ(0, last.exit_code) << last.err;
  EXPECT_EQ(Paths{}, others());
  EXPECT_FALSE(is_told());
  storm.count("event acknowledged", static_cast<int>(acknowledged_.size()));
  if (each_is_there_once(acknowledged_, storm.where())) {
    storm.count("event in one dump file, once", static_cast<int>(acknowledged_.size()));
  }
  EXPECT_GE(acknowledged_.size(), kEnough);
  footprint.expect_same(storm.where());
}

class MapKillStorm : public Loader {
 protected:
  static std::unique_ptr<Child> program(const std::vector<std::string>& words) {
    return std::make_unique<Child>([words] {
      std::vector<char*> argv;
      for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
    });
  }
};

// A loader that imports a new map, and an operator beside it, both killed. Whoever comes next finds
// one whole map, the old or the new one, and the pair becomes current.
TEST_F(MapKillStorm, OfImportsLosesNoMap) {
  Storm storm("kill.maps", 2);
  uint32_t current = 50;
  hand_over(numbered_map(current));
  ASSERT_EQ(0, once().exit_code);
  ASSERT_EQ(static_cast<int>(current), number_by_verdicts());
  const StormFootprint footprint;
  StormSession session(storm);
  while (storm.goes_on()) {
    const uint32_t next = current + 1 + storm.below(400);
    hand_over(numbered_map(next));
    std::vector<std::unique_ptr<Child>> deciders;
    for (unsigned i = 0; i < 2; ++i) {
      deciders.push_back(decider_between(current, next, storm.gives_session(), i));
    }
    const auto loader = program({kLoader, "--once", "--dir", kInbox});
    const auto operators = program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "map",
                                    storm.below(2) == 0 ? "restore" : "remove",
                                    storm.below(2) == 0 ? "--stale" : "--help"});
    // An import takes some 50 ms on an idle machine and ten times as long on a busy one.
    usleep(storm.below(storm.below(2) == 0 ? 60'000 : 600'000));
    operators->kill();
    loader->kill();
    operators->wait();
    storm.count(loader->wait().signal == SIGKILL ? "loader killed" : "loader ended before");
    const auto between = static_cast<uint32_t>(folders_of_current());
    EXPECT_TRUE(between == current || between == next) << storm.where() << ": " << between;
    EXPECT_EQ(static_cast<int>(between), number_by_verdicts()) << storm.where();
    session.rest_at_times();
    storm.count(between == current ? "the old map between" : "the new map between");
    const Outcome after = once();
    EXPECT_EQ(0, after.exit_code) << storm.where() << after.err;
    EXPECT_EQ(next, static_cast<uint32_t>(folders_of_current())) << storm.where() << after.err;
    EXPECT_EQ(static_cast<int>(next), number_by_verdicts()) << storm.where();
    for (auto& decider : deciders) {
      decider->kill();
      const Outcome outcome = decider->wait();
      EXPECT_EQ(SIGKILL, outcome.signal) << storm.where() << ": " << outcome.err;
      EXPECT_EQ("", outcome.err) << storm.where();
      storm.count("decider killed");
    }
    EXPECT_TRUE(comes([] { return segments_in_use() == 2; })) << storm.where();
    EXPECT_EQ(0, ctl({"map", "verify"}).exit_code) << storm.where();
    EXPECT_EQ(0, ctl({"map", "verify", kCopy}).exit_code) << storm.where();
    EXPECT_EQ(2, segments_in_use()) << storm.where() << ": the table and the settings";
    EXPECT_TRUE(refused().empty()) << storm.where();
    storm.count("the new map after the next start");
    current = next;
  }
  footprint.expect_same(storm.where());
}

}  // namespace
}  // namespace tavrix::test
