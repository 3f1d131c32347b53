// SPDX-License-Identifier: LGPL-3.0-or-later
// The access that a handle ends up with, however it was asked for, and what stays in spite of it.

#include <sys/stat.h>

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

const char kNewReply[] =
    "seen = []\n"
    "receive = me.smb.recvSMB\n"
    "me.smb.recvSMB = lambda *which: seen.append(receive(*which)) or seen[-1]\n"
    "rights = lambda data: hex(struct.unpack('<L', data)[0])\n"
    "told = lambda: rights(bytes(seen[-1]['Data']).split(b'MxAc')[1][8:12])\n";

class Access : public WireClients {
 protected:
  void SetUp() override {
    WireClients::SetUp();
    mark_fixed("Shared/Team/NotInMap");
    start_smbd();
  }
  // The rights in the handle of an open "as much as I may have", and those that the server tells.
  static std::string most(const Caller& caller, const std::string& name) {
    return wire(caller, std::string(kNewReply) + "h = me.open('" + name +
                            "', MAXIMUM_ALLOWED, contexts=[Context(b'MxAc', b'')])\n"
                            "most = told()\n"
                            "print(rights(me.query(h, 8)), most)\n");
  }
  // Opens for deletion, asks for it, and closes.
  static std::string removal(const std::string& name, const std::string& access) {
    return "h = NO_HANDLE\nh = me.open('" + name + "', " + access +
           ", options=FILE_DIRECTORY_FILE)\nme.delete(h)\nme.close(h)\n";
  }
  static bool is_marked(const std::string& name) {
    return getxattr(full(name).c_str(), "user.tavrix.fixed_folder", nullptr, 0) == 0;
  }
};

TEST_F(Access, IsAllThatTheMapGrantsAndNoMore) {
  EXPECT_EQ("0x1200a9 0x1200a9\n", most(kBen, "Shared/Team/report.txt"));
  EXPECT_EQ("0x1f01ff 0x1f01ff\n", most(kAnna, "Shared/Team/report.txt"));
  EXPECT_EQ("0x1200a9 0x1200a9\n", most(kBen, "Shared/Team/Docs"));
  EXPECT_EQ("0x1f01ff 0x1f01ff\n", most(kAnna, "Shared/Team/Docs"));
}

TEST_F(Access, LeavesOutDeletingWhereTheFolderMustStay) {
  EXPECT_EQ("0x1e01ff 0x1e01ff\n", most(kAnna, "Shared/Team/NotInMap"));
  EXPECT_EQ("0x1f01ff 0x1f01ff\n", most(kAdministrator, "Shared/Team/NotInMap"));
  EXPECT_EQ("0x1e01ff 0x1e01ff\n", most(kAnna, "Shared/Team")) << "a team is the administrators'";
  EXPECT_EQ("0x1e01ff 0x1e01ff\n", most(kPat, "Private/pat"));
  EXPECT_EQ("0x1200a9 0x1200a9\n", most(kAnna, "Shared"));
  EXPECT_EQ("0x1200a9 0x1200a9\n", most(kAnna, "")) << "the share's root";
}

TEST_F(Access, ShowsItselfInTheAccessListThatTheClientReads) {
  const auto list = [](const Caller& caller) {
    return run_program({"smbcacls", "-s", "/scratch/samba/smb.conf", "--numeric",
                        "//127.0.0.1/tavrix", "Shared/Team/Docs", "-U",
                        caller.name + "%" + caller.name})
        .out;
  };
  EXPECT_NE(std::string::npos, list(kBen).find("ACL:S-1-1-0:0/0x3/0x001200a9")) << list(kBen);
  EXPECT_NE(std::string::npos, list(kAnna).find("ACL:S-1-1-0:0/0x3/0x001f01ff")) << list(kAnna);
}

TEST_F(Access, LetsFoldersBeOpenedWithWhatMayBeHad) {
  const std::string said = wire(kBen,
                                "h = me.open('Shared/Team', MAXIMUM_ALLOWED)\n"
                                "print(sorted(me.names(h)))\n"
                                "h = me.open('Shared/Team', GENERIC_WRITE)\n"
                                "me.set_basic(h, FILE_ATTRIBUTE_HIDDEN)\n");
  EXPECT_EQ("['Docs', 'Drop', 'Gallery', 'NotInMap', 'report.txt']\nSTATUS_ACCESS_DENIED\n", said);
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Access, IsRefusedForARightThatTheClientHasNot) {
  const std::string open = "me.open('Shared/Team/Docs', ";
  const std::string said =
      wire(kBen, open + "FILE_WRITE_ATTRIBUTES)\n" + open + "FILE_WRITE_EA)\n" + open +
                     "DELETE)\n" + open + "WRITE_DAC)\n" + open + "WRITE_OWNER)\n" + open +
                     "GENERIC_ALL)\n" + open + "MAXIMUM_ALLOWED | DELETE)\n");
  std::string refused;
  for (int i = 0; i < 7; ++i) refused += "STATUS_ACCESS_DENIED\n";
  EXPECT_EQ(refused, said);
}

TEST_F(Access, RemovesNoFixedFolder) {
  for (const char* access :
       {"MAXIMUM_ALLOWED", "GENERIC_ALL", "DELETE", "MAXIMUM_ALLOWED | FILE_LIST_DIRECTORY"}) {
    const std::string said = wire(kAnna, removal("Shared/Team/NotInMap", access));
    EXPECT_NE(std::string::npos, said.find("STATUS_ACCESS_DENIED")) << access << said;
    EXPECT_TRUE(is_marked("Shared/Team/NotInMap")) << access;
  }
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ("", wire(kAdministrator, removal("Shared/Team/NotInMap", "MAXIMUM_ALLOWED")));
  EXPECT_EQ((Lines{"RMDIR Shared/Team/NotInMap"}), new_events());
}

