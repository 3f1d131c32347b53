// SPDX-License-Identifier: LGPL-3.0-or-later
// Names in other letter case, on a share that ignores case.

#include <algorithm>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

using Names = std::set<std::string>;

class Letters : public Appliance, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    write_file("/scratch/data.txt", "some data\n");
    configure({});
    bash(std::string("sed -i 's|case sensitive = yes|case sensitive = ") + GetParam() +
         "|' /scratch/samba/smb.conf");
    start_smbd();
  }
};

TEST_P(Letters, DoNotMatterToTheOwnerOfAPrivateFolder) {
  EXPECT_EQ((Names{"diary.txt", "notes"}), listing("Pat", "PRIVATE\\PAT"));
  for (const char* commands :
       {"get private\\Pat\\DIARY.TXT /scratch/got", "put /scratch/data.txt PRIVATE\\PAT\\New.txt",
        "put /scratch/data.txt private\\pAT\\new.txt", "mkdir PRIVATE\\Pat\\Folder",
        "rename PRIVATE\\PAT\\NEW.TXT private\\PAT\\FOLDER\\moved.txt",
        "allinfo PRIVATE\\PAT\\folder\\MOVED.txt", "setmode PRIVATE\\PAT\\folder\\MOVED.txt +h",
        "rm PRIVATE\\PAT\\FOLDER\\MOVED.TXT", "rmdir PRIVATE\\PAT\\FOLDER",
        "cd PRIVATE; cd PAT; ls"}) {
    EXPECT_TRUE(succeeded(smb("Pat", commands))) << commands;
  }
  EXPECT_EQ("content\n", read_file("/scratch/got"));
  const Lines told = new_events();
  const auto is_made = [](const std::string& line) { return !line.starts_with("OPEN "); };
  Lines made;
  std::ranges::copy_if(told, std::back_inserter(made), is_made);
  EXPECT_EQ((Lines{"CREATE Private/pat/New.txt", "MKDIR Private/pat/Folder",
                   "RENAME Private/pat/New.txt -> Private/pat/Folder/moved.txt",
                   "UNLINK Private/pat/Folder/moved.txt", "RMDIR Private/pat/Folder"}),
            made);
}

TEST_P(Letters, OpenNobodyElsesPrivateFolder) {
  for (const char* commands :
       {"get PRIVATE\\PAT\\diary.txt /scratch/got", "get Private\\PAT\\DIARY.TXT /scratch/got",
        "ls PRIVATE\\PAT\\*", "put /scratch/data.txt PRIVATE\\PAT\\x", "mkdir private\\PAT\\x",
        "rm PRIVATE\\PAT\\DIARY.TXT", "allinfo private\\pat\\diary.txt"}) {
    EXPECT_FALSE(succeeded(smb("Olga", commands))) << commands;
  }
  EXPECT_FALSE(exists("/scratch/got"));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_P(Letters, DoNotUnlockWhatMustStay) {
  remove_all(full("Private/pat/notes"));
  remove_all(full("Private/pat/diary.txt"));
  make_folder("Shared/Team/Stays");
  mark_fixed("Shared/Team/Stays");
  for (const char* user : {"Pat", "Anna"}) {
    for (const char* commands :
         {"rmdir PRIVATE\\PAT", "rename PRIVATE\\PAT PRIVATE\\other", "rmdir PRIVATE",
          "rename PRIVATE Elsewhere", "rename private Private2", "rmdir SHARED\\TEAM\\STAYS",
          "rename SHARED\\team\\STAYS shared\\TEAM\\goes", "mkdir PRIVATE\\OLGA\\x"}) {
      EXPECT_FALSE(succeeded(smb(user, commands))) << user << " " << commands;
    }
  }
  EXPECT_FALSE(succeeded(smb("Administrator", "rmdir PRIVATE\\PAT")));
  EXPECT_TRUE(exists(full("Private/pat")));
  EXPECT_TRUE(exists(full("Shared/Team/Stays")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_P(Letters, OfTheSharedAreaDoNotMatter) {
  EXPECT_TRUE(succeeded(smb("Anna", "put /scratch/data.txt SHARED\\TEAM\\docs\\NEW.txt")));
  EXPECT_EQ("CREATE Shared/Team/Docs/NEW.txt", new_events().at(0));
  EXPECT_TRUE(succeeded(smb("Ben", "get shared\\team\\DOCS\\new.TXT /scratch/got")));
  EXPECT_FALSE(succeeded(smb("Ben", "put /scratch/data.txt SHARED\\TEAM\\docs\\other.txt")));
  EXPECT_FALSE(succeeded(smb("Ben", "ls SHARED\\CLOSED\\*")));
}

INSTANTIATE_TEST_SUITE_P(With, Letters, testing::Values("no", "auto"), [](const auto& instance) {
  return "CaseSensitive_" + std::string(instance.param);
});

}  // namespace
}  // namespace tavrix::test
