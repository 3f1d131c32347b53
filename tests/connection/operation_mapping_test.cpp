// SPDX-License-Identifier: LGPL-3.0-or-later
// Open modes, create requests, renames and moves in the terms of the decision.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <cerrno>

#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

TEST(IsAmove, ComparesTheParents) {
  EXPECT_EQ(0, is_amove("/a/b", "/a/c"));
  EXPECT_EQ(1, is_amove("/a/b", "/x/b"));
  EXPECT_EQ(0, is_amove("a", "b"));
  EXPECT_EQ(1, is_amove("a", "x/b"));
  EXPECT_EQ(0, is_amove("A/b", "a//c"));
  EXPECT_EQ(1, is_amove("/a/b/c", "/a/c"));
  EXPECT_EQ(1, is_amove("/a/b", "a/b"));
}

// A relative name has no root element: its first folder counts like every other one.
TEST(IsAmove, ComparesEachFolderOfRelativeNames) {
  EXPECT_EQ(1, is_amove("a/b", "x/b"));
  EXPECT_EQ(0, is_amove("a/b", "a/c"));
  EXPECT_EQ(1, is_amove("a/b/c", "x/b/c"));
  EXPECT_EQ(1, is_amove("a/b/c", "a/x/c"));
  EXPECT_EQ(1, is_amove("Shared/Team/f", "Shared/Tear/f"));
  EXPECT_EQ(1, is_amove("Shared/Team/f", "Shared/f"));
  EXPECT_EQ(0, is_amove("Shared/TEAM/f", "shared/team/g"));
}

// Folders are compared by length and hash: names that differ only in extended bytes count as one.
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
  const char* tail;  // null: there is no trace
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
