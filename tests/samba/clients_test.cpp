// SPDX-License-Identifier: LGPL-3.0-or-later
// The name under which the groups of a client are looked up, for every name that it may claim.

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

using Names = std::set<std::string>;

const Names kReadersSee{"Lobby", "Team"};
const Names kAdministratorsSee{"Closed", "Lobby", "Team"};
const std::vector<std::uint32_t> kReader{kPowerUsers, kReaders};
const std::vector<std::uint32_t> kWriter{kPowerUsers, kWriters};
const std::vector<std::uint32_t> kBoss{kAdmins};

class Clients : public Appliance {
 protected:
  static void groups(std::vector<GroupMapUser> users) {
    const GroupMap map{{{"tavrix-admins", kAdmins}, {"tavrix-powerusers", kPowerUsers}},
                       std::move(users)};
    write_file("/scratch/groups", group_map_bytes(map));
    ASSERT_EQ(0, rename("/scratch/groups", "/etc/tavrix/groupmap_refresh"));
  }
  static void add_account(const std::string& name, uid_t uid) {
    write_file("/etc/passwd", read_file("/etc/passwd") + name + ":x:" + std::to_string(uid) + ":" +
                                  std::to_string(kPeople) + "::/:/bin/false\n");
    bash("set_samba_password \"" + name + "\"");
  }
  static void set_global(const std::string& line) {
    bash("sed -i \"s|^\\[global\\]|[global]\\n  " + line + "|\" /scratch/samba/smb.conf");
  }
  static void map_to_guest(const std::string& when) {
    bash("sed -i 's|map to guest = never|map to guest = " + when + "|' /scratch/samba/smb.conf");
  }
  // Connects under the claimed name, with that password.
  static std::string claim(const std::string& user, const std::string& password,
                           const std::string& commands) {
    const Outcome outcome =
        run_program({"smbclient", "-s", "/scratch/samba/smb.conf", "//127.0.0.1/tavrix", "-U",
                     user + "%" + password, "-c", commands});
    return outcome.out + outcome.err;
  }
  static Names seen(const std::string& said) {
    Names names;
    std::istringstream in(said);
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with("  ")) continue;
      const std::string name = line.substr(2, line.find_first_of(" ", 2) - 2);
      if (name != "." && name != "..") names.insert(name);
    }
    return names;
  }
  static Names seen_as(const std::string& user, const std::string& password) {
    return seen(claim(user, password, "ls Shared\\*"));
  }
};

TEST_F(Clients, HaveTheGroupsOfTheirOwnNameAndNotOfASimilarOne) {
  add_account("max+m", 2001);
  add_account("max_m", 2002);
  groups({{"max_m", kBoss}, {"max+m", kReader}});
  start_smbd();
  EXPECT_EQ(kReadersSee, seen_as("max+m", "max+m"));
  EXPECT_EQ(kAdministratorsSee, seen_as("max_m", "max_m"));
  groups({{"max_m", kBoss}});
  EXPECT_EQ(Names{}, seen_as("max+m", "max+m"));
}

TEST_F(Clients, OfAnyNameHaveTheirGroupsAndTheirStamp) {
  const Lines names{"oneil@corp", "o'neil", "m\xc3\xbcller", "a b", "x.y-z"};
  std::vector<GroupMapUser> users;
  for (const std::string& name : names) {
    add_account(name, 2010 + static_cast<uid_t>(users.size()));
    users.push_back({name, kWriter});
  }
  groups(users);
  write_file("/scratch/data.txt", "some data\n");
  start_smbd();
  for (const std::string& name : names) {
    EXPECT_EQ(Names{"Team"}, seen_as(name, name)) << name;
    EXPECT_TRUE(succeeded(claim(name, name, "put /scratch/data.txt Shared\\Team\\new.txt")));
    EXPECT_EQ(name, stamp_of("Shared/Team/new.txt"));
  }
}

TEST_F(Clients, InOtherLettersAreTheSamePerson) {
  start_smbd();
  EXPECT_EQ(kReadersSee, seen_as("ANNA", "Anna"));
}

TEST_F(Clients, ThatAreGuestsNeverHaveTheNameTheyClaim) {
  groups({{"Administrator", kBoss}, {"ghost", kBoss}});
  configure({"guest ok = yes"});
  map_to_guest("bad password");
  start_smbd();
  EXPECT_EQ(Names{}, seen_as("ghost", "ghost")) << "no such user";
  EXPECT_EQ(Names{}, seen_as("Administrator", "wrong"));
  EXPECT_EQ(kAdministratorsSee, seen_as("Administrator", "Administrator"));
}

