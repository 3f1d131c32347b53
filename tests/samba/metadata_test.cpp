// SPDX-License-Identifier: LGPL-3.0-or-later
// Attributes, times and extended attributes, set by handle and by path: who may, and the events.

#include <sys/stat.h>

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class Metadata : public WireClients {
 protected:
  static constexpr const char* kFolder = "Shared/Team/Docs";
  static constexpr const char* kFile = "Shared/Team/report.txt";

  struct State {
    time_t changed;
    long nanoseconds;
    mode_t mode;
    gid_t group;
    std::string dos, colour;
    bool operator==(const State&) const = default;
  };
  static std::string attribute(const std::string& name, const char* attribute) {
    char value[256] = "";
    const ssize_t size = getxattr(full(name).c_str(), attribute, value, sizeof value);
    return size < 0 ? "(none)" : std::string(value, static_cast<std::size_t>(size));
  }
  static State state_of(const std::string& name) {
    struct stat st {};
    EXPECT_EQ(0, lstat(full(name).c_str(), &st)) << name;
    return {st.st_mtime,
            st.st_mtim.tv_nsec,
            st.st_mode,
            st.st_gid,
            attribute(name, "user.DOSATTRIB"),
            attribute(name, "user.COLOUR")};
  }
  // Paths below the share, with their kinds.
  Lines new_kinds() {
    const Lines all = event_lines();
    const Lines fresh(all.begin() + static_cast<std::ptrdiff_t>(told_), all.end());
    told_ = all.size();
    return fresh;
  }
  // The server sets the same time again when the file is closed.
  std::set<std::string> new_changes() {
    const Lines fresh = new_kinds();
    return {fresh.begin(), fresh.end()};
  }
  // Runs smbclient with SMB1, whose requests name paths where SMB2 uses handles.
  static std::string smb1(const Caller& caller, const std::string& commands) {
    const Outcome outcome = run_program(
        {"smbclient", "-s", "/scratch/samba/smb.conf", "--option=client min protocol=NT1", "-m",
         "NT1", "//127.0.0.1/tavrix", "-U", caller.name + "%" + caller.name, "-c", commands});
    return outcome.out + outcome.err;
  }
  static void allow_smb1() {
    configure({"tavrix:allow smb1 = yes"});
    bash("sed -i 's/^\\[global\\]/&\\n  server min protocol = NT1/' /scratch/samba/smb.conf");
  }

 private:
  std::size_t told_ = 0;
};

const std::string kWays[] = {
    "h = me.open('%', MAXIMUM_ALLOWED)\nme.set_basic(h, FILE_ATTRIBUTE_HIDDEN)\n",
    "h = me.open('%', FILE_WRITE_ATTRIBUTES)\nme.set_basic(h, 0, 132000000000000000)\n",
    "h = me.open('%', FILE_WRITE_EA)\nme.set_ea(h, 'COLOUR', b'red')\n",
    "h = me.open('%', MAXIMUM_ALLOWED)\nme.set_ea(h, 'COLOUR')\n",
    "h = me.open('%', GENERIC_WRITE)\nme.set_ea(h, 'COLOUR', bytes(200))\n",
    "h = me.open('%', GENERIC_WRITE)\nme.set_basic(h, FILE_ATTRIBUTE_SYSTEM)\n",
};

std::string to(const std::string& name, std::string script) {
  return script.replace(script.find('%'), 1, name);
}

TEST_F(Metadata, OfFoldersIsNotTheReadersToChange) {
  start_smbd();
  for (const std::string name :
       {"Shared/Team/Docs", "Shared/Team/Gallery", "Shared/Team", "Shared/Lobby", "Shared", ""}) {
    const State before = state_of(name);
    for (const std::string& way : kWays) {
      const std::string said = wire(kBen, to(name, way));
      EXPECT_NE(std::string::npos, said.find("STATUS_ACCESS_DENIED")) << name << way << said;
      EXPECT_TRUE(before == state_of(name)) << name << way;
    }
  }
  EXPECT_EQ(Lines{}, new_kinds());
}

// Setting the allocation size of a folder allocates nothing, but the server sets its time.
TEST_F(Metadata, OfFoldersDoesNotChangeWithTheSpaceThatIsAskedForThem) {
  start_smbd();
  const State before = state_of(kFolder);
  wire(kBen, to(kFolder, "h = me.open('%', FILE_ADD_FILE)\nme.allocate(h, 100000)\n"));
  wire(kBen, to(kFolder, "h = me.open('%', FILE_READ_ATTRIBUTES)\nme.allocate(h, 100000)\n"));
  EXPECT_TRUE(before == state_of(kFolder));
  EXPECT_EQ(Lines{}, new_kinds());
}

TEST_F(Metadata, OfFilesIsNotTheReadersToChange) {
  start_smbd();
  const State before = state_of(kFile);
  for (const std::string& way : kWays) {
    const std::string said = wire(kBen, to(kFile, way));
    EXPECT_NE(std::string::npos, said.find("STATUS_ACCESS_DENIED")) << way << said;
  }
  EXPECT_TRUE(before == state_of(kFile));
  EXPECT_EQ(Lines{}, new_kinds());
}

