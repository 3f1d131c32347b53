// SPDX-License-Identifier: LGPL-3.0-or-later
// Many deletions, and many renames to one ending.

#include "tools/historian/mass_changes.hpp"

#include "tests/historian/historian.hpp"

namespace tavrix::test {
namespace {

using historian::MassChanges;
using historian::Row;

constexpr int64_t kSecond = 1'000'000;

class MassChange : public testing::Test {
 protected:
  static Row deletion(int64_t time, uint32_t uid = 1001) {
    Row row;
    row.time = time;
    row.op = VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
    row.uid = uid;
    row.path = "Shared/x";
    return row;
  }
  static Row rename(int64_t time, std::string_view to, std::string_view from = "a.doc") {
    Row row = deletion(time);
    row.op = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
    row.path = from;
    row.target = to;
    return row;
  }
  std::size_t look(const Row& row) { return changes_.look({row}).size(); }
  MassChanges changes_{{3, 10}, {3, 10}};
};

TEST_F(MassChange, IsReportedAboveTheThresholdAndOnce) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0U, look(deletion(i * kSecond)));
  const auto found = changes_.look({deletion(3 * kSecond)});
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ("the user with the id 1001 deleted 4 files and folders within 10 seconds",
            found[0].sentence());
  for (int i = 4; i < 50; ++i) EXPECT_EQ(0U, look(deletion(i * kSecond)));
}

TEST_F(MassChange, IsReportedAgainAfterAPause) {
  for (int i = 0; i < 4; ++i) look(deletion(i));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0U, look(deletion(60 * kSecond + i)));
  EXPECT_EQ(1U, look(deletion(60 * kSecond + 4)));
}

TEST_F(MassChange, CountsNoLongerThanTheWindow) {
  for (int i = 0; i < 100; ++i) EXPECT_EQ(0U, look(deletion(i * 4 * kSecond)));
}

TEST_F(MassChange, IsOneUsers) {
  for (uint32_t uid = 1; uid < 50; ++uid) EXPECT_EQ(0U, look(deletion(uid, uid)));
}

TEST_F(MassChange, OfRenamesIsOfOneNewEnding) {
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(0U, look(rename(i, "a.doc", "b.doc")));
    EXPECT_EQ(0U, look(rename(i, "a." + std::to_string(i))));
    EXPECT_EQ(0U, look(rename(i, "without")));
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0U, look(rename(i, "Shared/a.doc.locked")));
  const auto found = changes_.look({rename(9, "Shared/b.locked")});
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ("the user with the id 1001 gave 4 files the new ending \".locked\" within 10 seconds",
            found[0].sentence());
}

// A name is a client's choice: it must not begin a line of its own in the journal.
TEST_F(MassChange, ShowsControlCharactersAsEscapes) {
  const auto found = changes_.look(std::vector<Row>(4, rename(1, "a.x\nevil")));
  ASSERT_EQ(1U, found.size());
  EXPECT_TRUE(contains(found[0].sentence(), "\".x\\x0aevil\"")) << found[0].sentence();
}

TEST_F(MassChange, OfFoldersRenamesIsNone) {
  for (int i = 0; i < 30; ++i) {
    Row row = rename(i, "a.locked");
    row.is_folder = true;
    EXPECT_EQ(0U, look(row));
  }
}

TEST_F(MassChange, NamesTheUserThatTheRecordBrings) {
  std::vector<Row> rows(4, deletion(1));
  for (Row& row : rows) row.user = "anna";
  const auto found = changes_.look(rows);
  ASSERT_EQ(1U, found.size());
  EXPECT_TRUE(found[0].sentence().starts_with("anna (user id 1001) deleted"));
}

TEST_F(MassChange, BeginsAnewWhenTheClockGoesBack) {
  for (int i = 0; i < 3; ++i) look(deletion(1000 * kSecond));
  EXPECT_EQ(0U, look(deletion(1)));
}

TEST_F(MassChange, CanBeSwitchedOff) {
  MassChanges none({0, 10}, {0, 10});
  EXPECT_TRUE(none.look(std::vector<Row>(100, deletion(1))).empty());
}

TEST_F(MassChange, TakesTheEndingBehindTheLastDotOfTheName) {
  EXPECT_EQ("c", historian::ending_of("a/b.c"));
  EXPECT_EQ("d", historian::ending_of("a/b.c.d"));
  EXPECT_EQ("", historian::ending_of("a.b/c"));
  EXPECT_EQ("", historian::ending_of("a."));
}

// --- in the program ------------------------------------------------------------------------------

class MassChangeOfDumps : public HistorianWorld {
 protected:
  static void remove_files(int from, int to) {
    for (int i = from; i < to; ++i) {
      VFSEvent event = VFSEVENT__INIT;
      std::string path = "Shared/" + std::to_string(i);
      event.path = path.data();
      event.optype = VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
      pop_vfs_event(&event, 1001);
      const Malloced<staging_data_s> record(create_staging_data_buf(&event));
      ASSERT_EQ(0, write_to_staging_buffer(record.get()));
    }
    ASSERT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  }
};

TEST_F(MassChangeOfDumps, IsReportedOnceHoweverOftenTheHistorianStarts) {
  configure_history("mass deletions = 10\n");
  ASSERT_EQ(0, keep().exit_code);
  remove_files(0, 6);
  EXPECT_FALSE(contains(keep().err, "deleted"));
  remove_files(6, 12);
  const Outcome crossing = keep();
  EXPECT_TRUE(contains(crossing.err,
                       "the user with the id 1001 deleted 11 files and folders within 60 seconds"))
      << crossing.err;
  remove_files(12, 30);
  EXPECT_FALSE(contains(keep().err, "deleted"));
  EXPECT_EQ(1U, notices("mass-delete").size());
  EXPECT_EQ(Paths{"1001|11"},
            ask("SELECT uid || '|' || count FROM notices WHERE kind = 'mass-delete'"));
}

}  // namespace
}  // namespace tavrix::test
