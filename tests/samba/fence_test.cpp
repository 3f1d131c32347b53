// SPDX-License-Identifier: LGPL-3.0-or-later
// A node of a cluster serves nobody without a lease: nobody may connect, and open connections end.

#include "tests/samba/lease.hpp"
#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class Fence : public WireClients {
 protected:
  void SetUp() override {
    WireClients::SetUp();
    make_private_run();
    write_file("/scratch/data.txt", "some data\n");
    configure({"tavrix:fence = yes"});
    start_smbd();
  }
  static std::string list_team() { return smb("Anna", "ls Shared\\Team\\*"); }
  static testing::AssertionResult is_kept_out() {
    const std::string answer = list_team();
    return testing::AssertionResult(answer.find("tree connect failed") != std::string::npos)
           << answer;
  }
  static bool comes_to_no_server() {
    for (int tries = 0; tries < 2000 && !Client::servers().empty(); ++tries) usleep(10'000);
    return Client::servers().empty();
  }
};

TEST_F(Fence, KeepsClientsOutWithoutALeaseAndLetsThemInWithOne) {
  EXPECT_TRUE(is_kept_out());
  EXPECT_TRUE(smbd_log().find("this node has no lease") != std::string::npos);
  lease_for(-1);
  EXPECT_TRUE(is_kept_out());
  lease_for(3600);
  EXPECT_TRUE(succeeded(list_team()));
}

TEST_F(Fence, TakesNoFileOfAnotherLayoutForALease) {
  for (const std::string& content :
       {std::string(), std::string("TVXLEASE"), std::string(24, '\xff')}) {
    write_file(TAVRIX_LEASE_FILE, content);
    EXPECT_TRUE(is_kept_out());
  }
}

TEST_F(Fence, EndsAnIdleConnectionWhenTheLeaseEnds) {
  lease_for(3);
  Client client("Anna");
  ASSERT_TRUE(succeeded(client.say("ls Shared\\Team\\*")));
  EXPECT_TRUE(comes_to_no_server());
  EXPECT_TRUE(smbd_log().find("so this session ends") != std::string::npos);
  EXPECT_EQ("", trouble_of_smbd());
}

// The alarm is set to a later time than the lease has now: the request itself finds it over.
TEST_F(Fence, RefusesARequestAfterTheEndAndEndsTheConnection) {
  lease_for(3600);
  Client client("Anna");
  ASSERT_TRUE(succeeded(client.say("ls Shared\\Team\\*")));
  lease_for(-1);
  EXPECT_FALSE(static_cast<bool>(succeeded(client.say("put /scratch/data.txt Shared\\Team\\x"))));
  EXPECT_FALSE(exists("/tavrix/Shared/Team/x"));
  EXPECT_TRUE(comes_to_no_server());
  EXPECT_EQ("", trouble_of_smbd());
}

TEST_F(Fence, LeavesConnectionsAloneWhileTheLeaseIsRenewed) {
  lease_for(2);
  Client client("Anna");
  for (int i = 0; i < 10; ++i) {
    lease_for(3600);
    ASSERT_TRUE(succeeded(client.say("ls Shared\\Team\\*"))) << i;
    usleep(300'000);
  }
  EXPECT_EQ(1U, Client::servers().size());
}

TEST_F(Fence, IsNotThereUnlessItIsAskedFor) {
  stop_smbd();
  configure({});
  start_smbd();
  EXPECT_TRUE(succeeded(list_team()));
}

}  // namespace
}  // namespace tavrix::test
