// SPDX-License-Identifier: LGPL-3.0-or-later
// Readers of dump files on a cluster see the files of all nodes, in order of time.

#include <algorithm>
#include <csignal>
#include <sstream>

#include "tests/tools/nodes.hpp"
#include "tools/events/dump_folder.hpp"
#include "utils/staging/history_link.hpp"

namespace tavrix::test {
namespace {

class NodeDumps : public Nodes {
 protected:
  static std::string framed(const Malloced<staging_data_s>& record) {
    return {reinterpret_cast<const char*>(record.get()), record->size + sizeof(staging_data_s)};
  }
  static std::string event(const std::string& path, int second) {
    VFSEvent event = VFSEVENT__INIT;
    event.path = const_cast<char*>(path.c_str());
    event.time_sec = 1700000000 + second;
    event.uid = 1001;  // events of the reserved user are not recorded
    return framed(Malloced<staging_data_s>(create_staging_data_buf(&event)));
  }
  static std::string audit(const std::string& path, int second) {
    AuditEvent event = AUDIT_EVENT__INIT;
    event.path = const_cast<char*>(path.c_str());
    event.time_sec = 1700000000 + second;
    event.uid = 1001;
    return framed(Malloced<staging_data_s>(create_audit_data_buf(&event)));
  }
  static void leave(const std::string& file, const std::string& bytes) {
    make_dirs(file.substr(0, file.rfind('/')));
    write_file(file, bytes);
  }
  // Dumps of two nodes whose events take turns.
  static void leave_dumps() {
    leave("/scratch/staging/beta/pending_7_1.000001", event("2", 2) + event("4", 4));
    leave("/scratch/staging/alpha/pending_7_1.000001", event("1", 1) + event("3", 3));
    leave("/scratch/staging/alpha/txtempAAAAAA", "unfinished");
  }
  // "PATH@NODE" of each line.
  static Paths seen(const std::string& lines) {
    Paths all;
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
      const auto record = nlohmann::json::parse(line);
      all.push_back(std::string(record["path"]) + "@" + record.value("node", "-"));
    }
    return all;
  }
  static Paths decode(std::vector<std::string> words, const char* kind = "events") {
    words.insert(words.begin(), {kind, "decode"});
    const Outcome outcome = ctl(words);
    EXPECT_EQ(0, outcome.exit_code) << outcome.err;
    return seen(outcome.out);
  }
};

TEST_F(NodeDumps, OfAFolderComeInOrderOfTimeWithTheirNodes) {
  leave_dumps();
  EXPECT_EQ((Paths{"1@alpha", "2@beta", "3@alpha", "4@beta"}), decode({kStaging}));
  EXPECT_EQ((Paths{"1@alpha"}), decode({kStaging, "--path", "1"}));
}

TEST_F(NodeDumps, OfOneMachineHaveNoNode) {
  leave("/scratch/staging/pending_7_1.000001", event("1", 1));
  EXPECT_EQ(Paths{"1@-"}, decode({kStaging}));
  EXPECT_EQ(Paths{"1@-"}, decode({"/scratch/staging/pending_7_1.000001"}));
}

TEST_F(NodeDumps, ThatAreNamedThemselvesHaveTheNodeThatTheSettingsTell) {
  leave_dumps();
  const std::string file = "/scratch/staging/beta/pending_7_1.000001";
  EXPECT_EQ((Paths{"2@-", "4@-"}), decode({file}));
  join_cluster();
  EXPECT_EQ((Paths{"2@beta", "4@beta"}), decode({file}));
  leave("/scratch/elsewhere/beta/pending_1_1.000001", event("5", 5));
  EXPECT_EQ(Paths{"5@-"}, decode({"/scratch/elsewhere/beta/pending_1_1.000001"}));
}

TEST_F(NodeDumps, AreCountedByNode) {
  leave_dumps();
  const auto counts = nlohmann::json::parse(ctl({"events", "decode", "--stats", kStaging}).out);
  EXPECT_EQ(4, counts["records"]);
  EXPECT_EQ(2, counts["by_node"]["beta"]);
  leave("/scratch/alone/pending_7_1.000001", event("1", 1));
  EXPECT_FALSE(nlohmann::json::parse(ctl({"events", "decode", "--stats", "/scratch/alone"}).out)
                   .contains("by_node"));
}

TEST_F(NodeDumps, OfAuditsAreReadAlike) {
  leave("/scratch/auditing/beta/pending_7_1.000001", audit("late", 2));
  leave("/scratch/auditing/alpha/pending_8_1.000001", audit("early", 1));
  EXPECT_EQ((Paths{"early@alpha", "late@beta"}), decode({kAuditing}, "audit"));
}

TEST_F(NodeDumps, AreFollowedAlsoInFoldersThatComeLater) {
  leave("/scratch/staging/alpha/pending_7_1.000001", event("first", 1));
  Child follower([] {
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "events", "decode", "--follow",
          kStaging, nullptr);
  });
  const auto shows = [&](const char* name) {
    return comes([&] { return contains(follower.out_so_far(), name); });
  };
  EXPECT_TRUE(shows("first"));
  write_file("/scratch/new", event("second", 2));
  make_dirs("/scratch/staging/beta");
  ASSERT_EQ(0, rename("/scratch/new", "/scratch/staging/beta/pending_7_1.000001"));
  EXPECT_TRUE(shows("second"));
  ::kill(follower.pid(), SIGTERM);
  EXPECT_EQ((Paths{"first@alpha", "second@beta"}), seen(follower.wait().out));
}

