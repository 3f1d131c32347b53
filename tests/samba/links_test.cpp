// SPDX-License-Identifier: LGPL-3.0-or-later
// Hard links, symbolic links and special files are refused: a file has one name, and the tree holds
// only files and folders.

#include <sys/stat.h>

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class ClientsLinks : public WireClients {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    start_smbd();
  }
  static nlink_t names_of(const std::string& name) {
    struct stat st {};
    EXPECT_EQ(0, stat(full(name).c_str(), &st));
    return st.st_nlink;
  }
};

TEST_F(ClientsLinks, OfAFileAreRefusedInItsFolderAndElsewhere) {
  ASSERT_EQ(0, chown(full("Shared/Team/report.txt").c_str(), kAnna.uid, kAnna.gid));
  ASSERT_EQ(0, chmod(full("Shared").c_str(), 0777));
  ASSERT_EQ(0, chmod(full("Shared/Team").c_str(), 0777));
  ASSERT_EQ(0, chmod(full("Shared/Team/Docs").c_str(), 0777));
  EXPECT_EQ("STATUS_ACCESS_DENIED\nSTATUS_ACCESS_DENIED\n",
            wire(kAnna,
                 "h = me.open('Shared/Team/report.txt', READ | WRITE)\n"
                 "me.link(h, 'Shared/Team/other.txt')\n"
                 "me.link(h, 'Shared/Team/Docs/other.txt')\n"));
  EXPECT_EQ(1U, names_of("Shared/Team/report.txt"));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(ClientsLinks, ThatWouldReplaceAFileLeaveItThere) {
  for (const Caller& caller : {kAnna, kBen}) {
    EXPECT_EQ("STATUS_ACCESS_DENIED\n", wire(caller,
                                             "h = me.open('Shared/Team/report.txt')\n"
                                             "me.link(h, 'Shared/Team/Docs/plan.txt', True)\n"));
  }
  EXPECT_EQ("content\n", read_file(full("Shared/Team/Docs/plan.txt")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(ClientsLinks, OfAFileAreRefusedToAdministratorsToo) {
  EXPECT_EQ("STATUS_ACCESS_DENIED\n",
            wire(kAdministrator,
                 "me.link(me.open('Shared/Team/report.txt', READ | WRITE), 'Shared/Team/o')"));
  EXPECT_FALSE(exists(full("Shared/Team/o")));
}

// The Unix extensions of SMB1, switched on by an administrator.
TEST_F(ClientsLinks, AndDevicesAreRefusedToTheOldestDialect) {
  stop_smbd();
  configure({"tavrix:allow smb1 = yes"});
  bash(
      "sed -i '/^\\[global\\]/a server min protocol = NT1\\nclient min protocol = NT1' "
      "/scratch/samba/smb.conf");
  start_smbd();
  ASSERT_EQ(0, chmod(full("Shared").c_str(), 0777));
  ASSERT_EQ(0, chmod(full("Shared/Team").c_str(), 0777));
  const Outcome outcome =
      run_program({"smbclient", "-s", "/scratch/samba/smb.conf", "-m", "NT1", "//127.0.0.1/tavrix",
                   "-U", "Anna%Anna", "-c",
                   "posix; cd Shared/Team; symlink report.txt soft; link report.txt hard; "
                   "mkfifo pipe; hardlink report.txt hard2"});
  for (const char* name : {"soft", "hard", "pipe", "hard2"}) {
    EXPECT_FALSE(exists(full(std::string("Shared/Team/") + name))) << outcome.out;
  }
  EXPECT_EQ(1U, names_of("Shared/Team/report.txt")) << outcome.out;
  EXPECT_EQ(Lines{}, new_events());
}

}  // namespace
}  // namespace tavrix::test
