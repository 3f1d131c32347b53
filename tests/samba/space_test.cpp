// SPDX-License-Identifier: LGPL-3.0-or-later
// The free space that clients see.

#include <sys/statvfs.h>
#include <regex>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

struct Space {
  uint64_t size = 0;  // bytes
  uint64_t free = 0;
  bool operator==(const Space&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Space& space) {
  return out << space.size << " bytes, " << space.free << " free";
}

class FreeSpace : public Appliance {
 protected:
  // A separate disk below the tree, so that nothing else changes its free space.
  void SetUp() override {
    Appliance::SetUp();
    mount_small_disk("/tavrix/Shared/Team/Docs", 8 << 20);
    ASSERT_EQ(0, chmod("/tavrix/Shared/Team/Docs", 0700));
  }
  // The free space in the last line of a listing.
  static Space told_to(const Caller& caller, const std::string& folder) {
    const std::string said = smb(caller, "cd \"" + folder + "\\\"; ls");
    std::smatch part;
    const std::regex line("(\\d+) blocks of size (\\d+)\\. (\\d+) blocks available");
    if (!std::regex_search(said, part, line)) {
      ADD_FAILURE() << said;
      return {};
    }
    const uint64_t block = std::stoull(part[2]);
    return {std::stoull(part[1]) * block, std::stoull(part[3]) * block};
  }
  static Space on_disk(const std::string& folder) {
    struct statvfs status {};
    EXPECT_EQ(0, statvfs(folder.c_str(), &status)) << folder;
    return {status.f_blocks * status.f_frsize, status.f_bavail * status.f_frsize};
  }
  // The quota command of the server: quotas are on, and one user has one.
  static void give_quota_to(uid_t user) {
    write_file("/scratch/quota", R"(#!/bin/sh
echo "$@" >>/scratch/asked
case "$2 $3" in
"1 -1" | "2 )" + std::to_string(user) +
                                     R"(") echo 2 1000 5000 6000 0 0 0 1024 ;;
*) exit 1 ;;
esac
)");
    ASSERT_EQ(0, chmod("/scratch/quota", 0755));
    bash(
        "sed -i 's|^\\[global\\]|&\\n  get quota command = /scratch/quota|' "
        "/scratch/samba/smb.conf");
  }
};

TEST_F(FreeSpace, IsTheDisksForEverybodyInEveryFolder) {
  start_smbd();
  const Space disk = on_disk("/tavrix/Shared/Team/Docs");
  for (const Caller& caller : {kAdministrator, kAnna, kBen}) {
    EXPECT_EQ(disk, told_to(caller, "Shared\\Team\\Docs")) << caller.name;
    EXPECT_EQ(on_disk("/tavrix").size, told_to(caller, "").size) << caller.name;
    EXPECT_EQ(on_disk("/tavrix").size, told_to(caller, "Shared\\Team").size) << caller.name;
  }
  EXPECT_EQ(on_disk("/tavrix").size, told_to(kBen, "Shared\\Team\\Gallery").size) << "a viewer";
  EXPECT_EQ(on_disk("/tavrix").size, told_to(kStandardUser, "").size);
}

TEST_F(FreeSpace, ShrinksWithWhatIsPut) {
  start_smbd();
  write_file("/scratch/data", std::string(1 << 20, 'x'));
  const Space before = told_to(kAnna, "Shared\\Team\\Docs");
  EXPECT_TRUE(succeeded(smb(kAnna, "cd Shared\\Team\\Docs; put /scratch/data big")));
  EXPECT_EQ(before.free - (1 << 20), told_to(kBen, "Shared\\Team\\Docs").free);
}

TEST_F(FreeSpace, LeavesNoErrorOfTheServer) {
  start_smbd();
  for (const Caller& caller : {kAdministrator, kAnna, kBen, kOlga, kPat, kStandardUser}) {
    smb(caller, "ls; volume; du; cd Shared; ls; cd Team; ls; du; cd Docs; ls; du; volume");
    smb(caller, "cd Private\\pat; ls; du; cd notes; ls; volume");
  }
  EXPECT_EQ(std::string::npos, smbd_log().find("sys_path_to_bdev")) << smbd_log();
  EXPECT_EQ(std::string::npos, smbd_log().find("disk_free failed")) << smbd_log();
}

TEST_F(FreeSpace, IsBoundedByTheQuotaOfWhomFilesBelongTo) {
  global_params[PARAM_DEFAULT_USER_ID].value.intval = 65534;
  share_settings();
  give_quota_to(65534);
  start_smbd();
  EXPECT_EQ((Space{5000 * 1024, 4000 * 1024}), told_to(kAnna, "Shared\\Team\\Docs"))
      << read_file("/scratch/asked");
}

TEST_F(FreeSpace, IsBoundedByTheClientsQuotaWhereFilesAreTheClients) {
  give_quota_to(kAnna.uid);
  start_smbd();
  EXPECT_EQ((Space{5000 * 1024, 4000 * 1024}), told_to(kAnna, "Shared\\Team\\Docs"))
      << read_file("/scratch/asked");
  EXPECT_EQ(on_disk("/tavrix/Shared/Team/Docs"), told_to(kBen, "Shared\\Team\\Docs"));
}

}  // namespace
}  // namespace tavrix::test