TEST_F(Clients, ThatAreGuestsHaveWhatTheGuestAccountHas) {
  groups({{"nobody", kReader}});
  configure({"guest ok = yes"});
  map_to_guest("bad user");
  start_smbd();
  EXPECT_EQ(kReadersSee, seen_as("ghost", "ghost"));
}

TEST_F(Clients, OfAShareForGuestsAreGuests) {
  configure({"guest ok = yes", "guest only = yes"});
  start_smbd();
  EXPECT_EQ(Names{}, seen_as("Administrator", "Administrator"));
}

TEST_F(Clients, ThatWouldWorkAsRootAreRefusedForNothingOfThatIsRecorded) {
  configure({"force user = root"});
  start_smbd();
  EXPECT_FALSE(succeeded(smb("Anna", "mkdir Shared\\Team\\New")));
  EXPECT_FALSE(exists(full("Shared/Team/New")));
  EXPECT_NE(std::string::npos, smbd_log().find("Anna is refused: nothing that a client does as"));
}

// A standalone server accepts any domain that a client names; the account is the server's own.
TEST_F(Clients, OfAnyClaimedDomainAreTheAccountThatAnswered) {
  groups({{"Anna", kReader}, {"EVIL\\Anna", kBoss}, {"CORP\\Anna", kBoss}});
  start_smbd();
  for (const char* claimed : {"EVIL\\Anna", "CORP\\Anna", "TAVRIX\\Anna", "Anna"}) {
    EXPECT_EQ(kReadersSee, seen_as(claimed, "Anna")) << claimed;
  }
}

// Every name that leads to Anna's account is Anna, for the password is hers.
TEST_F(Clients, UnderAMappedNameAreTheAccountThatAnswered) {
  groups({{"Anna", kReader}, {"boss", kBoss}, {"Administrator", kBoss}});
  write_file("/scratch/usermap", "Anna = boss Administrator\n");
  set_global("username map = /scratch/usermap");
  start_smbd();
  EXPECT_EQ(kReadersSee, seen_as("boss", "Anna"));
  EXPECT_EQ(kReadersSee, seen_as("Administrator", "Anna"));
}

// "force user" changes the identity on the disk and nothing else: the map still asks for the
// client.
TEST_F(Clients, KeepTheirGroupsWhenTheServerForcesAUser) {
  configure({"force user = Administrator"});
  start_smbd();
  EXPECT_EQ(kReadersSee, seen_as("Ben", "Ben"));
  EXPECT_EQ(kAdministratorsSee, seen_as("Administrator", "Administrator"));
}

// A session may log in again as another user; its connections go on as that user.
TEST_F(Clients, ThatLogInAgainHaveTheGroupsOfTheirNewName) {
  start_smbd();
  const auto list_as = [](const std::string& first, const std::string& second) {
    return run_program({"/usr/bin/python3", TAVRIX_SOURCE_DIR "/tests/samba/reauthenticate.py",
                        first, second, "Shared\\*"});
  };
  Outcome outcome = list_as("Administrator", "Ben");
  EXPECT_EQ("Lobby Team\n", outcome.out) << outcome.err;
  outcome = list_as("Ben", "Administrator");
  EXPECT_EQ("Closed Lobby Team\n", outcome.out) << outcome.err;
}

// SMB1 lets the users of one machine share a tree connection.
TEST_F(Clients, OfOneTreeConnectionHaveTheGroupsOfTheirOwnNames) {
  configure({"tavrix:allow smb1 = yes"});
  set_global("server min protocol = NT1");
  start_smbd();
  const Outcome outcome =
      run_program({"/usr/bin/python3", TAVRIX_SOURCE_DIR "/tests/samba/shared_tree.py",
                   "Administrator", "Ben", "Shared\\*"});
  EXPECT_EQ("Closed Lobby Team\nLobby Team\nClosed Lobby Team\n", outcome.out) << outcome.err;
}

TEST_F(Clients, OfAReservedUserWithoutAnAccountAreToldAtConnect) {
  configure({"tavrix:reserved user = nosuchagent"});
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "ls")));
  EXPECT_NE(std::string::npos, smbd_log().find("the reserved user nosuchagent has no account"));
}

}  // namespace
}  // namespace tavrix::test
