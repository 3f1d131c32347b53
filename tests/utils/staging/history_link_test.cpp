// SPDX-License-Identifier: LGPL-3.0-or-later
// The second names of dump files. A kill between the two names is tested with the sweeper, in
// tests/tools/stranded_test.cpp.

#include "utils/staging/history_link.hpp"

#include <sys/mount.h>
#include <sys/stat.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

using Names = std::vector<std::string>;

class HistoryLink : public Staging {
 protected:
  static constexpr const char* kHistory = TAVRIX_HISTORY_FOLDER;
  static constexpr const char* kFile = "/scratch/staging/txtempAbCdEf";

  void SetUp() override {
    Staging::SetUp();
    make_dirs(kHistory);
    write_file(kFile, "one");
  }
  static void link_file() {
    link_for_history(kFile, HistoryKind::kEvents, "/scratch/staging/pending_1_2.000003");
  }
  static std::string linked(const std::string& name) {
    return read_file(std::string(kHistory) + "/" + name);
  }
};

TEST_F(HistoryLink, HasTheKindTheFolderAndTheNameOfTheDump) {
  link_file();
  link_for_history(kFile, HistoryKind::kAudit, "pending_1_2.000003");
  EXPECT_EQ((Names{"audit.pending_1_2.000003", "events.staging.pending_1_2.000003"}),
            list(kHistory));
  EXPECT_EQ("one", linked("events.staging.pending_1_2.000003"));
}

// The name of a folder that may be a node's is short; a longer one could make the link's too long.
TEST_F(HistoryLink, LeavesOutANameThatNoFolderOfANodeHas) {
  const std::string longest(64, 'n');
  for (const std::string& folder : {"/" + longest, longest, "/" + longest + "n", std::string("/"),
                                    std::string("/scratch/"), std::string()}) {
    const std::string dump = folder + "/pending_1_2.000003";
    remove_all(kHistory);
    make_dirs(kHistory);
    link_for_history(kFile, HistoryKind::kEvents, dump.c_str());
    const bool is_named = folder.ends_with(longest) && folder.size() <= longest.size() + 1;
    const std::string name = is_named ? longest + "." : "";
    EXPECT_EQ(Names{"events." + name + "pending_1_2.000003"}, list(kHistory)) << folder;
  }
}

TEST_F(HistoryLink, NeverReplacesAnotherFile) {
  link_file();
  for (const char* content : {"two", "three"}) {
    remove_all(kFile);
    write_file(kFile, content);
    link_file();
  }
  EXPECT_EQ("one", linked("events.staging.pending_1_2.000003"));
  EXPECT_EQ("two", linked("events.staging.pending_1_2.000003.1"));
  EXPECT_EQ("three", linked("events.staging.pending_1_2.000003.2"));
}

TEST_F(HistoryLink, IsNotMadeTwiceUnderOneName) {
  link_file();
  link_file();
  EXPECT_EQ(1U, list(kHistory).size());
}

TEST_F(HistoryLink, IsLeftOutQuietlyWithoutTheFolder) {
  remove_all(kHistory);
  clear_log();
  set_debug_level(9);
  errno = EIO;
  reset_calls();
  link_file();
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(1, calls("link"));
  EXPECT_TRUE(messages().empty());
}

TEST_F(HistoryLink, ThatCannotBeMadeIsLoggedOnce) {
  const std::string message =
      std::string("cannot link ") + kFile + " to " + kHistory +
      "/events.staging.pending_1_2.000003 for the history. errno = 28(No space "
      "left on device)";
  EXPECT_EQ(0, level_of(message, [] {
              fail_call("link", ENOSPC);
              link_file();
            }));
  EXPECT_EQ(1, times_logged(message));
}

// --- in a flush ----------------------------------------------------------------------------------

TEST_F(HistoryLink, OfAFlushIsMadeBetweenTheEmptyBufferAndTheName) {
  remove_all(kFile);
  append("x");
  run_before("link", [] { EXPECT_EQ(0U, header().num_records); });
  run_before("rename", [] { EXPECT_EQ(1U, list(kHistory).size()); });
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  ASSERT_EQ(1U, dumps().size());
  EXPECT_EQ(Names{"events.staging." + dumps().at(0)}, list(kHistory));
  EXPECT_EQ(Names{"x"}, payloads_of(linked(list(kHistory).at(0))));
}

TEST_F(HistoryLink, CostsAFlushOneCall) {
  for (const bool has_folder : {true, false}) {
    if (!has_folder) remove_all(kHistory);
    append("x");
    reset_calls();
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
    EXPECT_EQ(1, calls("link")) << has_folder;
  }
  reset_calls();
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));  // of an empty buffer
  EXPECT_EQ(0, calls("link"));
}

TEST_F(HistoryLink, ThatFailsLeavesTheFlushAsItIs) {
  append("x");
  fail_call("link", EXDEV);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(Names{"x"}, dumped());
  EXPECT_TRUE(list(kHistory).empty());
  EXPECT_FALSE(exists(kSyncOff));
}

TEST_F(HistoryLink, ToAnotherFileSystemFailsAndLeavesTheFlushAsItIs) {
  ASSERT_EQ(0, mount("tmpfs", kHistory, "tmpfs", 0, nullptr));
  append("x");
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(Names{"x"}, dumped());
}

TEST_F(HistoryLink, IsMadeForAUserAsRoot) {
  remove_all(kFile);
  append("x");
  ASSERT_EQ(0, chmod(kHistory, 0700));
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_DISCON));
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
  EXPECT_EQ(1U, list(kHistory).size());
}

}  // namespace
}  // namespace tavrix::test
