// SPDX-License-Identifier: LGPL-3.0-or-later
// A database that cannot be used, a full disk, and calls that fail: the links stay until their
// records are on the disk.

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>
#include <memory>

#include "tests/historian/historian.hpp"

namespace tavrix::test {
namespace {

class HistoryFailure : public HistorianWorld {
 protected:
  static constexpr const char* kFolder = "/scratch/db";

  void SetUp() override {
    HistorianWorld::SetUp();
    ASSERT_EQ(0, keep().exit_code);
  }
  // Runs SQL on the database behind the historian's back.
  static history::Database changed(const std::string& sql) {
    sqlite3* raw = nullptr;
    sqlite3_open(kDatabase, &raw);
    history::Database database(raw);
    EXPECT_TRUE(history::execute(raw, sql.c_str())) << sqlite3_errmsg(raw);
    return database;
  }
  static void overwrite(off_t offset, const std::string& bytes) {
    const Fd fd(open(kDatabase, O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              pwrite(fd.get(), bytes.data(), bytes.size(), offset));
  }
  // Names in the folder that begin so.
  static Paths set_aside() {
    Paths names;
    for (const std::string& name : list(kFolder)) {
      if (name.starts_with("history.db.damaged-")) names.push_back(name);
    }
    return names;
  }
  static void expect_refusal(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(1, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, kDatabase + (": " + sentence))) << outcome.err;
  }
};

// --- the database --------------------------------------------------------------------------------

TEST_F(HistoryFailure, BytesThatAreNoDatabaseAreSetAside) {
  dump({"a"});
  remove_all(kFolder);
  make_dirs(kFolder);
  write_file(kDatabase, std::string(8192, 'x'));
  const Outcome outcome = keep();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the history is damaged")) << outcome.err;
  EXPECT_EQ(Paths{"a"}, kept());
  ASSERT_EQ(2U, set_aside().size());
  EXPECT_EQ(std::string(8192, 'x'), read_file(std::string(kFolder) + "/" + set_aside()[0]));
  EXPECT_TRUE(contains(read_file(std::string(kFolder) + "/" + set_aside()[1]), "damaged"));
  EXPECT_EQ(1U, notices("begun").size());
}

TEST_F(HistoryFailure, ABrokenPageSetsTheDatabaseAsideAndLosesNoLink) {
  for (int i = 0; i < 200; ++i) send(std::string(150, 'p') + std::to_string(i));
  dump({"a"});
  ASSERT_EQ(0, keep().exit_code);
  empty_staging_dir();  // a new database would take again what waits there
  changed("PRAGMA wal_checkpoint(TRUNCATE)");
  for (off_t page = 2; page < 20; ++page) overwrite(page * 4096, std::string(4096, '\x5a'));
  dump({"b"});
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(3U, set_aside().size());  // with its WAL and the reason
  EXPECT_EQ(Paths{"b"}, kept());
  EXPECT_TRUE(links().empty());
  EXPECT_EQ(1U, notices("begun").size());
}

TEST_F(HistoryFailure, ALockedDatabaseIsWaitedFor) {
  dump({"a"});
  {
    const auto other = changed("BEGIN IMMEDIATE");
    expect_refusal(keep(in_haste(100)), "another program keeps the history locked");
    EXPECT_EQ(1U, links().size());
  }
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

TEST_F(HistoryFailure, AReadOnlyDatabaseIsWaitedFor) {
  dump({"a"});
  ASSERT_EQ(0, mount(kFolder, kFolder, nullptr, MS_BIND, nullptr));
  ASSERT_EQ(0, mount(nullptr, kFolder, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr));
  expect_refusal(keep(), "Read-only file system");
  EXPECT_EQ(1U, links().size());
  ASSERT_EQ(0, umount(kFolder));
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

TEST_F(HistoryFailure, ANewerDatabaseIsLeftAlone) {
  dump({"a"});
  changed("PRAGMA user_version = 99");
  expect_refusal(keep(), "the history is of a newer version");
  EXPECT_EQ(1U, links().size());
  EXPECT_TRUE(set_aside().empty());
  changed("PRAGMA user_version = 2");
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

TEST_F(HistoryFailure, AForeignDatabaseIsLeftAlone) {
  remove_all(kFolder);
  make_dirs(kFolder);
  changed("CREATE TABLE recipes (name TEXT)");
  expect_refusal(keep(), "this is a database, but no history");
  changed("SELECT name FROM recipes");
}

TEST_F(HistoryFailure, AnEmptyFileBecomesTheDatabase) {
  remove_all(kFolder);
  make_dirs(kFolder);
  write_file(kDatabase, "");
  dump({"a"});
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

TEST_F(HistoryFailure, ADatabaseThatIsTakenAwayIsMadeAnew) {
  auto child = keeper(10);
  dump({"a"});
  ASSERT_TRUE(comes([] { return kept() == Paths{"a"}; }));
  for (const std::string& name : list(kFolder)) remove_all(std::string(kFolder) + "/" + name);
  dump({"b"});
  // The files that wait for the agent are taken again.
  ASSERT_TRUE(comes([] { return exists(kDatabase) && kept() == (Paths{"a", "b"}); }));
  EXPECT_EQ(0, stop(*child).exit_code);
}

TEST_F(HistoryFailure, AFullDiskKeepsTheLinksUntilThereIsRoom) {
  remove_all(kFolder);
  mount_small_disk(kFolder, 512 << 10);
  ASSERT_EQ(0, keep().exit_code);
  Paths sent;
  Outcome outcome;
  for (int round = 0; round < 50 && outcome.exit_code != 1; ++round) {
    Paths some;
    for (int i = 0; i < 40; ++i) {
      some.push_back(std::string(200, 'x') + std::to_string(round * 40 + i));
    }
    dump(some);
    sent.insert(sent.end(), some.begin(), some.end());
    outcome = keep();
  }
  expect_refusal(outcome, "the disk is full");
  EXPECT_FALSE(links().empty());
  ASSERT_EQ(0, mount("tmpfs", kFolder, "tmpfs", MS_REMOUNT, "size=64m"));
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(sent, kept());
  EXPECT_TRUE(links().empty());
}

// --- calls that fail -----------------------------------------------------------------------------

TEST_F(HistoryFailure, OfASyncLeavesTheRecordsToTheNextLook) {
  for (const char* call : {"fdatasync", "fsync"}) {
    dump({call});
    const Outcome outcome = keep(with_faults(std::string(call) + "@history.db:5:1:99"));
    if (reached().empty()) continue;  // SQLite uses one of the two
    EXPECT_EQ(1, outcome.exit_code) << call;
    EXPECT_EQ(1U, links().size()) << call;
  }
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"fdatasync", "fsync"}), kept());
}

TEST_F(HistoryFailure, OfALinksRemovalDoublesNothing) {
  dump({"a"});
  const Outcome outcome = keep(with_faults("unlink@events.staging:30:1:99"));
  EXPECT_TRUE(contains(reached(), "unlink"));
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "Read-only file system")) << outcome.err;
  EXPECT_EQ(Paths{"a"}, kept());
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

TEST_F(HistoryFailure, OfAReadLeavesTheOtherFilesToBeTaken) {
  dump({"a"});
  dump({"b"});
  const Outcome outcome = keep(with_faults("open@events.staging:5:1:1"));
  EXPECT_TRUE(contains(reached(), "open"));
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_EQ(Paths{"b"}, kept());
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"b", "a"}), kept());
}

TEST_F(HistoryFailure, OfSettingAsideKeepsTheDamagedFileInItsPlace) {
  dump({"a"});
  remove_all(kFolder);
  make_dirs(kFolder);
  write_file(kDatabase, std::string(8192, 'x'));
  EXPECT_EQ(1, keep(with_faults("rename@history.db.damaged:30:1:99")).exit_code);
  EXPECT_EQ(std::string(8192, 'x'), read_file(kDatabase));
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
}

TEST_F(HistoryFailure, OfTheFolderIsASentence) {
  remove_all(kLinks);
  const Outcome outcome = keep(with_faults("mkdir@history:28:1:99"));
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "/tavrix/.conf/history: No space left on device"))
      << outcome.err;
}

TEST_F(HistoryFailure, OfTheProgramsUserIsASentence) {
  const Outcome outcome = run_program({"setpriv", "--reuid", "1001", "--", kHistorian, "--once"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "run this as root")) << outcome.err;
}

}  // namespace
}  // namespace tavrix::test
