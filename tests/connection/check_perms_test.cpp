// SPDX-License-Identifier: LGPL-3.0-or-later
// The permission check of a connection, and the small translations beside it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "internal/scoped.hpp"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class CheckPerms : public Share {
 protected:
  void SetUp() override {
    Share::SetUp();
    record_ = std::make_unique<connection_private_data_s>();
    init_tlb(&cache());
    be(kAnna);
  }
  void TearDown() override { destroy_tlb(&cache()); }
  vfs_table_cache_s& cache() { return record_->vfs_table_cache; }
  void be(const Caller& caller) {
    groups_ = caller.groups;
    record_->groupmap = trustees_of({caller.name, caller.uid, caller.gid, groups_});
    record_->groupmap.gids = groups_.data();
  }
  e_vfs_enforce_perms check(const std::string& path, e_fsop_type op = FSOP_OPEN_WRITE) {
    return check_perms("/tavrix", path.c_str(), op, record_.get(), 0);
  }
  // Whether a check looked at the map.
  bool decides(const std::string& path, e_fsop_type op = FSOP_OPEN_WRITE) {
    reset_calls();
    check(path, op);
    return calls("shmat") > 0;
  }
  int level(const std::string& message, const std::string& path) {
    return level_of(message, [&] {
      destroy_tlb(&cache());
      check(path);
    });
  }

  std::unique_ptr<connection_private_data_s> record_;
  std::vector<gid_t> groups_;
};

TEST_F(CheckPerms, IsTheDecision) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Team/report.txt"));
  be(kBen);
  destroy_tlb(&cache());
  EXPECT_EQ(TXPERMS_NO_PERM, check("Shared/Team/report.txt"));
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Team/report.txt", FSOP_OPEN_READ));
}

TEST_F(CheckPerms, AnswersTheSecondTimeFromItsCache) {
  EXPECT_TRUE(decides("Shared/Team/report.txt"));
  EXPECT_FALSE(decides("Shared/Team/report.txt"));
  EXPECT_FALSE(decides("Shared//Team/./report.txt"));
  EXPECT_TRUE(decides("Shared/Team/report.txt", FSOP_UNLINK));
  EXPECT_FALSE(decides("Shared/Team/report.txt", FSOP_UNLINK));
}

TEST_F(CheckPerms, MakesNoSystemCallAndOneAllocationFromItsCache) {
  check("Shared/Team/report.txt");
  reset_calls();
  const long before = allocations();
  check("Shared/Team/report.txt");
  EXPECT_EQ(1, allocations() - before);
  for (const char* call :
       {"stat", "semget", "semctl", "shmget", "shmat", "seteuid", "getresuid", "ftok"}) {
    EXPECT_EQ(0, calls(call)) << call;
  }
}

TEST_F(CheckPerms, RemembersRefusals) {
  be(kBen);
  EXPECT_EQ(TXPERMS_NO_PERM, check("Shared/Team/report.txt"));
  EXPECT_FALSE(decides("Shared/Team/report.txt"));
}

