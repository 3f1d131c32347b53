// SPDX-License-Identifier: LGPL-3.0-or-later
// Old records go, by age and by size; the clock is watched.

#include "tools/historian/retention.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <filesystem>

#include "tests/historian/historian.hpp"
#include "tools/historian/dump_rows.hpp"
#include "tools/historian/taker.hpp"

namespace tavrix::test {
namespace {

using historian::Limits;
using historian::prune;
using historian::Pruned;

constexpr int64_t kDay = int64_t{86400} * 1'000'000;
constexpr int64_t kNow = int64_t{1'800'000'000} * 1'000'000;

class Retention : public HistorianWorld {
 protected:
  void SetUp() override {
    HistorianWorld::SetUp();
    make_dirs("/scratch/db");
    history::Problem problem;
    database_ = history::open_to_write(kDatabase, problem);
    ASSERT_NE(nullptr, database_) << problem.sentence;
  }
  // A dump file of records of these times, taken at that time.
  void take(const std::vector<int64_t>& times, int64_t taken, const std::string& path = "p") {
    historian::DumpRows dump;
    for (const int64_t time : times) {
      historian::Row row;
      row.time = time;
      row.path = path;
      dump.rows.push_back(row);
      dump.newest = std::max(dump.newest, time);
    }
    historian::Content content{++inode_, taken, "bytes"};
    historian::Link link;
    link.name = "events.x";
    historian::Taker taker(database_.get());
    history::Transaction transaction(database_.get());
    ASSERT_EQ(historian::Taker::Result::kTaken, taker.take(link, content, dump, taken));
    ASSERT_TRUE(transaction.commit());
  }
  // Prunes until nothing is left to do; the number of transactions.
  int prune_all(const Limits& limits, int64_t now = kNow, bool is_trusted = true) {
    for (int count = 1;; ++count) {
      const Pruned result = prune(database_.get(), limits, now, is_trusted);
      EXPECT_NE(Pruned::kFailed, result);
      if (result != Pruned::kSome) return count;
    }
  }
  int64_t count(const std::string& table) {
    return history::number_of(database_.get(), "SELECT count(*) FROM " + table).value_or(-1);
  }
  int64_t meta(const std::string& key) {
    return history::number_of(database_.get(), "SELECT value FROM meta WHERE key = '" + key + "'")
        .value_or(-1);
  }

  history::Database database_;
  uint64_t inode_ = 0;
};

TEST_F(Retention, KeepsARecordThatIsExactlyAsOldAsTheLimit) {
  take({kNow - 10 * kDay - 1, kNow - 10 * kDay, kNow - kDay}, kNow - 11 * kDay);
  prune_all({.days = 10});
  EXPECT_EQ(2, count("records"));
  EXPECT_EQ(kNow - 10 * kDay, meta("pruned"));
  EXPECT_EQ(1, count("dumps"));
}

TEST_F(Retention, ForgetsADumpWithItsLastRecord) {
  take({kNow - 20 * kDay}, kNow - 20 * kDay);
  take({kNow - kDay}, kNow - kDay);
  prune_all({.days = 10});
  EXPECT_EQ(1, count("records"));
  EXPECT_EQ(1, count("dumps"));
}

TEST_F(Retention, RemovesNothingWithoutALimit) {
  take({1}, 1);
  prune_all({});
  EXPECT_EQ(1, count("records"));
}

// A machine without a clock of its own starts in 1970.
TEST_F(Retention, KeepsANewRecordOfAClockThatWasBehind) {
  take({kNow - 5 * kDay}, kNow - 5 * kDay);
  take({1000, 2000}, kNow - kDay);
  prune_all({.days = 10});
  EXPECT_EQ(3, count("records"));
  prune_all({.days = 10}, kNow + 20 * kDay);
  EXPECT_EQ(0, count("records"));
}

TEST_F(Retention, LeavesAgeAloneWithAClockThatIsNotTrusted) {
  take({kNow - 20 * kDay}, kNow - 20 * kDay);
  prune_all({.days = 10}, kNow, false);
  EXPECT_EQ(1, count("records"));
}

TEST_F(Retention, WorksInShortTransactions) {
  take(std::vector<int64_t>(10'000, kNow - 20 * kDay), kNow - 20 * kDay);
  EXPECT_GE(prune_all({.days = 10}), 6);
  EXPECT_EQ(0, count("records"));
}

TEST_F(Retention, BySizeRemovesTheOldestAndShrinksTheFile) {
  for (int day = 40; day > 0; --day) {
    take(std::vector<int64_t>(500, kNow - day * kDay), kNow - day * kDay, std::string(300, 'x'));
  }
  const auto size = [this] {
    EXPECT_TRUE(history::execute(database_.get(), "PRAGMA wal_checkpoint(TRUNCATE)"));
    return std::filesystem::file_size(kDatabase);
  };
  ASSERT_GT(size(), 10U << 20);
  prune_all({.megabytes = 4});
  EXPECT_LE(historian::used_bytes(database_.get()), 4 << 20);
  EXPECT_LE(size(), 6U << 20);
  EXPECT_GT(count("records"), 2000);
  // The newest stay.
  EXPECT_EQ(500, history::number_of(database_.get(), "SELECT count(*) FROM records WHERE time = " +
                                                         std::to_string(kNow - kDay)));
  EXPECT_LT(count("dumps"), 40);
}

TEST_F(Retention, BySizeEndsWhenNothingIsLeft) {
  take({kNow}, kNow);
  EXPECT_TRUE(history::execute(database_.get(),
                               "CREATE TABLE other (x); INSERT INTO other VALUES "
                               "(zeroblob(3000000))"));
  EXPECT_LT(prune_all({.megabytes = 1}), 10);
}

TEST_F(Retention, OfTheProgramTakesNoWaitingDumpAgain) {
  configure_history("keep days = 10\n");
  database_.reset();
  dump({"a"});
  const std::string file = std::string(kStaging) + "/" + list(kStaging).at(0);
  ASSERT_EQ(0, keep().exit_code);
  {
    history::Problem problem;
    const auto database = history::open_to_write(kDatabase, problem);
    // The record and its dump get old, and so does the file of the agent.
    ASSERT_TRUE(history::execute(database.get(),
                                 "UPDATE records SET time = 1000000; UPDATE dumps SET newest = "
                                 "1000000, taken = 1000000, mtime = 1000000000"));
  }
  const timespec then[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, file.c_str(), then, 0));
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{}, kept());
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{}, kept());
}

// --- the clock -----------------------------------------------------------------------------------

class Clock : public testing::Test {
 protected:
  using Steady = historian::TrustedClock::Steady;
  void look(int64_t now, int64_t steady_hours, int64_t known = 0) {
    clock_.look(now, Steady(std::chrono::hours(steady_hours)), known);
  }
  historian::TrustedClock clock_;
};

TEST_F(Clock, IsTrustedWhileItRunsEvenly) {
  look(kNow, 0);
  look(kNow + kDay / 24, 1);
  EXPECT_TRUE(clock_.is_trusted());
}

TEST_F(Clock, ThatJumpsAheadIsTrustedAfterADay) {
  look(kNow, 0);
  look(kNow + 400 * kDay, 1);
  EXPECT_FALSE(clock_.is_trusted());
  look(kNow + 401 * kDay - kDay / 24, 24);
  EXPECT_FALSE(clock_.is_trusted());
  look(kNow + 401 * kDay, 25);
  EXPECT_TRUE(clock_.is_trusted());
}

TEST_F(Clock, ThatIsAheadAtTheStartIsTrustedAfterADay) {
  look(kNow, 0, kNow - kDay);
  EXPECT_TRUE(clock_.is_trusted());
  historian::TrustedClock other;
  other.look(kNow, Steady(), kNow - kDay - 1);
  EXPECT_FALSE(other.is_trusted());
}

TEST_F(Clock, ThatGoesBackIsTrusted) {
  look(kNow, 0);
  look(kNow - 400 * kDay, 1);
  EXPECT_TRUE(clock_.is_trusted());
}

TEST_F(Retention, OfTheProgramSurvivesAClockThatJumpsAhead) {
  configure_history("keep days = 10\n");
  database_.reset();
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  ASSERT_EQ(0, keep().exit_code);
  Environment ahead = with_faults("");
  ahead.emplace_back("TAVRIX_CLOCK_AHEAD", std::to_string(400 * 86400));
  ASSERT_EQ(0, keep(ahead).exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

}  // namespace
}  // namespace tavrix::test
