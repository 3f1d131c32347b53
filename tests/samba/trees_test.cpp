// SPDX-License-Identifier: LGPL-3.0-or-later
// The begin of a connection, the place of the tree, links in it, and two trees in one process.

#include <sys/shm.h>
#include <sys/stat.h>
#include <algorithm>
#include <filesystem>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

using Names = std::set<std::string>;

const Names kTeamHas{"Docs", "Drop", "Gallery", "NotInMap", "report.txt"};

class Trees : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    write_file("/scratch/data.txt", "some data\n");
  }
  static void edit(const std::string& sed) { bash("sed -i '" + sed + "' /scratch/samba/smb.conf"); }
  // A second share of the tree, with options of its own.
  static void add_share(const Lines& options) {
    std::string text = "\n[second]\n  path = /tavrix\n  read only = no\n  case sensitive = yes\n";
    text += "  aio read size = 0\n  aio write size = 0\n  vfs objects = " + module_name() + "\n";
    for (const std::string& option : options) text += "  " + option + "\n";
    write_file("/scratch/samba/smb.conf", read_file("/scratch/samba/smb.conf") + text);
  }
  static std::string connect(const Lines& options) {
    std::vector<std::string> command{
        "smbclient", "-s", "/scratch/samba/smb.conf", "//127.0.0.1/tavrix", "-U", "Anna%Anna",
        "-c",        "ls"};
    command.insert(command.end(), options.begin(), options.end());
    const Outcome outcome = run_program(command);
    return outcome.out + outcome.err;
  }
  // The number of the tree that the client works in.
  static std::string tid(Client& client) {
    const std::string said = client.say("tid");
    const auto from = said.find("tid is ") + 7;
    return said.substr(from, said.find('\n', from) - from);
  }
  static bool was_logged(const std::string& text) {
    return smbd_log().find(text) != std::string::npos;
  }
};

// --- the begin of a connection
// --------------------------------------------------------------------

TEST_F(Trees, AreRefusedToClientsOfTheFirstProtocol) {
  edit("s|smb ports = 445|smb ports = 445\\n  server min protocol = NT1|");
  start_smbd();
  EXPECT_FALSE(succeeded(connect({"--option=client min protocol=NT1", "-m", "NT1"})));
  EXPECT_TRUE(was_logged("a client of SMB1 is refused"));
  EXPECT_TRUE(succeeded(connect({})));
}

TEST_F(Trees, AreOpenToThatProtocolWhereAnOptionSaysSo) {
  configure({"tavrix:allow smb1 = yes"});
  edit("s|smb ports = 445|smb ports = 445\\n  server min protocol = NT1|");
  start_smbd();
  EXPECT_TRUE(succeeded(connect({"--option=client min protocol=NT1", "-m", "NT1"})));
}

TEST_F(Trees, AreRefusedUntilTheSettingsAreLoaded) {
  const int block = shmget(ftok("/dev/null", 3456), 0, 0);
  ASSERT_EQ(0, shmctl(block, IPC_RMID, nullptr));
  start_smbd();
  EXPECT_FALSE(succeeded(smb("Anna", "ls")));
  EXPECT_TRUE(was_logged("the settings were never loaded"));
  share_settings();
  EXPECT_TRUE(succeeded(smb("Anna", "ls")));
}

TEST_F(Trees, ThatAreConnectedKeepTheirSettingsWhenTheBlockIsEmptied) {
  start_smbd();
  Client client("Anna");
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\A")));
  ASSERT_EQ(0, shmctl(shmget(ftok("/dev/null", 3456), 0, 0), IPC_RMID, nullptr));
  EXPECT_FALSE(succeeded(client.say("tcon tavrix"))) << "a new one";
  EXPECT_TRUE(was_logged("the settings were never loaded"));
}

TEST_F(Trees, TakeTheSettingsOfTheirOwnConnect) {
  start_smbd();
  Client client("Anna");
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\Before")));
  global_params[PARAM_DEFAULT_USER_ID].value.intval = 65534;
  share_settings();
  EXPECT_TRUE(succeeded(client.say("tcon tavrix")));
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\After")));
  struct stat st {};
  ASSERT_EQ(0, stat(full("Shared/Team/After").c_str(), &st));
  EXPECT_EQ(65534U, st.st_uid);
  EXPECT_EQ(1U, Client::servers().size()) << "one process";
}

