// SPDX-License-Identifier: LGPL-3.0-or-later
// Names with a process in them lie in a folder of their node in the shared tree: dump files and
// notes of open files.

#include "tools/cluster/node_folders.hpp"

#include <sys/stat.h>

#include "tests/tools/nodes.hpp"
#include "tools/cluster/node.hpp"
#include "tools/notes/open_notes.h"

namespace tavrix::test {
namespace {

class NodeFolders : public Nodes {
 protected:
  static open_note note_of(const std::string& path) {
    write_file(path, "changed");
    struct stat info {};
    EXPECT_EQ(0, stat(path.c_str(), &info));
    open_note note{};
    const changing_file file = {
        .inode = info.st_ino, .uid = 1001, .user = "anna", .path = path.c_str()};
    EXPECT_EQ(0, write_open_note(&note, &file));
    return note;
  }
  // Leaves the note of a process that has ended.
  static void leave_note(const std::string& path) {
    EXPECT_TRUE(in_child([&] { note_of(path); }).ok());
  }
  static std::size_t notes_in(const std::string& folder) {
    return exists(folder) ? list(folder).size() : 0;
  }
};

// --- dump files ----------------------------------------------------------------------------------

TEST_F(NodeFolders, AreThoseOfTheSettingsOnAMachineAlone) {
  EXPECT_EQ("/scratch/staging", setting("SWEEPER:staging dir"));
  settings(65536, 1, "auditing dir = /scratch/auditing\n[CLUSTER]\nenabled = no\n");
  EXPECT_EQ("/scratch/staging", setting("SWEEPER:staging dir"));
  EXPECT_TRUE(list(kStaging).empty());
}

TEST_F(NodeFolders, AreMadeWhenTheSettingsAreLoaded) {
  join_cluster();
  EXPECT_EQ("/scratch/staging/alpha", setting("SWEEPER:staging dir"));
  EXPECT_EQ("/scratch/auditing/alpha", setting("SWEEPER:auditing dir"));
  struct stat info {};
  ASSERT_EQ(0, stat("/scratch/staging/alpha", &info));
  EXPECT_EQ(S_IFDIR | 0700U, info.st_mode);
  EXPECT_TRUE(exists("/scratch/auditing/alpha"));
}

TEST_F(NodeFolders, EndWithTheHostNameUpToItsFirstDot) {
  name_host("alpha.example.org");
  join_cluster();
  EXPECT_EQ("/scratch/staging/alpha", setting("SWEEPER:staging dir"));
}

TEST_F(NodeFolders, AreMadeByASweeperThatFillsTheBlock) {
  write_settings(65536, 1, of_cluster());
  const auto sweeper = daemon({.with_file = true});
  EXPECT_EQ("/scratch/staging/alpha", setting("SWEEPER:staging dir"));
  use_settings();
  send("a");
  EXPECT_TRUE(comes([] { return list("/scratch/staging/alpha").size() == 1; }));
  EXPECT_TRUE(stop(*sweeper).ok());
  EXPECT_EQ(Paths{"alpha"}, list(kStaging));
}

TEST_F(NodeFolders, AreNoDifferenceBetweenTheBlockAndItsFile) {
  join_cluster();
  const auto status = json({"status", "--settings", kConf});
  EXPECT_FALSE(status["settings"].contains("differing") && !status["settings"]["differing"].empty())
      << status["settings"];
}

TEST_F(NodeFolders, NeedAHostNameThatIsAName) {
  name_host("(none)");
  write_settings(65536, 1, of_cluster());
  const Outcome outcome = ctl({"config", "load", kConf});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the host name is no name of a node")) << outcome.err;
  EXPECT_EQ("/scratch/staging", setting("SWEEPER:staging dir"));
}

TEST_F(NodeFolders, MayNotMakeAPathThatCutsTheNamesOfDumpFiles) {
  const std::string folder = "/scratch/" + std::string(186, 'x');
  for (const auto& [name, code] : {std::pair("alpha", 2), std::pair("a4321", 2), {"beta", 0}}) {
    name_host(name);
    write_file(kConf, "[SWEEPER]\nstaging dir = " + folder + "\n[CLUSTER]\nenabled = yes\n");
    const Outcome outcome = ctl({"config", "load", kConf});
    EXPECT_EQ(code, outcome.exit_code) << name << outcome.err;
    EXPECT_EQ(code == 2, contains(outcome.err, "more than 200 bytes")) << outcome.err;
  }
}

TEST_F(NodeFolders, KeepTheDumpsOfTwoNodesApart) {
  join_cluster();
  const OtherNode beta("beta");
  EXPECT_TRUE(beta.run([] {
                    join_cluster();
                    once();
                    send("of beta");
                    EXPECT_EQ(0, once().exit_code);
                  })
                  .ok());
  once();
  send("of alpha");
  EXPECT_EQ(0, once().exit_code);
  for (const std::string node : {"alpha", "beta"}) {
    const std::string folder = cluster::folder_of(kStaging, node);
    ASSERT_EQ(1U, list(folder).size()) << node;
    EXPECT_EQ(Paths{"of " + node}, paths_in(read_file(folder + "/" + list(folder)[0])));
  }
}

TEST_F(NodeFolders, AreListedByName) {
  for (const char* name : {"beta", "alpha", ".hidden"}) {
    make_dirs(std::string(kStaging) + "/" + name);
  }
  write_file(std::string(kStaging) + "/pending_1_1.000001", "");
  EXPECT_EQ((Paths{"alpha", "beta"}), cluster::nodes_in(kStaging));
  EXPECT_TRUE(cluster::nodes_in("/scratch/none").empty());
}

// --- notes of open files -------------------------------------------------------------------------

TEST_F(NodeFolders, HaveNoNotesOnAMachineAlone) {
  open_note note = note_of("/tavrix/a");
  EXPECT_EQ(Paths{note.name}, list(kNotes));
  remove_open_note(&note);
  EXPECT_TRUE(list(kNotes).empty());
}

// The two folders of dump files may end with one name by chance.
TEST_F(NodeFolders, HaveNotesOnlyWhereBothFoldersEndWithTheHostName) {
  const auto place = [](const std::string& staging, const std::string& auditing) {
    strcpy(global_params[PARAM_STAGING_DIR].value.strval, staging.c_str());
    strcpy(global_params[PARAM_AUDITING_DIR].value.strval, auditing.c_str());
    open_note note = note_of("/tavrix/a");
    const std::string name = note.name;
    remove_open_note(&note);
    return name.substr(0, name.find('/') + 1);
  };
  EXPECT_EQ("alpha/", place("/s/alpha", "/a/alpha"));
  EXPECT_EQ("", place("/s/beta", "/a/beta"));
  EXPECT_EQ("", place("/s/alpha", "/s/alpha"));
  EXPECT_EQ("", place("/s/alpha", "/a/beta"));
  EXPECT_EQ("", place("alpha", "alpha"));
}

TEST_F(NodeFolders, HaveTheNotesOfANode) {
  join_cluster();
  open_note note = note_of("/tavrix/a");
  EXPECT_EQ(Paths{"alpha"}, list(kNotes));
  EXPECT_EQ(1U, notes_in("/tavrix/.conf/changing/alpha"));
  remove_open_note(&note);
  EXPECT_EQ(0U, notes_in("/tavrix/.conf/changing/alpha"));
}

TEST_F(NodeFolders, AreSettledByTheirOwnNode) {
  join_cluster();
  once();
  leave_note("/tavrix/a");
  const OtherNode beta("beta");
  EXPECT_TRUE(beta.run([] {
                    join_cluster();
                    leave_note("/tavrix/b");
                  })
                  .ok());
  EXPECT_EQ(1, settle_open_notes());
  EXPECT_EQ(0U, notes_in("/tavrix/.conf/changing/alpha"));
  EXPECT_EQ(1U, notes_in("/tavrix/.conf/changing/beta"));
  EXPECT_EQ(0, once().exit_code);
  const std::string folder = "/scratch/staging/alpha/";
  ASSERT_EQ(1U, list(folder).size());
  EXPECT_EQ(Paths{"/tavrix/a"}, paths_in(read_file(folder + list(folder)[0])));
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(NodeFolders, OfOldConnectionsAreSettledOnTheirOwnMachine) {
  once();
  leave_note("/tavrix/a");
  join_cluster();
  const OtherNode beta("beta");
  EXPECT_TRUE(beta.run([] {
                    join_cluster();
                    once();
                    EXPECT_EQ(0, settle_open_notes());
                  })
                  .ok());
  EXPECT_EQ(1, settle_open_notes());
}

TEST_F(NodeFolders, OfAnotherNodeAreSettledOnRequest) {
  EXPECT_EQ(-1, settle_open_notes_of("beta"));
  join_cluster();
  once();
  const OtherNode beta("beta");
  EXPECT_TRUE(beta.run([] {
                    join_cluster();
                    leave_note("/tavrix/b");
                  })
                  .ok());
  EXPECT_EQ(1, settle_open_notes_of("beta"));
  EXPECT_EQ(0, settle_open_notes_of("beta"));
  EXPECT_EQ(0, settle_open_notes_of("gamma"));
  EXPECT_EQ(0U, notes_in("/tavrix/.conf/changing/beta"));
}

}  // namespace
}  // namespace tavrix::test
