// SPDX-License-Identifier: LGPL-3.0-or-later
// Connections: what each user sees, the options of the module, new maps and groups, disconnects.

#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <fstream>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

using Names = std::set<std::string>;

class Connections : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    write_file("/scratch/data.txt", "some data\n");
  }
  static void touch(const char* path) {
    const time_t when = time(nullptr) + 5;
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path, times, 0));
  }
};

TEST_F(Connections, EverybodySeesWhatTheMapAllows) {
  start_smbd();
  EXPECT_EQ((Names{"Private", "Shared"}), listing("Administrator", ""));
  EXPECT_EQ((Names{"Private", "Shared"}), listing("Anna", ""));
  EXPECT_EQ(Names{}, listing("StandardUser", ""));
  EXPECT_EQ((Names{"Closed", "Lobby", "Team"}), listing("Administrator", "Shared"));
  EXPECT_EQ((Names{"Lobby", "Team"}), listing("Anna", "Shared"));
  EXPECT_EQ((Names{"Lobby", "Team"}), listing("Ben", "Shared"));
  EXPECT_EQ((Names{"Lobby"}), listing("Olga", "Shared"));
  EXPECT_EQ((Names{"Docs", "Drop", "Gallery", "NotInMap", "report.txt"}),
            listing("Anna", "Shared\\Team"));
  EXPECT_EQ((Names{"Docs", "Drop", "Gallery", "NotInMap", "report.txt"}),
            listing("Ben", "Shared\\Team"));
  EXPECT_EQ((Names{"pat"}), listing("Pat", "Private"));
  EXPECT_EQ((Names{"olga", "pat"}), listing("Administrator", "Private"));
  EXPECT_EQ((Names{"diary.txt", "notes"}), listing("Pat", "Private\\pat"));
  EXPECT_EQ(Names{}, listing("Pat", "Private\\olga"));
}

TEST_F(Connections, OfTheReservedUserMayDoEverythingAndIsNotRecorded) {
  configure({"tavrix:reserved user = StandardUser", "tavrix:audit = yes"});
  start_smbd();
  EXPECT_EQ((Names{"Closed", "Lobby", "Team", "stray.txt"}), listing("StandardUser", "Shared"));
  const std::string said =
      smb("StandardUser",
          "cd Shared\\Closed; put /scratch/data.txt a; mkdir B; rename a B\\a; "
          "get B\\a /scratch/got; rm B\\a; rmdir B");
  EXPECT_TRUE(succeeded(said)) << said;
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_TRUE(audit_records().empty());
}

TEST_F(Connections, OfComputersAreRefusedUnlessTheyAreAllowed) {
  start_smbd();
  EXPECT_FALSE(succeeded(smb("pc7$", "ls")));
  stop_smbd();
  configure({"tavrix:allow computer accounts = yes"});
  start_smbd();
  EXPECT_EQ(Names{}, listing("pc7$", "Shared\\Team")) << "every status query is refused";
  EXPECT_FALSE(succeeded(smb("pc7$", "get Shared\\Team\\report.txt /scratch/got")));
}

TEST_F(Connections, AuditsReads) {
  configure({"tavrix:audit = yes"});
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Ben", "get Shared\\Team\\report.txt /scratch/got")));
  const auto records = audit_records();
  EXPECT_EQ(2U, records.size()) << "the open and the close";
  for (const AuditRecord& record : records) {
    EXPECT_EQ("/tavrix/Shared/Team/report.txt", record.path);
    EXPECT_EQ(kBen.uid, record.uid);
    EXPECT_EQ("127.0.0.1", record.address);
    EXPECT_EQ(8U, record.size);
  }
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Connections, GiveWhatTheyMakeToTheDefaultOwner) {
  global_params[PARAM_DEFAULT_USER_ID].value.intval = 65534;
  global_params[PARAM_DEFAULT_GROUP_ID].value.intval = 1;
  share_settings();
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "cd Shared\\Team; put /scratch/data.txt a; mkdir B")));
  for (const char* name : {"Shared/Team/a", "Shared/Team/B"}) {
    struct stat st {};
    ASSERT_EQ(0, stat(full(name).c_str(), &st));
    EXPECT_EQ(65534U, st.st_uid) << name;
    EXPECT_EQ(1U, st.st_gid) << name;
  }
  EXPECT_EQ("Anna", stamp_of("Shared/Team/a"));
  EXPECT_TRUE(succeeded(smb("Anna", "cd Shared\\Team; put /scratch/data.txt a; rmdir B; rm a")));
}