TEST_F(Trees, ReadThePatternsAtTheirConnectAndForgetThoseOfBefore) {
  write_file("/scratch/patterns", "^~lock\\.\n");
  std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, "/scratch/patterns");
  global_params[PARAM_CHECK_REGEX_UNLINK].value.intval = 1;
  share_settings();
  for (const char* name : {"~lock.1", "~lock.2", "old.tmp"}) {
    make_file(std::string("Shared/Team/") + name);
  }
  start_smbd();
  Client client("Ben");
  EXPECT_FALSE(succeeded(client.say("rm Shared\\Team\\old.tmp")));
  EXPECT_TRUE(succeeded(client.say("rm Shared\\Team\\~lock.1")));
  write_file("/scratch/patterns", "\\.tmp$\n");
  EXPECT_TRUE(succeeded(client.say("tcon tavrix")));
  EXPECT_TRUE(succeeded(client.say("rm Shared\\Team\\old.tmp")));
  EXPECT_FALSE(succeeded(client.say("rm Shared\\Team\\~lock.2")));
}

class Streams : public Trees, public testing::WithParamInterface<const char*> {};

TEST_P(Streams, AreRefusedAtConnect) {
  edit(std::string("s|vfs objects = .*|vfs objects = ") + GetParam() + "|");
  start_smbd();
  EXPECT_FALSE(succeeded(smb("Anna", "put /scratch/data.txt Shared\\Team\\report.txt:stream")));
  EXPECT_TRUE(was_logged("named streams are not decided about"));
  EXPECT_FALSE(was_logged("PANIC"));
  EXPECT_EQ(Lines{}, new_events());
}

INSTANTIATE_TEST_SUITE_P(Of, Streams,
                         testing::Values("tavrix_debug streams_xattr", "tavrix_debug streams_depot",
                                         "streams_xattr tavrix_debug"),
                         [](const auto& instance) {
                           std::string name = instance.param;
                           std::ranges::replace(name, ' ', '_');
                           return name;
                         });

// --- two trees in one process -------------------------------------------------------------------

TEST_F(Trees, KnowTheirOwnReservedUser) {
  configure({"tavrix:reserved user = Anna"});
  add_share({"tavrix:reserved user = Ben"});
  start_smbd();
  Client client("Anna");
  const std::string first = tid(client);
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\Silent")));
  EXPECT_EQ(Lines{}, new_events()) << "the agent's";
  EXPECT_TRUE(succeeded(client.say("tcon second")));
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\Told")));
  EXPECT_EQ((Lines{"MKDIR Shared/Team/Told"}), new_events()) << "there Anna is a user";
  client.say("tid " + first);
  EXPECT_TRUE(succeeded(client.say("mkdir Shared\\Team\\SilentToo")));
  EXPECT_EQ(Lines{}, new_events()) << "and the agent again";
  EXPECT_EQ(1U, Client::servers().size());
}

TEST_F(Trees, GoOnWhenTheOtherOfTheirProcessEnds) {
  add_share({});
  start_smbd();
  Client client("Anna");
  const std::string first = tid(client);
  EXPECT_TRUE(succeeded(client.say("tcon second")));
  EXPECT_TRUE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\two")));
  client.say("tid " + first);
  bash("smbcontrol -s /scratch/samba/smb.conf smbd close-share second");
  for (int waited = 0; list(kStagingDir).empty() && waited < 5000; ++waited) usleep(1000);
  EXPECT_TRUE(succeeded(client.say("put /scratch/data.txt Shared\\Team\\one")));
  EXPECT_FALSE(succeeded(client.say("put /scratch/data.txt Shared\\Closed\\one")));
  EXPECT_EQ("CREATE Shared/Team/two", new_events().at(0));
  EXPECT_EQ(1U, Client::servers().size());
}

// --- the place of the tree
// ------------------------------------------------------------------------

class TreesElsewhere : public Trees, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    Trees::SetUp();
    if (GetParam() == std::string("Link")) {
      ASSERT_EQ(0, rename("/tavrix", "/realtree"));
      ASSERT_EQ(0, symlink("/realtree", "/tavrix"));
    }
    if (GetParam() == std::string("LinkOfLink")) {
      ASSERT_EQ(0, rename("/tavrix", "/realtree"));
      ASSERT_EQ(0, symlink("/scratch/step", "/tavrix"));
      ASSERT_EQ(0, symlink("/realtree", "/scratch/step"));
    }
    if (GetParam() == std::string("BindMount")) {
      bash("mv /tavrix /realtree; mkdir /tavrix; mount --bind /realtree /tavrix");
    }
    if (GetParam() == std::string("SlashAtTheEnd")) edit("s|path = /tavrix|path = /tavrix/|");
    if (GetParam() == std::string("ShareByLink")) {
      ASSERT_EQ(0, symlink("/tavrix", "/scratch/door"));
      edit("s|path = /tavrix|path = /scratch/door|");
    }
  }
};