// The agent stamps the folder when the client has its handle, and has asked for the end already.
TEST_F(Access, RemovesNoFolderThatBecameFixedMeanwhile) {
  make_folder("Shared/Team/Plain");
  wire(kAnna,
       "h = me.open('Shared/Team/Plain', DELETE, options=FILE_DIRECTORY_FILE)\n"
       "me.delete(h)\n"
       "os.setxattr('/tavrix/Shared/Team/Plain', 'user.tavrix.fixed_folder', b'')\n"
       "me.close(h)\n");
  EXPECT_TRUE(is_marked("Shared/Team/Plain"));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Access, RenamesNoFixedFolder) {
  wire(kAnna,
       "h = me.open('Shared/Team/NotInMap', MAXIMUM_ALLOWED)\n"
       "me.rename(h, 'Shared/Team/Elsewhere')\n");
  EXPECT_TRUE(is_marked("Shared/Team/NotInMap"));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Access, ReplacesNoFixedFolder) {
  make_folder("Shared/Team/Plain");
  const std::string script =
      "h = me.open('Shared/Team/Plain', DELETE | FILE_READ_ATTRIBUTES)\n"
      "me.rename(h, 'Shared/Team/NotInMap', True)\n";
  EXPECT_EQ("STATUS_ACCESS_DENIED\n", wire(kAnna, script));
  EXPECT_TRUE(exists(full("Shared/Team/Plain")));
  EXPECT_TRUE(is_marked("Shared/Team/NotInMap"));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ("", wire(kAdministrator, script));
  EXPECT_EQ((Lines{"RENAME Shared/Team/Plain -> Shared/Team/NotInMap"}), new_events());
}

TEST_F(Access, ReplacesAFolderWhereItMayRemoveOne) {
  make_folder("Shared/Team/Drop/Old");
  make_folder("Shared/Team/Drop/New");
  EXPECT_EQ("STATUS_ACCESS_DENIED\n",
            wire(kAnna,
                 "h = me.open('Shared/Team/Drop/New', DELETE | FILE_READ_ATTRIBUTES)\n"
                 "me.rename(h, 'Shared/Team/Drop/Old', True)\n"));
  EXPECT_TRUE(exists(full("Shared/Team/Drop/New")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ("", wire(kAnna,
                     "h = me.open('Shared/Team/Drop/New', DELETE | FILE_READ_ATTRIBUTES)\n"
                     "me.rename(h, 'Shared/Team/Drop/Newer')\n"))
      << "writing is enough to rename";
}

TEST_F(Access, ReplacesNothingOfThePrivateArea) {
  for (const Caller& caller : {kPat, kAdministrator}) {
    wire(caller,
         "h = me.open('Private/pat', MAXIMUM_ALLOWED)\n"
         "me.rename(h, 'Private/mine', True)\n"
         "me.delete(h)\n"
         "me.close(h)\n");
    EXPECT_TRUE(exists(full("Private/pat/diary.txt"))) << caller.name;
  }
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Access, ToDeleteOnCloseIsTheRightToRemove) {
  make_folder("Shared/Team/Drop/Old");
  EXPECT_EQ("STATUS_ACCESS_DENIED\n",
            wire(kAnna,
                 "me.open('Shared/Team/Drop/Old', DELETE, "
                 "options=FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE)\n"));
  EXPECT_EQ(
      "STATUS_ACCESS_DENIED\n",
      wire(kBen, "me.open('Shared/Team/report.txt', DELETE, options=FILE_DELETE_ON_CLOSE)\n"));
  EXPECT_EQ("STATUS_INVALID_PARAMETER\n", wire(kAnna,
                                               "me.open('Shared/Team/report.txt', MAXIMUM_ALLOWED, "
                                               "options=FILE_DELETE_ON_CLOSE)\n"));
  EXPECT_TRUE(exists(full("Shared/Team/Drop/Old")));
  EXPECT_TRUE(exists(full("Shared/Team/report.txt")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Access, ToAnEmptiedFileIsRecordedAtItsClose) {
  EXPECT_EQ("", wire(kAnna,
                     "h = me.open('Shared/Team/report.txt', READ, FILE_OVERWRITE)\n"
                     "me.close(h)\n"));
  EXPECT_EQ("", read_file(full("Shared/Team/report.txt")));
  EXPECT_EQ((Lines{"OPEN Shared/Team/report.txt"}), new_events());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
}

TEST_F(Access, OfAMakerIsEverything) {
  EXPECT_EQ("0x1f01ff\n0x1f01ff\n",
            wire(kAnna, std::string(kNewReply) +
                            "h = me.open('Shared/Team/a', MAXIMUM_ALLOWED, FILE_CREATE)\n"
                            "print(rights(me.query(h, 8)))\n"
                            "h = me.open('Shared/Team/B', MAXIMUM_ALLOWED, FILE_CREATE, "
                            "FILE_DIRECTORY_FILE)\n"
                            "print(rights(me.query(h, 8)))\n"));
  EXPECT_EQ((Lines{"CREATE Shared/Team/a", "MKDIR Shared/Team/B"}), new_events());
}

}  // namespace
}  // namespace tavrix::test