TEST_F(NodeDumps, AreNotSoughtInFoldersOfOtherThings) {
  leave("/scratch/tree/docs/letter.txt", "");
  const Outcome outcome = ctl({"events", "decode", "/scratch/tree"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "/scratch/tree has other files and no dump files"));
  make_dirs("/scratch/empty/alpha");
  EXPECT_TRUE(decode({"/scratch/empty"}).empty());
  EXPECT_FALSE(events::look_into("/scratch/empty").is_another);
}

TEST_F(NodeDumps, OfAllNodesAreInTheStatus) {
  leave_dumps();
  EXPECT_FALSE(json({"status", "--settings", kConf}).contains("cluster"));
  join_cluster();
  const auto status = json({"status", "--settings", kConf});
  EXPECT_EQ("/scratch/staging/alpha", status["events"]["folder"]);
  ASSERT_EQ(2U, status["cluster"]["nodes"].size());
  EXPECT_EQ("alpha", status["cluster"]["node"]);
  EXPECT_EQ("beta", status["cluster"]["nodes"][1]["node"]);
  EXPECT_EQ(1, status["cluster"]["nodes"][1]["events"]["count"]);
  EXPECT_TRUE(status["cluster"]["nodes"][1]["events"].contains("oldest"));
  const std::string screen = ctl({"status", "--settings", kConf}).out;
  EXPECT_TRUE(contains(screen, "node beta    1 file waits for the agent")) << screen;
  EXPECT_FALSE(contains(screen, "node alpha")) << screen;
}

// The mark of the historian lies in the shared tree, and one node keeps the history of all.
TEST_F(NodeDumps, AreKeptByTheHistorianOfAnotherNode) {
  write_file("/tavrix/.conf/historian.running", "");
  EXPECT_EQ(3U, json({"status", "--settings", kConf})["services"].size());
  join_cluster();
  EXPECT_EQ(2U, json({"status", "--settings", kConf})["services"].size());
}

// --- the historian -------------------------------------------------------------------------------

class NodeHistory : public NodeDumps {
 protected:
  void SetUp() override {
    NodeDumps::SetUp();
    join_cluster(kDatabase);
  }
  static constexpr const char* kFile = "/scratch/history/history.db";
  static constexpr const char* kDatabase = "[HISTORIAN]\ndatabase = /scratch/history/history.db\n";
  static Outcome keep() {
    return run_program({TAVRIX_BUILD_DIR "/tools/tavrix-historian", "--once", "--settings", kConf});
  }
  // "PATH@NODE" of each record, in order of time.
  static Paths kept() {
    Paths all;
    const auto page = json({"history", "search", "--reads", "--database", kFile});
    for (const auto& record : page["records"])
      all.push_back(std::string(record["path"]) + "@" + record.value("node", "-"));
    std::ranges::reverse(all);
    return all;
  }
};

TEST_F(NodeHistory, HasTheDumpsOfAllNodesThatWaited) {
  leave_dumps();
  EXPECT_TRUE(keep().ok()) << keep().err;
  EXPECT_EQ((Paths{"1@alpha", "2@beta", "3@alpha", "4@beta"}), kept());
}

// A link never replaces another file: the second one gets a number behind its name.
TEST_F(NodeHistory, HasBothOfTwoDumpsOfOneName) {
  EXPECT_TRUE(keep().ok());
  leave("/scratch/alpha", event("1", 1));
  leave("/scratch/beta", event("2", 2));
  for (const char* file : {"/scratch/alpha", "/scratch/beta"}) {
    link_for_history(file, HistoryKind::kEvents, "pending_7_1700000000.000001");
  }
  EXPECT_EQ((Paths{"events.pending_7_1700000000.000001", "events.pending_7_1700000000.000001.1"}),
            list("/tavrix/.conf/history"));
  EXPECT_TRUE(keep().ok());
  EXPECT_EQ((Paths{"1@-", "2@-"}), kept()) << "a library of before named no node";
}

TEST_F(NodeHistory, HasTheFlushesOfEachNode) {
  EXPECT_TRUE(keep().ok());
  const OtherNode beta("beta");
  EXPECT_TRUE(beta.run([] {
                    join_cluster(kDatabase);
                    once();
                    send("of beta");
                    EXPECT_EQ(0, once().exit_code);
                  })
                  .ok());
  once();
  send("of alpha");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_TRUE(keep().ok());
  EXPECT_EQ((Paths{"of alpha@alpha", "of beta@beta"}), sorted(kept()));
}

}  // namespace
}  // namespace tavrix::test