TEST_P(TreesElsewhere, AreDecidedAlike) {
  start_smbd();
  EXPECT_EQ((Names{"Private", "Shared"}), listing("Anna", ""));
  EXPECT_EQ((Names{"Lobby", "Team"}), listing("Ben", "Shared"));
  EXPECT_EQ(kTeamHas, listing("Ben", "Shared\\Team"));
  EXPECT_EQ(Names{}, listing("StandardUser", ""));
  EXPECT_TRUE(denied(smb("Ben", "put /scratch/data.txt Shared\\Team\\new.txt")));
  EXPECT_FALSE(succeeded(smb("Ben", "ls Shared\\Closed\\*")));
  EXPECT_FALSE(succeeded(smb("Olga", "get Private\\pat\\diary.txt /scratch/got")));
  EXPECT_TRUE(denied(smb("Ben", "rename Shared\\Team\\Docs Shared\\Team\\Books")));
  EXPECT_TRUE(denied(smb("Ben", "rm Shared\\Team\\report.txt")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_P(TreesElsewhere, AreRecordedAlike) {
  configure({"tavrix:audit = yes"});
  if (GetParam() == std::string("SlashAtTheEnd")) edit("s|path = /tavrix|path = /tavrix/|");
  if (GetParam() == std::string("ShareByLink")) edit("s|path = /tavrix|path = /scratch/door|");
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna",
                            "cd Shared\\Team; put /scratch/data.txt a; rename a b; mkdir C; "
                            "rename b C\\b; rm C\\b; rmdir C; put /scratch/data.txt report.txt")));
  EXPECT_EQ(
      (Lines{"CREATE Shared/Team/a", "OPEN Shared/Team/a", "OPEN Shared/Team/a",
             "RENAME Shared/Team/a -> Shared/Team/b", "MKDIR Shared/Team/C",
             "RENAME Shared/Team/b -> Shared/Team/C/b", "UNLINK Shared/Team/C/b",
             "RMDIR Shared/Team/C", "OPEN Shared/Team/report.txt", "OPEN Shared/Team/report.txt"}),
      new_events());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
  EXPECT_TRUE(succeeded(smb("Ben", "get Shared\\Team\\report.txt /scratch/got")));
  for (const AuditRecord& record : audit_records()) {
    EXPECT_TRUE(record.path.starts_with("/tavrix/Shared/Team/")) << record.path;
  }
}

INSTANTIATE_TEST_SUITE_P(As, TreesElsewhere,
                         testing::Values("Link", "LinkOfLink", "BindMount", "SlashAtTheEnd",
                                         "ShareByLink"),
                         [](const auto& instance) { return std::string(instance.param); });

// --- links in the tree --------------------------------------------------------------------------

class Links : public Trees {
 protected:
  void SetUp() override {
    Trees::SetUp();
    make_file("Shared/Closed/secret.txt");
    link("../Closed", "Shared/Team/closed");
    link("../Closed/secret.txt", "Shared/Team/secret");
    link("Docs/plan.txt", "Shared/Team/plan");
    link("/scratch", "Shared/Team/out");
    link("/scratch/data.txt", "Shared/Team/outside");
    link("nothing", "Shared/Team/dangling");
  }
  static void link(const char* target, const char* name) {
    ASSERT_EQ(0, symlink(target, full(name).c_str()));
  }
  static std::string team(const std::string& user, const std::string& commands) {
    return smb(user, "cd Shared\\Team; " + commands);
  }
};

