// SPDX-License-Identifier: LGPL-3.0-or-later
// Every command of smbclient: its answer, the disk afterwards, the owner, and the events.

#include <sys/stat.h>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

class Commands : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    write_file("/scratch/data.txt", "some data\n");
    start_smbd();
  }
  // In the folder of Anna's team.
  static std::string team(const Caller& caller, const std::string& commands) {
    return smb(caller, "cd Shared\\Team; " + commands);
  }
  static struct stat stat_of(const std::string& name) {
    struct stat st {};
    EXPECT_EQ(0, lstat(full(name).c_str(), &st)) << name;
    return st;
  }
};

TEST_F(Commands, PutOfANewFile) {
  const std::string said = team(kAnna, "put /scratch/data.txt new.txt");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_EQ(
      (Lines{"CREATE Shared/Team/new.txt", "OPEN Shared/Team/new.txt", "OPEN Shared/Team/new.txt"}),
      new_events())
      << "made, its times, its content";
  EXPECT_EQ("some data\n", read_file(full("Shared/Team/new.txt")));
  EXPECT_EQ("Anna", stamp_of("Shared/Team/new.txt"));
  EXPECT_EQ(kAnna.uid, stat_of("Shared/Team/new.txt").st_uid);
  EXPECT_EQ(kAnna.gid, stat_of("Shared/Team/new.txt").st_gid);
}

TEST_F(Commands, PutOverAFileOfSomebodyElse) {
  const struct stat before = stat_of("Shared/Team/report.txt");
  EXPECT_TRUE(succeeded(team(kAnna, "put /scratch/data.txt report.txt")));
  EXPECT_EQ((Lines{"OPEN Shared/Team/report.txt", "OPEN Shared/Team/report.txt"}), new_events());
  EXPECT_EQ("some data\n", read_file(full("Shared/Team/report.txt")));
  EXPECT_EQ(before.st_uid, stat_of("Shared/Team/report.txt").st_uid) << "its owner stays";
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
}

// The events say that the client wrote, and not which bytes.
TEST_F(Commands, ReputOfAFileThatIsThere) {
  write_file(full("Shared/Team/half.txt"), "some ");
  const std::string said = team(kAnna, "reput /scratch/data.txt half.txt");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_NE("some ", read_file(full("Shared/Team/half.txt")));
  for (const std::string& line : new_events()) EXPECT_EQ("OPEN Shared/Team/half.txt", line);
  EXPECT_EQ("Anna", stamp_of("Shared/Team/half.txt"));
  EXPECT_TRUE(denied(team(kBen, "reput /scratch/data.txt report.txt")));
}

