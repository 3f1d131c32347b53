// SPDX-License-Identifier: LGPL-3.0-or-later
// Extended attributes of files and folders, on a real file system.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"
#include "vfs_common.h"

namespace tavrix::test {
namespace {

class Stamps : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    make_dirs("/scratch/folder");
    write_file("/scratch/file", "");
  }
  static void mark(const char* path, const std::string& value) {
    ASSERT_EQ(0, setxattr(path, "user.tavrix.fixed_folder", value.data(), value.size(), 0));
  }
  static std::string user_of(const char* path) {
    char value[256] = "";
    const ssize_t size = getxattr(path, "user.tavrix.last_smb_accessed_by", value, sizeof value);
    return size < 0 ? "(none)" : std::string(value, static_cast<std::size_t>(size));
  }
};

TEST_F(Stamps, HaveTheirNames) {
  EXPECT_STREQ("user.tavrix.fixed_folder", XATTR_FIXED_FOLDER);
  EXPECT_STREQ("user.tavrix.last_smb_accessed_by", XATTR_MODIFYING_USER);
}

TEST_F(Stamps, AnEmptyValueFixesAFolder) {
  EXPECT_EQ(NOT_FIXED_FOLDER, is_fixed_folder("/scratch/folder"));
  mark("/scratch/folder", "");
  EXPECT_EQ(FIXED_FOLDER, is_fixed_folder("/scratch/folder"));
}

TEST_F(Stamps, AnyOtherValueIsNoAnswer) {
  for (const char* value : {"1", "0", "yes, please"}) {
    mark("/scratch/folder", value);
    EXPECT_EQ(FOLDER_EACCES, is_fixed_folder("/scratch/folder")) << value;
  }
  EXPECT_EQ(FOLDER_EACCES, is_fixed_folder("/scratch/none"));
}

TEST_F(Stamps, AreTold) {
  EXPECT_EQ(1, level_of("is_fixed_folder : checking /scratch/folder for FF",
                        [] { is_fixed_folder("/scratch/folder"); }));
  EXPECT_EQ(1, level_of("is_fixed_folder : /scratch/folder is NOT a Fixed Folder",
                        [] { is_fixed_folder("/scratch/folder"); }));
  mark("/scratch/folder", "");
  EXPECT_EQ(1, level_of("is_fixed_folder : /scratch/folder is a Fixed Folder",
                        [] { is_fixed_folder("/scratch/folder"); }));
  EXPECT_EQ(
      0,
      level_of(
          "is_fixed_folder : failed to get xattr user.tavrix.fixed_folder of /scratch/none folder "
          "errno 2",
          [] { is_fixed_folder("/scratch/none"); }));
}

TEST_F(Stamps, AreReadAsRootForAUser) {
  mark("/scratch/folder", "");
  ASSERT_EQ(0, chmod("/scratch/folder", 0700));
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    const Ids before = ids_now();
    EXPECT_EQ(FIXED_FOLDER, is_fixed_folder("/scratch/folder"));
    EXPECT_EQ(0, set_xattr_modifying_user("/scratch/folder", "anna"));
    EXPECT_EQ(-1, set_xattr_modifying_user("/scratch/none", "anna"));
    EXPECT_TRUE(before == ids_now());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

TEST_F(Stamps, WithoutRootAreNoAnswer) {
  const auto ask = [] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(FOLDER_EACCES, is_fixed_folder("/scratch/folder"));
  };
  EXPECT_EQ(0, level_of("is_fixed_folder : failed to allocate perm_ctx", ask));
  const auto set = [] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(-1, set_xattr_modifying_user("/scratch/file", "anna"));
  };
  EXPECT_EQ(0, level_of("set_xattr_modifying_user failed to allocate perm_ctx", set));
}

TEST_F(Stamps, StampTheModifyingUserWithoutANul) {
  EXPECT_EQ(0, set_xattr_modifying_user("/scratch/file", "anna"));
  EXPECT_EQ("anna", user_of("/scratch/file"));
  EXPECT_EQ(0, set_xattr_modifying_user("/scratch/file", "benjamin"));
  EXPECT_EQ("benjamin", user_of("/scratch/file"));
}

TEST_F(Stamps, ReplaceFirst) {
  reset_calls();
  set_xattr_modifying_user("/scratch/file", "anna");
  EXPECT_EQ(2, calls("setxattr"));
  reset_calls();
  set_xattr_modifying_user("/scratch/file", "ben");
  EXPECT_EQ(1, calls("setxattr"));
}

TEST_F(Stamps, TellAFailedStamp) {
  EXPECT_EQ(
      0,
      level_of(
          "set_xattr_modifying_user username = [anna], path = [/scratch/none], res=[-1], errno=[2]",
          [] {
            errno = 0;
            EXPECT_EQ(-1, set_xattr_modifying_user("/scratch/none", "anna"));
            EXPECT_EQ(ENOENT, errno);
          }));
  fail_call("setxattr", ENOSPC);
  reset_calls();
  EXPECT_EQ(-1, set_xattr_modifying_user("/scratch/file", "anna"));
  EXPECT_EQ(1, calls("setxattr"));
  EXPECT_EQ(1, level_of("set_xattr_modifying_user username = [anna], path = [/scratch/file]",
                        [] { set_xattr_modifying_user("/scratch/file", "anna"); }));
}

}  // namespace
}  // namespace tavrix::test