TEST_F(Links, AreDecidedByWhereTheyEnd) {
  start_smbd();
  for (const char* commands :
       {"ls closed", "ls closed\\*", "cd closed; ls", "get closed\\secret.txt /scratch/got",
        "get secret /scratch/got", "put /scratch/data.txt closed\\new.txt",
        "put /scratch/data.txt secret", "mkdir closed\\New", "allinfo secret"}) {
    EXPECT_FALSE(succeeded(team("Anna", commands))) << commands;
  }
  EXPECT_EQ("content\n", read_file(full("Shared/Closed/secret.txt")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_TRUE(succeeded(team("Administrator", "get secret /scratch/got; ls closed\\*")));
  EXPECT_TRUE(succeeded(team("Ben", "get plan /scratch/got")));
  EXPECT_TRUE(denied(team("Ben", "put /scratch/data.txt plan")));
}

TEST_F(Links, AreRecordedByWhereTheyEnd) {
  start_smbd();
  EXPECT_TRUE(succeeded(team("Anna", "put /scratch/data.txt plan")));
  EXPECT_TRUE(succeeded(team("Administrator", "put /scratch/data.txt closed\\new.txt")));
  EXPECT_EQ((Lines{"OPEN Shared/Team/Docs/plan.txt", "OPEN Shared/Team/Docs/plan.txt",
                   "CREATE Shared/Closed/new.txt", "OPEN Shared/Closed/new.txt",
                   "OPEN Shared/Closed/new.txt"}),
            new_events());
  EXPECT_EQ("some data\n", read_file(full("Shared/Team/Docs/plan.txt")));
}

TEST_F(Links, AreNobodysToRemoveOrRename) {
  start_smbd();
  for (const char* commands : {"rm secret", "rmdir closed", "rename closed other", "rm outside"}) {
    EXPECT_FALSE(succeeded(team("Anna", commands))) << commands;
  }
  const bool is_followed = follows_links_itself();
  EXPECT_EQ(is_followed, succeeded(team("Anna", "rename plan other")));
  EXPECT_EQ(is_followed, succeeded(team("Anna", "rm other")));
  for (const char* name : {"plan", "secret", "closed", "outside"}) {
    EXPECT_TRUE(std::filesystem::is_symlink(full(std::string("Shared/Team/") + name))) << name;
  }
  EXPECT_EQ(is_followed ? Lines({"RENAME Shared/Team/Docs/plan.txt -> Shared/Team/other",
                                 "UNLINK Shared/Team/other"})
                        : Lines{},
            new_events());
}

TEST_F(Links, WithoutATargetMakeItInTheTreeOrNothing) {
  start_smbd();
  const bool is_followed = follows_links_itself();
  EXPECT_EQ(is_followed, succeeded(team("Anna", "put /scratch/data.txt dangling")));
  EXPECT_EQ(is_followed, exists(full("Shared/Team/nothing")));
  const Lines told = new_events();
  EXPECT_EQ(is_followed, !told.empty() && told[0] == "CREATE Shared/Team/nothing");
  EXPECT_EQ(is_followed, !told.empty());
}

class LinksOut : public Links, public testing::WithParamInterface<const char*> {};

TEST_P(LinksOut, ReachNothing) {
  configure({std::string("wide links = ") + GetParam()});
  edit("s|smb ports = 445|smb ports = 445\\n  allow insecure wide links = yes|");
  write_file("/scratch/victim", "content\n");
  bash("chmod -R a+rwX /scratch/victim; mkdir -m 777 /scratch/folder");
  start_smbd();
  for (const char* user : {"Anna", "Administrator"}) {
    for (const char* commands :
         {"get outside /scratch/got", "put /scratch/data.txt out\\victim",
          "get out\\data.txt /scratch/got", "ls out\\*", "mkdir out\\folder\\new", "rm out\\victim",
          "rename report.txt out\\folder\\x", "get dangling /scratch/got"}) {
      EXPECT_FALSE(succeeded(team(user, commands))) << user << " " << commands;
    }
  }
  EXPECT_EQ(GetParam() == std::string("yes"), was_logged("\"wide links\" must be off"));
  EXPECT_EQ("content\n", read_file("/scratch/victim"));
  EXPECT_TRUE(list("/scratch/folder").empty());
  EXPECT_EQ(Lines{}, new_events());
}

INSTANTIATE_TEST_SUITE_P(With, LinksOut, testing::Values("no", "yes"), [](const auto& instance) {
  return "WideLinks_" + std::string(instance.param);
});

TEST_F(Trees, AreRefusedWhereAShareLeadsOut) {
  ASSERT_EQ(0, symlink("/scratch", full("Shared/out").c_str()));
  edit("s|path = /tavrix|path = /tavrix/Shared/out|");
  start_smbd();
  EXPECT_FALSE(succeeded(smb("Anna", "ls")));
  EXPECT_TRUE(was_logged("the share must be /tavrix or a folder in it"));
}

}  // namespace
}  // namespace tavrix::test