TEST_F(Commands, PutIsRefusedToAReader) {
  EXPECT_TRUE(denied(team(kBen, "put /scratch/data.txt new.txt")));
  EXPECT_TRUE(denied(team(kBen, "put /scratch/data.txt report.txt")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ("content\n", read_file(full("Shared/Team/report.txt")));
  EXPECT_FALSE(exists(full("Shared/Team/new.txt")));
}

TEST_F(Commands, Get) {
  for (const Caller& caller : {kAdministrator, kAnna, kBen}) {
    const std::string said = team(caller, "get report.txt /scratch/got." + caller.name);
    EXPECT_TRUE(succeeded(said)) << said;
    EXPECT_EQ("content\n", read_file("/scratch/got." + caller.name));
  }
  EXPECT_FALSE(succeeded(team(kPat, "get report.txt /scratch/got.pat")));
  EXPECT_FALSE(succeeded(team(kStandardUser, "get report.txt /scratch/got.standard")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, Mkdir) {
  EXPECT_TRUE(succeeded(team(kAnna, "mkdir Folder; mkdir Folder\\Sub")));
  EXPECT_EQ((Lines{"MKDIR Shared/Team/Folder", "MKDIR Shared/Team/Folder/Sub"}), new_events());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/Folder/Sub"));
  EXPECT_EQ(kAnna.uid, stat_of("Shared/Team/Folder/Sub").st_uid);
  EXPECT_TRUE(denied(team(kBen, "mkdir Other")));
  EXPECT_TRUE(denied(smb(kAnna, "mkdir Top")));
  EXPECT_TRUE(denied(smb(kAnna, "mkdir Shared\\NewTeam")));
  EXPECT_TRUE(succeeded(smb(kAdministrator, "mkdir Shared\\NewTeam")));
  EXPECT_EQ((Lines{"MKDIR Shared/NewTeam"}), new_events());
}

TEST_F(Commands, RenameAndMove) {
  EXPECT_TRUE(succeeded(team(kAnna, "rename report.txt renamed.txt")));
  EXPECT_TRUE(succeeded(team(kAnna, "rename renamed.txt Docs\\moved.txt")));
  EXPECT_TRUE(succeeded(team(kAnna, "rename Docs Papers")));
  EXPECT_TRUE(succeeded(team(kAnna, "rename Papers\\Deep Deep")));
  EXPECT_EQ((Lines{"RENAME Shared/Team/report.txt -> Shared/Team/renamed.txt",
                   "RENAME Shared/Team/renamed.txt -> Shared/Team/Docs/moved.txt",
                   "RENAME Shared/Team/Docs -> Shared/Team/Papers",
                   "RENAME Shared/Team/Papers/Deep -> Shared/Team/Deep"}),
            new_events());
  EXPECT_TRUE(exists(full("Shared/Team/Papers/moved.txt")));
  EXPECT_EQ("Anna", stamp_of("Shared/Team/Papers/moved.txt"));
  EXPECT_TRUE(denied(team(kBen, "rename Papers Books")));
  EXPECT_TRUE(denied(smb(kAnna, "rename Shared\\Team\\Deep Shared\\Closed\\Deep")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, RmAndRmdir) {
  EXPECT_TRUE(denied(team(kBen, "rm report.txt")));
  EXPECT_TRUE(exists(full("Shared/Team/report.txt")));
  EXPECT_TRUE(succeeded(team(kAnna, "rm report.txt")));
  EXPECT_FALSE(exists(full("Shared/Team/report.txt")));
  EXPECT_TRUE(succeeded(team(kAnna, "rmdir NotInMap")));
  EXPECT_FALSE(exists(full("Shared/Team/NotInMap")));
  EXPECT_EQ((Lines{"UNLINK Shared/Team/report.txt", "RMDIR Shared/Team/NotInMap"}), new_events());
  EXPECT_FALSE(succeeded(team(kAnna, "rmdir Docs"))) << "not empty";
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, RmdirIsRefusedWithoutTheRightToDelete) {
  make_folder("Shared/Team/Drop/Old");
  EXPECT_FALSE(succeeded(smb(kAnna, "rmdir Shared\\Team\\Drop\\Old")));
  EXPECT_TRUE(exists(full("Shared/Team/Drop/Old")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, Deltree) {
  const std::string said = team(kAnna, "deltree Docs");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_FALSE(exists(full("Shared/Team/Docs")));
  const Lines told = new_events();
  EXPECT_EQ((std::set<std::string>{"UNLINK Shared/Team/Docs/plan.txt",
                                   "RMDIR Shared/Team/Docs/Deep", "RMDIR Shared/Team/Docs"}),
            (std::set<std::string>{told.begin(), told.end()}));
  EXPECT_EQ("RMDIR Shared/Team/Docs", told.back());
}

TEST_F(Commands, AllinfoAndDu) {
  const std::string info = team(kBen, "allinfo report.txt");
  EXPECT_NE(std::string::npos, info.find("stream: [::$DATA], 8 bytes")) << info;
  EXPECT_FALSE(succeeded(smb(kBen, "allinfo Shared\\Closed")));
  const std::string du = smb(kBen, "du Shared\\Team\\Docs\\*");
  EXPECT_NE(std::string::npos, du.find("Total number of bytes: 8")) << du;
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, SetmodeAndUtimes) {
  EXPECT_TRUE(succeeded(team(kAnna, "setmode report.txt +r")));
  EXPECT_NE(std::string::npos, team(kBen, "allinfo report.txt").find("attributes: R"));
  EXPECT_TRUE(denied(team(kBen, "setmode report.txt -r")));
  EXPECT_TRUE(succeeded(team(kAnna, "setmode report.txt -r")));
  for (const std::string& line : new_events()) EXPECT_EQ("OPEN Shared/Team/report.txt", line);
  const std::string said =
      team(kAnna, "utimes report.txt -1 \"2020:01:02-03:04:05\" \"2020:01:02-03:04:05\" -1");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_EQ(1577934245, stat_of("Shared/Team/report.txt").st_mtime);
  EXPECT_FALSE(new_events().empty());
  EXPECT_TRUE(denied(team(kBen,
                          "utimes report.txt -1 \"2021:01:02-03:04:05\" "
                          "\"2021:01:02-03:04:05\" -1")));
  EXPECT_EQ(1577934245, stat_of("Shared/Team/report.txt").st_mtime);
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, MputAndMgetOfATree) {
  make_dirs("/scratch/tree/a/b");
  make_dirs("/scratch/back");
  write_file("/scratch/tree/a/1", "one");
  write_file("/scratch/tree/a/b/2", "two");
  EXPECT_TRUE(succeeded(team(kAnna, "lcd /scratch/tree; recurse ON; prompt OFF; mput a")));
  const Lines told = new_events();
  ASSERT_EQ(8U, told.size());
  EXPECT_EQ("MKDIR Shared/Team/a", told[0]);
  EXPECT_TRUE(succeeded(team(kBen, "lcd /scratch/back; recurse ON; prompt OFF; mget a")));
  EXPECT_EQ("one", read_file("/scratch/back/a/1"));
  EXPECT_EQ("two", read_file("/scratch/back/a/b/2"));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, CopyOnTheServer) {
  const std::string said = team(kAnna, "scopy report.txt copy.txt");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_EQ("content\n", read_file(full("Shared/Team/copy.txt")));
  EXPECT_EQ((Lines{"CREATE Shared/Team/copy.txt", "OPEN Shared/Team/copy.txt"}), new_events());
}

TEST_F(Commands, RenameOverAFile) {
  write_file(full("Shared/Team/other.txt"), "other");
  EXPECT_TRUE(succeeded(team(kAnna, "rename report.txt other.txt -f")));
  EXPECT_EQ("content\n", read_file(full("Shared/Team/other.txt")));
  EXPECT_EQ((Lines{"RENAME Shared/Team/report.txt -> Shared/Team/other.txt"}), new_events());
}

TEST_F(Commands, ExtendedAttributesAreTheClientsButForTheLibrarysMarks) {
  ASSERT_EQ(0, chown(full("Shared/Team/report.txt").c_str(), 65534, 65534));
  EXPECT_TRUE(succeeded(team(kAnna, "setea report.txt COLOUR blue")));
  std::string value(16, '\0');
  EXPECT_EQ(4, getxattr(full("Shared/Team/report.txt").c_str(), "user.COLOUR", value.data(), 16));
  EXPECT_FALSE(succeeded(team(kBen, "setea report.txt COLOUR red")));
  EXPECT_FALSE(succeeded(team(kAnna, "setea report.txt tavrix.fixed_folder x")));
  EXPECT_FALSE(succeeded(team(kAnna, "setea report.txt tavrix.last_smb_accessed_by Ben")));
  const std::string said = team(kAnna, "put /scratch/data.txt report.txt");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
  EXPECT_EQ(std::string::npos, team(kAnna, "geteas report.txt").find("tavrix"));
}

TEST_F(Commands, LinksAreNobodys) {
  EXPECT_FALSE(succeeded(team(kAnna, "hardlink report.txt hard.txt")));
  EXPECT_FALSE(exists(full("Shared/Team/hard.txt")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Commands, BookkeepingOfDesktopsGoesWhereItsUserMayNotWrite) {
  EXPECT_TRUE(succeeded(smb(kAnna, "put /scratch/data.txt Shared\\.DS_Store")));
  EXPECT_TRUE(exists(full("Shared/.DS_Store")));
}

TEST_F(Commands, FixedFoldersStay) {
  mark_fixed("Shared/Team/NotInMap");
  EXPECT_FALSE(succeeded(team(kAnna, "rmdir NotInMap")));
  EXPECT_FALSE(succeeded(team(kAnna, "rename NotInMap Elsewhere")));
  EXPECT_TRUE(exists(full("Shared/Team/NotInMap")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_TRUE(succeeded(team(kAdministrator, "rmdir NotInMap")));
}

TEST_F(Commands, ThePrivateAreaIsItsOwners) {
  EXPECT_TRUE(succeeded(smb(kPat, "put /scratch/data.txt Private\\pat\\new.txt")));
  EXPECT_EQ("CREATE Private/pat/new.txt", new_events().at(0));
  EXPECT_FALSE(succeeded(smb(kOlga, "get Private\\pat\\diary.txt /scratch/stolen")));
  EXPECT_FALSE(succeeded(smb(kOlga, "ls Private\\pat\\*")));
  EXPECT_FALSE(succeeded(smb(kPat, "rmdir Private\\pat")));
  EXPECT_FALSE(succeeded(smb(kPat, "rename Private\\pat Private\\mine")));
  EXPECT_TRUE(succeeded(smb(kPat, "deltree Private\\pat\\notes")));
  EXPECT_TRUE(exists(full("Private/pat/diary.txt")));
}

// Everything on the disk may belong to root and be closed to everybody else.
TEST_F(Commands, TheMapRulesAndNotTheModesOnTheDisk) {
  const auto before = listing("Anna", "Shared\\Team");
  bash("chown -R 0:0 /tavrix/Shared; chmod -R u=rwX,go= /tavrix/Shared; chmod 0700 /tavrix/Shared");
  EXPECT_EQ(before, listing("Anna", "Shared\\Team"));
  for (const char* commands :
       {"get report.txt /scratch/got", "put /scratch/data.txt report.txt", "allinfo report.txt",
        "setmode report.txt +h", "put /scratch/data.txt Docs\\Deep\\new.txt",
        "rename Docs\\Deep\\new.txt newer.txt", "rm newer.txt", "mkdir Docs\\Deep\\Deeper",
        "rmdir Docs\\Deep\\Deeper", "rename Docs Papers", "deltree Papers"}) {
    EXPECT_TRUE(succeeded(team(kAnna, commands))) << commands;
  }
  EXPECT_EQ("some data\n", read_file(full("Shared/Team/report.txt")));
  EXPECT_NE(std::string::npos, team(kAnna, "allinfo report.txt").find("attributes: HA"))
      << "read too";
  EXPECT_TRUE(succeeded(team(kBen, "get report.txt /scratch/got")));
  EXPECT_TRUE(denied(team(kBen, "put /scratch/data.txt report.txt")));
  EXPECT_FALSE(succeeded(smb(kBen, "ls Shared\\Closed\\*")));
  EXPECT_EQ(0U, stat_of("Shared/Team/report.txt").st_uid);
}

// The debug build of the module aborts when a VFS function returns with another identity.
TEST_F(Commands, NoHookLeavesRootBehind) {
  Client client("Anna");
  for (const char* command : {"cd Shared\\Team", "put /scratch/data.txt a", "mkdir B",
                              "rename a B\\a", "ls", "get B\\a /scratch/got", "deltree B"}) {
    EXPECT_TRUE(succeeded(client.say(command))) << command;
  }
  EXPECT_EQ(1U, Client::servers().size());
  EXPECT_EQ(std::string::npos, smbd_log().find("identity left")) << smbd_log();
}

}  // namespace
}  // namespace tavrix::test