TEST_F(Connections, NamesOfThePatternsMayAlwaysBeDeleted) {
  write_file("/scratch/patterns", "^~lock\\.\n");
  std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, "/scratch/patterns");
  global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 1;
  share_settings();
  make_file("Shared/Team/~lock.x");
  make_file("Shared/Team/lock.x");
  start_smbd();
  Client client("Ben");
  EXPECT_FALSE(succeeded(client.say("rm Shared\\Team\\lock.x")));
  EXPECT_TRUE(succeeded(client.say("rm Shared\\Team\\~lock.x")));
  EXPECT_EQ((Lines{"UNLINK Shared/Team/~lock.x"}), new_events());
  EXPECT_FALSE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\~lock.y")));
}

TEST_F(Connections, NoticeANewMapWhileTheyAreOpen) {
  start_smbd();
  Client client("Anna");
  EXPECT_TRUE(succeeded(client.say("ls Shared\\Team\\*")));
  publish_team({{kAnna.uid, 0}}, {});
  touch("/etc/tavrix/permission_refresh");
  EXPECT_FALSE(succeeded(client.say("ls Shared\\Team\\*")));
  EXPECT_FALSE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\x")));
  publish_team({{kAnna.uid, 7}}, {});
  touch("/etc/tavrix/permission_refresh");
  EXPECT_TRUE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\x")));
}

TEST_F(Connections, NoticeNewGroupsWhileTheyAreOpen) {
  start_smbd();
  Client client("Ben");
  EXPECT_FALSE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\x")));
  GroupMap map{{{"tavrix-admins", kAdmins}, {"tavrix-powerusers", kPowerUsers}},
               {{"Ben", {kPowerUsers, kWriters}}}};
  write_file("/scratch/groups", group_map_bytes(map));
  ASSERT_EQ(0, rename("/scratch/groups", "/etc/tavrix/groupmap_refresh"));
  touch("/etc/tavrix/groupmap_refresh");
  const std::string said = client.say("put /scratch/data.txt Shared\\Team\\x");
  EXPECT_TRUE(succeeded(said)) << said;
}

TEST_F(Connections, FlushTheirEventsAtTheirEnd) {
  start_smbd();
  smb("Anna", "put /scratch/data.txt Shared\\Team\\x");
  EXPECT_FALSE(list(kStagingDir).empty());
}

TEST_F(Connections, OfAKilledClientAreFlushedToo) {
  start_smbd();
  {
    Client client("Anna");
    client.say("put /scratch/data.txt Shared\\Team\\x");
    EXPECT_TRUE(list(kStagingDir).empty());
  }
  for (int waited = 0; list(kStagingDir).empty() && waited < 5000; ++waited) usleep(1000);
  EXPECT_FALSE(list(kStagingDir).empty());
}

TEST_F(Connections, AKilledServerLosesNoEventAndHoldsNoLock) {
  start_smbd();
  Client client("Anna");
  client.say("put /scratch/data.txt Shared\\Team\\x");
  const auto servers = Client::servers();
  ASSERT_EQ(1U, servers.size());
  ASSERT_EQ(0, kill(servers[0], SIGKILL));
  client.say("ls");
  EXPECT_EQ("CREATE Shared/Team/x", new_events().at(0));
  EXPECT_TRUE(succeeded(smb("Anna", "put /scratch/data.txt Shared\\Team\\y")));
  EXPECT_EQ("CREATE Shared/Team/y", new_events().at(0));
}

TEST_F(Connections, WithoutASemaphoreForEventsEndAndComeBackWithIt) {
  start_smbd();
  Client client("Anna");
  EXPECT_TRUE(succeeded(client.say("ls")));
  ASSERT_EQ(1, destroy_eventstore_staging_buffer_semaphore());
  EXPECT_FALSE(succeeded(client.say("mkdir Shared\\Team\\New")));
  EXPECT_TRUE(exists("/tavrix/.conf/sync.off")) << "the agent must compare everything";
  remove_all("/tavrix/.conf/sync.off");
  ASSERT_EQ(1, create_eventstore_staging_semaphore());
  EXPECT_TRUE(succeeded(smb("Anna", "mkdir Shared\\Team\\Newer")));
}