TEST_F(Metadata, OfAFolderIsTheWritersAndIsRecorded) {
  start_smbd();
  const Lines once{"OPEN DIR /tavrix/Shared/Team/Docs"};
  EXPECT_EQ("", wire(kAnna, to(kFolder, kWays[0])));
  EXPECT_NE("(none)", state_of(kFolder).dos);
  EXPECT_EQ(once, new_kinds()) << "attributes";
  EXPECT_EQ("Anna", stamp_of(kFolder));
  EXPECT_EQ("", wire(kAnna, to(kFolder, kWays[1])));
  EXPECT_EQ(1555526400, state_of(kFolder).changed);
  EXPECT_EQ(once, new_kinds()) << "times";
  EXPECT_EQ("", wire(kAnna, to(kFolder, kWays[2])));
  EXPECT_EQ("red", state_of(kFolder).colour);
  EXPECT_EQ(once, new_kinds()) << "an extended attribute";
  EXPECT_EQ("", wire(kAnna, to(kFolder, kWays[3])));
  EXPECT_EQ("(none)", state_of(kFolder).colour);
  EXPECT_EQ(once, new_kinds()) << "and its end";
}

TEST_F(Metadata, OfAFileIsTheWritersAndIsRecorded) {
  start_smbd();
  for (const std::string& way : kWays) {
    EXPECT_EQ("", wire(kAnna, to(kFile, way) + "me.close(h)\n"));
    EXPECT_EQ((std::set<std::string>{"OPEN FILE /tavrix/Shared/Team/report.txt"}), new_changes())
        << way;
    EXPECT_EQ("Anna", stamp_of(kFile));
  }
}

TEST_F(Metadata, OfTheFoldersThatTheMapLeavesToNobodyStays) {
  start_smbd();
  for (const char* name : {"", "Private"}) {
    const State before = state_of(name);
    for (const std::string& way : kWays) wire(kAdministrator, to(name, way));
    EXPECT_TRUE(before == state_of(name)) << name;
  }
  EXPECT_EQ(Lines{}, new_kinds());
  EXPECT_EQ("", wire(kAdministrator, to("Shared", kWays[0])));
  EXPECT_EQ("", wire(kPat, to("Private/pat", kWays[0])));
  EXPECT_EQ((Lines{"OPEN DIR /tavrix/Shared", "OPEN DIR /tavrix/Private/pat"}), new_kinds());
}

TEST_F(Metadata, OfWhatIsMadeBelongsToItsMaking) {
  start_smbd();
  EXPECT_EQ("", wire(kAnna,
                     "made = [Context(b'ExtA', ea_list([('COLOUR', b'red')]))]\n"
                     "h = me.open('Shared/Team/New', FILE_WRITE_EA, FILE_CREATE, "
                     "FILE_DIRECTORY_FILE, attributes=FILE_ATTRIBUTE_HIDDEN, contexts=made)\n"
                     "me.close(h)\n"));
  EXPECT_EQ("red", state_of("Shared/Team/New").colour);
  EXPECT_NE("(none)", state_of("Shared/Team/New").dos);
  EXPECT_EQ((Lines{"MKDIR DIR /tavrix/Shared/Team/New"}), new_kinds());
}

// The file belongs to the reader on the disk: it could write there once.
TEST_F(Metadata, DoesNotFollowTheOwnerOnTheDisk) {
  ASSERT_EQ(0, chown(full(kFile).c_str(), kBen.uid, 65534));
  ASSERT_EQ(0, chown(full(kFolder).c_str(), kBen.uid, 65534));
  allow_smb1();
  start_smbd();
  for (const std::string name : {kFile, kFolder}) {
    const State before = state_of(name);
    for (const std::string& way : kWays) wire(kBen, to(name, way));
    smb1(kBen, "setmode " + name + " +rhs; setea " + name + " COLOUR red");
    smb1(kBen, "posix; chmod 0777 \"" + name + "\"; chown " + std::to_string(kBen.uid) + " " +
                   std::to_string(kBen.gid) + " \"" + name + "\"");
    EXPECT_TRUE(before == state_of(name)) << name;
  }
  EXPECT_EQ(Lines{}, new_kinds());
}

TEST_F(Metadata, IsNotTheReadersByPathInTheOldProtocol) {
  allow_smb1();
  start_smbd();
  for (const std::string name : {kFile, kFolder}) {
    const State before = state_of(name);
    for (const std::string& command :
         {"setmode " + name + " +hs", "setea " + name + " COLOUR red",
          "utimes " + name + " -1 \"2020:01:02-03:04:05\" \"2020:01:02-03:04:05\" -1"}) {
      EXPECT_TRUE(denied(smb1(kBen, command))) << command;
      EXPECT_TRUE(before == state_of(name)) << command;
    }
  }
  EXPECT_EQ(Lines{}, new_kinds());
}

TEST_F(Metadata, IsTheWritersByPathInTheOldProtocol) {
  allow_smb1();
  start_smbd();
  for (const std::string name : {kFile, kFolder}) {
    EXPECT_TRUE(succeeded(smb1(kAnna, "setmode " + name + " +h")));
    EXPECT_NE("(none)", state_of(name).dos) << name;
    EXPECT_TRUE(succeeded(smb1(kAnna, "setea " + name + " COLOUR red")));
    EXPECT_EQ("red", state_of(name).colour);
    EXPECT_TRUE(succeeded(
        smb1(kAnna, "utimes " + name + " -1 \"2020:01:02-03:04:05\" \"2020:01:02-03:04:05\" -1")));
    EXPECT_EQ(1577934245, state_of(name).changed);
    EXPECT_EQ("Anna", stamp_of(name));
    const std::string event =
        std::string("OPEN ") + (name == kFile ? "FILE" : "DIR") + " /tavrix/" + name;
    EXPECT_EQ((std::set<std::string>{event}), new_changes());
  }
}

}  // namespace
}  // namespace tavrix::test