TEST_F(CheckPerms, RemembersNoErrorsAndNoStandardUsers) {
  be(kStandardUser);
  EXPECT_EQ(TXPERMS_STANDARD_USER, check("Shared/Team/report.txt"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
  be(kAnna);
  remove_all("/etc/tavrix/.permbe_map");
  EXPECT_EQ(TXPERMS_SYSTEM_ERR, check("Shared/Team/report.txt"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
}

TEST_F(CheckPerms, RefusesComputersWithoutALook) {
  record_->groupmap.is_computer_acct = 1;
  record_->reserved_user = 1;
  reset_calls();
  EXPECT_EQ(TXPERMS_NO_PERM, check("Shared/Team/report.txt"));
  EXPECT_EQ(TXPERMS_NO_PERM, check(""));
  EXPECT_EQ(0, calls("stat"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
  EXPECT_EQ(10, level_of("tavrix_check_perms TXPERMS_NO_PERM\n", [this] { check("x"); }));
}

TEST_F(CheckPerms, GrantsTheReservedUserEverythingAndRemembersIt) {
  be(kStandardUser);
  record_->reserved_user = 1;
  EXPECT_FALSE(decides("Shared/Closed/x"));
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Closed/x"));
  record_->reserved_user = 0;
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Closed/x"));
  EXPECT_EQ(TXPERMS_STANDARD_USER, check("Shared/Closed/y"));
}

TEST_F(CheckPerms, GrantsAPathThatClimbs) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("../etc"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
  EXPECT_EQ(
      10, level("returning HAS_PERMS, path normalization returned an unusable path ../etc: No such "
                "file or directory\n",
                "../etc"));
}

TEST_F(CheckPerms, WithoutMemoryIsAnError) {
  fail_call("malloc", ENOMEM);
  EXPECT_EQ(TXPERMS_MALLOC_ERR, check("Shared/x"));
  const auto attempt = [this] {
    fail_call("malloc", ENOMEM);
    check("Shared/x");
  };
  EXPECT_EQ(0, level_of("path normalization failed Shared/x: Cannot allocate memory\n", attempt));
}

TEST_F(CheckPerms, IsTold) {
  const std::string path = "Shared/Team/report.txt";
  EXPECT_EQ(1, level("Calling vfs_enforce_perms path=(" + path + ") op=(3), full_path=[/tavrix/" +
                         path + "]\n",
                     path));
  EXPECT_EQ(10, level("tavrix_check_perms: vfs_enforce_perms retval=3\n", path));
  EXPECT_EQ(10, level("TLB: Adding entry for " + path + ", op 3, perms 3, slot -1\n", path));
  check(path);
  EXPECT_EQ(10, level_of("TLB: Cache hit for " + path + ", op 3, perms 3, slot 0\n",
                         [&] { check(path); }));
  EXPECT_EQ(10, level_of("TLB: Updating entry for " + path + ", op 16, perms 3, slot 0\n", [&] {
              destroy_tlb(&cache());
              check(path);
              check(path, FSOP_STAT);
            }));
}

TEST_F(CheckPerms, IsFlushedWithTheIdentity) {
  check("Shared/Team/report.txt");
  cache().flush_tlb = 21;
  EXPECT_TRUE(decides("Shared/Team/report.txt"));
}

TEST_F(CheckPerms, LeavesNothingButTheCacheOnTheHeap) {
  check("Shared/Team/report.txt");
  destroy_tlb(&cache());
  const long blocks = live_allocations();
  check("Shared/Team/report.txt");
  check("../x");
  record_->reserved_user = 1;
  check("a");
  destroy_tlb(&cache());
  EXPECT_EQ(blocks, live_allocations());
}

// --- paths ---------------------------------------------------------------------------------------

std::string taken(char* text) {
  const CString owner(text);
  return text == nullptr ? "(null)" : text;
}

TEST(FullPath, IsBothWithASlash) {
  EXPECT_EQ("/tavrix/a/b", taken(get_full_path("/tavrix", "a/b")));
  EXPECT_EQ("/tavrix//a", taken(get_full_path("/tavrix", "/a")));
  EXPECT_EQ("//", taken(get_full_path("/", "")));
}

TEST(FullPath, NeedsBoth) {
  EXPECT_EQ(0, level_of("dirname (NULL) or basename (a) is NULL\n",
                        [] { EXPECT_EQ(nullptr, get_full_path(nullptr, "a")); }));
  EXPECT_EQ(0, level_of("dirname (a) or basename (NULL) is NULL\n",
                        [] { EXPECT_EQ(nullptr, get_full_path("a", nullptr)); }));
  const auto attempt = [] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(nullptr, get_full_path("a", "b"));
  };
  EXPECT_EQ(0, level_of("calloc failed. errno = 12(Cannot allocate memory)\n", attempt));
}

TEST(ChildFromPath, IsTheLastComponent) {
  const std::pair<const char*, const char*> rows[] = {
      {"a/b/c", "c"},  {"/a/b/", "b"}, {"a", "a"},   {"a/b", "b"},    {"/a", "a"},
      {"a/b///", "b"}, {"", ""},       {"ab/", "b"}, {"abc//", "bc"},
  };
  for (const auto& [path, child] : rows) EXPECT_EQ(child, taken(child_from_path(path))) << path;
  EXPECT_EQ(nullptr, child_from_path(nullptr));
}

TEST(ChildFromPath, TakesOddPaths) {
  for (const char* path : {"/", "//", "///", "a/", "/a/"}) std::free(child_from_path(path));
}

TEST(IsDeleteable, ProtectsPrivateAndItsChildren) {
  EXPECT_EQ(0, is_deleteable("Private"));
  EXPECT_EQ(0, is_deleteable("Private/Docs"));
  EXPECT_EQ(1, is_deleteable("Private/Docs/a.txt"));
  EXPECT_EQ(1, is_deleteable("private/Docs"));
  EXPECT_EQ(1, is_deleteable("Public"));
  EXPECT_EQ(1, is_deleteable("Private/"));
  EXPECT_EQ(0, is_deleteable("Private/x"));
  EXPECT_EQ(1, is_deleteable("Privates"));
  EXPECT_EQ(1, is_deleteable(""));
  EXPECT_EQ(1, is_deleteable(nullptr));
  EXPECT_LE(level_of("is_deleteable:  path_to_delete=Private/x not allowed\n",
                     [] { is_deleteable("Private/x"); }),
            10);
}

TEST(IsAmove, ComparesTheParents) {
  EXPECT_EQ(0, is_amove("/a/b", "/a/c"));
  EXPECT_EQ(1, is_amove("/a/b", "/x/b"));
  EXPECT_EQ(0, is_amove("a", "b"));
  EXPECT_EQ(1, is_amove("a", "x/b"));
  EXPECT_EQ(0, is_amove("A/b", "a//c"));
  EXPECT_EQ(1, is_amove("/a/b/c", "/a/c"));
  EXPECT_EQ(1, is_amove("/a/b", "a/b"));
}

// A relative name has no root element: its first folder counts as every other.
TEST(IsAmove, ComparesEachFolderOfRelativeNames) {
  EXPECT_EQ(1, is_amove("a/b", "x/b"));
  EXPECT_EQ(0, is_amove("a/b", "a/c"));
  EXPECT_EQ(1, is_amove("a/b/c", "x/b/c"));
  EXPECT_EQ(1, is_amove("a/b/c", "a/x/c"));
  EXPECT_EQ(1, is_amove("Shared/Team/f", "Shared/Tear/f"));
  EXPECT_EQ(1, is_amove("Shared/Team/f", "Shared/f"));
  EXPECT_EQ(0, is_amove("Shared/TEAM/f", "shared/team/g"));
}

// By length and hash alone: names that differ only in extended bytes are taken for one.
TEST(IsAmove, TakesFoldersOfOneHashForOne) { EXPECT_EQ(0, is_amove("n\xc3\xa8/b", "n\xc3\xb6/b")); }

TEST(IsAmove, NeedsBothNames) {
  EXPECT_EQ(0, level_of("Invalid src or dest name, src NULL dst b\n",
                        [] { EXPECT_EQ(-1, is_amove(nullptr, "b")); }));
  EXPECT_EQ(0, level_of("Invalid src or dest name, src a dst NULL\n",
                        [] { EXPECT_EQ(-1, is_amove("a", nullptr)); }));
}

TEST(IsAmove, WithoutMemoryFailsAndLeavesNothing) {
  is_amove("/a/b", "/c/d");
  for (int nth = 1; nth < 16; ++nth) {
    const long blocks = live_allocations();
    clear_log();
    fail_call("malloc", ENOMEM, nth);
    const int result = is_amove("/a/b", "/c/d");
    EXPECT_TRUE(result == -1 ? !messages().empty() : result == 1) << nth;
    EXPECT_EQ(blocks, live_allocations()) << nth;
  }
  fail_call("malloc", ENOMEM, 1);
  clear_log();
  EXPECT_EQ(-1, is_amove("/a/b", "/c/d"));
  EXPECT_TRUE(logged("Invalid parent src /a/b\n"));
}

// --- operations ----------------------------------------------------------------------------------

TEST(OpenMode, FollowsTheFirstFlagThatSays) {
  const std::pair<int, e_open_mode> rows[] = {
      {O_RDONLY, OPENMODE_READ},
      {O_WRONLY, OPENMODE_WRITE},
      {O_RDWR, OPENMODE_WRITE},
      {O_APPEND, OPENMODE_WRITE},
      {O_CREAT, OPENMODE_CREATE},
      {O_CREAT | O_RDWR, OPENMODE_CREATE},
      {O_CREAT | O_EXCL, OPENMODE_CREATE},
      {O_TRUNC, OPENMODE_WRITE},
      {O_TRUNC | O_CREAT | O_WRONLY, OPENMODE_WRITE},
      {O_DIRECTORY, OPENMODE_READ},
  };
  for (const auto& [flags, mode] : rows) EXPECT_EQ(mode, mode2tavrixmode(flags)) << flags;
  EXPECT_EQ(10, level_of("mode2tavrixmode O_TRUNC set returning OPENMODE_WRITE\n",
                         [] { mode2tavrixmode(O_TRUNC); }));
}

constexpr auto kPresetOp = FSOP_CHOWN;
constexpr auto kPresetMode = OPENMODE_CHATTR;

struct CreateRow {
  uint32_t disposition;
  int exists;
  int write;
  e_open_mode mode;
  e_fsop_type op;
  const char* tail;  // null: no trace
};

const CreateRow kCreateRows[] = {
    {0, 1, 0, OPENMODE_WRITE, FSOP_OPEN_WRITE,
     "FILE_SUPERSEDE setting FSP_OP=FSOP_WRITE as file exists and write is requested"},
    {0, 1, 1, OPENMODE_WRITE, FSOP_OPEN_WRITE,
     "FILE_SUPERSEDE setting FSP_OP=FSOP_WRITE as file exists and write is requested"},
    {0, 0, 0, OPENMODE_WRITE, FSOP_CREATE,
     "FILE_SUPERSEDE setting FSP_OP=FSOP_CREATE as file does not exist."},
    {1, 1, 0, OPENMODE_READ, FSOP_OPEN_READ, "FILE_READ  setting FSP_OP=FSOP_OPEN_READ"},
    {1, 0, 0, OPENMODE_READ, FSOP_OPEN_READ, "FILE_READ  setting FSP_OP=FSOP_OPEN_READ"},
    {1, 1, 1, OPENMODE_WRITE, FSOP_OPEN_WRITE, "FILE_OPEN  setting FSP_OP=FSOP_OPEN_WRITE"},
    {2, 1, 0, OPENMODE_WRITE, FSOP_CREATE, "FILE_CREATE setting FSP_OP=FSOP_CREATE"},
    {2, 0, 1, OPENMODE_WRITE, FSOP_CREATE, "FILE_CREATE setting FSP_OP=FSOP_CREATE"},
    {3, 1, 0, OPENMODE_WRITE, FSOP_OPEN_WRITE,
     "FILE_OPEN_IF setting FSP_OP=FSOP_WRITE as file exists and write is requested"},
    {3, 0, 0, OPENMODE_WRITE, FSOP_CREATE,
     "FILE_OPEN_IF setting FSP_OP=FSOP_CREATE as file does not exist."},
    {4, 1, 0, OPENMODE_WRITE, FSOP_OPEN_WRITE,
     "FILE_OVERWRITE setting FSP_OP=FSOP_WRITE as file exists and write is requested"},
    {4, 0, 0, OPENMODE_WRITE, kPresetOp, nullptr},
    {5, 1, 0, OPENMODE_WRITE, FSOP_OPEN_WRITE,
     "FILE_OVERWRITE_IF setting FSP_OP=FSOP_WRITE as file exists and write is requested"},
    {5, 0, 0, OPENMODE_WRITE, FSOP_CREATE,
     "FILE_OPEN_IF setting FSP_OP=FSOP_CREATE as file does not exist."},
    {6, 1, 1, kPresetMode, kPresetOp, nullptr},
    {0xFFFFFFFF, 0, 0, kPresetMode, kPresetOp, nullptr},
};

TEST(CreateRequest, FollowsItsTable) {
  for (const CreateRow& row : kCreateRows) {
    e_fsop_type op = kPresetOp;
    e_open_mode mode = kPresetMode;
    _get_op_create_file("p", row.disposition, 0x40, row.exists, row.write, &op, &mode);
    EXPECT_EQ(row.op, op) << row.disposition << row.exists << row.write;
    EXPECT_EQ(row.mode, mode) << row.disposition << row.exists << row.write;
  }
}

TEST(CreateRequest, IsTraced) {
  for (const CreateRow& row : kCreateRows) {
    e_fsop_type op = kPresetOp;
    e_open_mode mode = kPresetMode;
    set_debug_level(5);
    clear_log();
    _get_op_create_file("some/path", row.disposition, 0x40, row.exists, row.write, &op, &mode);
    if (row.tail == nullptr) {
      EXPECT_TRUE(messages().empty());
      continue;
    }
    ASSERT_EQ(1U, messages().size());
    const std::string start =
        "tavrix:_get_op_create_file ENTRY path=some/path is file create_disposition=0x";
    EXPECT_TRUE(messages()[0].starts_with(start)) << messages()[0];
    EXPECT_NE(std::string::npos, messages()[0].find(" create_options=0x40got ")) << messages()[0];
    EXPECT_NE(std::string::npos, messages()[0].find(row.tail)) << messages()[0];
  }
}

}  // namespace
}  // namespace tavrix::test