// The library takes a failed write for a loss of events: it makes the sync-off marker and ends the
// process. The records are in the buffer still, and the share comes back by itself.
TEST_F(Connections, TellTheAgentWhenTheStagingDirectoryIsFullAndComeBack) {
  mount_small_disk(kStagingDir, 8192);
  for (int i = 0; i < 4; ++i) {
    std::ofstream(kStagingDir + "/filler" + std::to_string(i)) << std::string(4096, 'x');
  }
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "put /scratch/data.txt Shared\\Team\\a")));
  for (int waited = 0; !exists("/tavrix/.conf/sync.off") && waited < 5000; ++waited) usleep(1000);
  EXPECT_TRUE(exists("/tavrix/.conf/sync.off"));
  for (const std::string& name : list(kStagingDir)) remove_all(kStagingDir + "/" + name);
  EXPECT_TRUE(succeeded(smb("Anna", "rm Shared\\Team\\a")));
  for (int waited = 0; list(kStagingDir).empty() && waited < 5000; ++waited) usleep(1000);
  EXPECT_FALSE(list(kStagingDir).empty()) << "the end of the next connection";
  EXPECT_EQ((Lines{"CREATE Shared/Team/a", "OPEN Shared/Team/a", "OPEN Shared/Team/a",
                   "UNLINK Shared/Team/a"}),
            new_events());
}

TEST_F(Connections, GoOnWhenTheSweeperIsKilled) {
  start_smbd();
  Client client("Anna");
  Child sweeper([] {
    for (;;) flush_staging_buffer(FB_CTX_SWPR);
  });
  EXPECT_TRUE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\a")));
  sweeper.kill();
  sweeper.wait();
  EXPECT_TRUE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\b")));
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\C")));
  const Lines told = new_events();
  EXPECT_EQ("MKDIR Shared/Team/C", told.back());
}

TEST_F(Connections, ComeBackAfterTheServerWasKilled) {
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "put /scratch/data.txt Shared\\Team\\a")));
  kill_smbd();
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "get Shared\\Team\\a /scratch/got")));
  EXPECT_EQ("CREATE Shared/Team/a", new_events().at(0));
}

TEST_F(Connections, WithoutAMapAreRefusedEverythingButTheShare) {
  remove_all("/etc/tavrix/.permbe_map");
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "ls")));
  EXPECT_FALSE(succeeded(smb("Anna", "ls Shared\\*")));
}

TEST_F(Connections, TwoClientsInOneFolderSeeOneAnothersWork) {
  start_smbd();
  Client anna("Anna");
  Client ben("Ben");
  anna.say("cd Shared\\Team");
  ben.say("cd Shared\\Team");
  EXPECT_TRUE(succeeded(anna.say("put /scratch/data.txt new.txt")));
  EXPECT_NE(std::string::npos, ben.say("ls").find("new.txt"));
  EXPECT_TRUE(succeeded(ben.say("get new.txt /scratch/got")));
  EXPECT_TRUE(succeeded(anna.say("rm new.txt")));
  EXPECT_EQ(std::string::npos, ben.say("ls").find("new.txt"));
  EXPECT_EQ(2U, Client::servers().size());
}

TEST_F(Connections, OfAShareInTheTreeAreDecidedAlike) {
  bash("sed -i 's|path = /tavrix|path = /tavrix/Shared/Team|' /scratch/samba/smb.conf");
  start_smbd();
  EXPECT_EQ((Names{"Docs", "Drop", "Gallery", "NotInMap", "report.txt"}), listing("Anna", ""));
  EXPECT_TRUE(
      succeeded(smb("Anna", "put /scratch/data.txt new.txt; mkdir A; rename new.txt A\\b")));
  EXPECT_FALSE(succeeded(smb("Ben", "put /scratch/data.txt newer.txt")));
  const Lines told = new_events();
  EXPECT_EQ("CREATE Shared/Team/new.txt", told.front());
  EXPECT_EQ("RENAME Shared/Team/new.txt -> Shared/Team/A/b", told.back());
  EXPECT_FALSE(succeeded(smb("Pat", "ls")));
}

TEST_F(Connections, OfAShareElsewhereAreRefused) {
  bash("sed -i 's|path = /tavrix|path = /scratch|' /scratch/samba/smb.conf");
  start_smbd();
  EXPECT_FALSE(succeeded(smb("Anna", "ls")));
  EXPECT_NE(std::string::npos, smbd_log().find("the share must be /tavrix or"));
}

}  // namespace
}  // namespace tavrix::test
