// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl cluster status, drain and resume, with a "ctdb" that answers as the tests want it.

#include <algorithm>

#include "tests/tools/operator.hpp"
#include "tests/tools/two_nodes.hpp"
#include "tools/cluster/members_ctdb.hpp"

namespace tavrix::test {
namespace {

class ClusterStatus : public Operator {
 protected:
  void SetUp() override {
    Operator::SetUp();
    make_two_nodes();
  }
  static nlohmann::json row(int number) { return json({"cluster", "status"})["nodes"][number]; }
};

TEST_F(ClusterStatus, ShowsEachNodeWithItsAddressesAndItsMap) {
  const Outcome outcome = ctl({"cluster", "status"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.out << outcome.err;
  const auto second = row(1);
  EXPECT_EQ("node2", second["node"]);
  EXPECT_EQ("10.1.0.2", second["addresses"][0]);
  EXPECT_EQ(1, second["ctdb"]["number"]);
  EXPECT_EQ(7, second["generation"]);
  EXPECT_EQ(0, second["staged_records"]);
  EXPECT_EQ(0, second["clock_offset_seconds"]);
  EXPECT_TRUE(contains(outcome.out, "10.1.0.2")) << outcome.out;
}

TEST_F(ClusterStatus, CountsTheDumpFilesOfEachNode) {
  make_dirs("/tavrix/.conf/staging/node2");
  write_file("/tavrix/.conf/staging/node2/pending_1_1.000001", "12345678");
  EXPECT_EQ(1, row(1)["dumps"]);
  EXPECT_EQ(8, row(1)["dump_bytes"]);
  EXPECT_EQ(0, row(0)["dumps"]);
}

TEST_F(ClusterStatus, NamesANodeThatIsSilent) {
  tell_word("node2", 7, std::time(nullptr) - 100);
  const Outcome outcome = ctl({"cluster", "status"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "silent for 10")) << outcome.out;
}

TEST_F(ClusterStatus, NamesWhatDiffersBetweenNodes) {
  tell_word("node2", 7, std::time(nullptr), "another smb.conf");
  const Outcome outcome = ctl({"cluster", "status"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "differs between nodes: smb.conf\n")) << outcome.out;
}

TEST_F(ClusterStatus, NamesTheFlagsOfCtdb) {
  write_file("/scratch/disabled", "1");
  EXPECT_EQ(1, ctl({"cluster", "status"}).exit_code);
  EXPECT_EQ("disabled", row(1)["troubles"][0]);
}

TEST_F(ClusterStatus, GoesWithoutCtdb) {
  unlink("/scratch/bin/ctdb");
  install_ctdb("exit 1");
  const auto document = json({"cluster", "status"});
  EXPECT_EQ(false, document["ctdb"]);
  EXPECT_EQ(2U, document["nodes"].size());
}

TEST_F(ClusterStatus, NeedsANode) {
  write_file("/etc/tavrix/tavrix.conf", "");
  const Outcome outcome = ctl({"cluster", "status"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "this machine is no node of a cluster")) << outcome.err;
}

// A word of another release, or one that is damaged, is no word.
TEST_F(ClusterStatus, ReadsNoDamagedWord) {
  for (const char* text : {"", "[]", "{}", R"({"boot": 7})"}) {
    write_file("/tavrix/.conf/cluster/nodes/node2.json", text);
    EXPECT_EQ("it has told no state", row(1)["troubles"][0]) << text;
  }
  write_file("/tavrix/.conf/cluster/staged/node2.json", R"({"records": "many"})");
  EXPECT_FALSE(row(1).contains("staged_records"));
}

// --- drain and resume ----------------------------------------------------------------------------

TEST_F(ClusterStatus, DrainsANodeAndLetsItServeAgain) {
  for (const char* name : {"node2", "10.0.0.2", "1"}) {
    const Outcome drained = ctl({"cluster", "drain", name, "--seconds", "20"});
    EXPECT_EQ(0, drained.exit_code) << drained.err;
    EXPECT_EQ("node " + std::string(name) + " has no addresses and no events in memory\n",
              drained.out);
    EXPECT_EQ("disabled", row(1)["ctdb"]["flags"][0]);
    EXPECT_EQ(0, ctl({"cluster", "resume", name}).exit_code) << name;
    EXPECT_TRUE(row(1)["ctdb"]["flags"].empty());
  }
  EXPECT_FALSE(exists("/tavrix/.conf/tavrix_event_status.dirty"));
}

TEST_F(ClusterStatus, SaysThatEventsStayInADrainedNode) {
  tell_staged("node2", 3);
  const Outcome outcome = ctl({"cluster", "drain", "node2", "--seconds", "1"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "its events were not seen to be flushed within 1 s"))
      << outcome.err;
}

TEST_F(ClusterStatus, SaysThatAddressesStay) {
  install_ctdb("[ \"$*\" = '-n 1 disable' ] && exit 0");
  const Outcome outcome = ctl({"cluster", "drain", "node2", "--seconds", "1"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "still has addresses after 1 s")) << outcome.err;
}

TEST_F(ClusterStatus, SaysThatANodeIsNotWellYet) {
  write_file("/scratch/disabled", "1");
  install_ctdb("[ \"$*\" = '-n 1 enable' ] && exit 0");
  const Outcome outcome = ctl({"cluster", "resume", "node2", "--seconds", "1"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "\"tavrixctl health\" there says why")) << outcome.err;
}

TEST_F(ClusterStatus, KnowsNoOtherNodes) {
  EXPECT_TRUE(contains(ctl({"cluster", "drain", "node9"}).err, "CTDB knows no node \"node9\""));
  install_ctdb("exit 1");
  const Outcome outcome = ctl({"cluster", "drain", "node2"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "CTDB does not answer here")) << outcome.err;
}

// --- the tables of CTDB --------------------------------------------------------------------------

TEST(CtdbTables, HaveTheFlagsInTheirHead) {
  const auto nodes = cluster::nodes_in_status(
      "|Node|IP|Disconnected|Banned|ThisNode|\n|0|10.0.0.1|0|0|Y|\n|3|fd00::2|1|1|N|\nnoise\n|x|y|"
      "\n");
  ASSERT_EQ(2U, nodes.size());
  EXPECT_TRUE(nodes[0].is_this && nodes[0].flags.empty());
  EXPECT_EQ(3, nodes[1].number);
  EXPECT_EQ("fd00::2", nodes[1].address);
  EXPECT_TRUE(nodes[1].is("disconnected") && nodes[1].is("banned"));
  EXPECT_TRUE(cluster::nodes_in_status("").empty());
}

TEST(CtdbTables, HaveTheNodeOfEachAddress) {
  const auto addresses = cluster::addresses_in(
      "|Public IP|Node|ActiveInterface|\n|10.1.0.1|0|eth0|\n|10.1.0.2|-1||\n|fd00::1|2|eth0|\n");
  ASSERT_EQ(3U, addresses.size());
  EXPECT_EQ(-1, addresses[1].number);
  EXPECT_EQ("fd00::1", addresses[2].address);
}

}  // namespace
}  // namespace tavrix::test
