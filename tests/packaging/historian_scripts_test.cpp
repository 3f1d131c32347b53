// SPDX-License-Identifier: LGPL-3.0-or-later
// The maintainer scripts of the historian's package, in a private world.

#include <sys/mount.h>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class HistorianScripts : public Isolated {
 protected:
  static constexpr const char* kLinks = "/tavrix/.conf/history";
  static constexpr const char* kHistory = "/var/lib/tavrix/history";

  void SetUp() override {
    Isolated::SetUp();
    ASSERT_EQ(0, mount("tmpfs", "/var/lib", "tmpfs", 0, nullptr));
    make_dirs(kHistory);
    write_file(std::string(kHistory) + "/history.db", "records");
    make_dirs("/var/lib/tavrix/maps");
    make_dirs("/tavrix/.conf/staging");
    write_file("/tavrix/.conf/staging/pending_1", "x");
    make_dirs(std::string(kLinks) + "/refused");
    write_file("/tavrix/.conf/historian.running", "");
  }
  static Outcome run(const char* package, const char* action) {
    return run_program(
        {"sh", std::string(TAVRIX_SOURCE_DIR "/debian/") + package + ".postrm", action});
  }
};

TEST_F(HistorianScripts, RemovingSwitchesTheHistoryOffAndKeepsIt) {
  write_file(std::string(kLinks) + "/events.pending_1", "x");
  write_file(std::string(kLinks) + "/audit.pending_1", "x");
  const Outcome outcome = run("tavrix-historian", "remove");
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ("tavrix-historian: 2 dump files were not taken into the history\n", outcome.err);
  EXPECT_FALSE(exists(kLinks));
  EXPECT_FALSE(exists("/tavrix/.conf/historian.running"));
  EXPECT_TRUE(exists(std::string(kHistory) + "/history.db"));
  EXPECT_TRUE(exists("/tavrix/.conf/staging/pending_1"));
}

TEST_F(HistorianScripts, RemovingKeepsRefusedFiles) {
  write_file(std::string(kLinks) + "/refused/events.x", "x");
  EXPECT_EQ("", run("tavrix-historian", "remove").err);
  EXPECT_TRUE(exists(std::string(kLinks) + "/refused/events.x"));
  EXPECT_EQ(0, run("tavrix-historian", "purge").exit_code);
  EXPECT_FALSE(exists(kLinks));
}

TEST_F(HistorianScripts, PurgingRemovesTheHistoryAndNothingElse) {
  EXPECT_EQ(0, run("tavrix-historian", "remove").exit_code);
  EXPECT_EQ(0, run("tavrix-historian", "purge").exit_code);
  EXPECT_FALSE(exists(kHistory));
  EXPECT_TRUE(exists("/var/lib/tavrix/maps"));
  EXPECT_TRUE(exists("/tavrix/.conf/staging/pending_1"));
}

TEST_F(HistorianScripts, AnUpgradeChangesNothing) {
  EXPECT_EQ(0, run("tavrix-historian", "upgrade").exit_code);
  EXPECT_TRUE(exists(kLinks));
  EXPECT_TRUE(exists("/tavrix/.conf/historian.running"));
}

TEST_F(HistorianScripts, PurgingTheToolsKeepsTheHistory) {
  EXPECT_EQ(0, run("tavrix-tools", "purge").exit_code);
  EXPECT_TRUE(exists(std::string(kHistory) + "/history.db"));
  EXPECT_FALSE(exists("/var/lib/tavrix/maps"));
}

}  // namespace
}  // namespace tavrix::test
