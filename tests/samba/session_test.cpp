// SPDX-License-Identifier: LGPL-3.0-or-later
// A server process keeps the map and the staging buffer attached between requests, and in rest
// nothing. A new map is seen by the next request, whatever is kept.

#include <fcntl.h>
#include <sys/stat.h>
#include <fstream>

#include "tests/samba/resources.hpp"
#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class Sessions : public WireClients {
 protected:
  void SetUp() override {
    WireClients::SetUp();
    write_file("/scratch/data.txt", "some data\n");
  }
  static pid_t only_server() {
    const auto servers = Client::servers();
    EXPECT_EQ(1U, servers.size());
    return servers.empty() ? 0 : servers.front();
  }
  // Works until the process is seen with something attached: it may come to rest between its answer
  // and the look.
  static bool keeps_something(Client& client, pid_t server) {
    for (int tries = 0; tries < 100; ++tries) {
      client.say("ls Shared\\Team\\*");
      if (attachments_of(server) > 0) return true;
    }
    return false;
  }
  // Tells the connections of a new map, with a time that no earlier one had.
  static void touch_refresh_file() {
    static time_t when = time(nullptr) + 5;
    when += 5;
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, "/etc/tavrix/permission_refresh", times, 0));
  }
};

TEST_F(Sessions, KeepTheTableBetweenRequestsAndNothingInRest) {
  start_smbd();
  Client client("Anna");
  client.say("ls");
  const pid_t server = only_server();
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(keeps_something(client, server));
    EXPECT_TRUE(comes_to_rest(server));
  }
}

TEST_F(Sessions, KeepTheStagingBufferToo) {
  start_smbd();
  Client client("Anna");
  client.say("ls");
  const pid_t server = only_server();
  int most = 0;
  for (int tries = 0; tries < 100 && most < 2; ++tries) {
    client.say("put /scratch/data.txt Shared\\Team\\x");
    most = std::max(most, attachments_of(server));
  }
  EXPECT_EQ(2, most);
  EXPECT_TRUE(comes_to_rest(server));
}

// A timer that was set again and again would wake the process four times a second.
TEST_F(Sessions, LeaveNoTimerBehindInRest) {
  start_smbd();
  Client client("Anna");
  client.say("put /scratch/data.txt Shared\\Team\\x");
  const pid_t server = only_server();
  EXPECT_TRUE(comes_to_rest(server));
  const long before = waits_of(server);
  usleep(2'500'000);
  EXPECT_LE(waits_of(server) - before, 5);
}

TEST_F(Sessions, InRestPinNoOldTable) {
  start_smbd();
  const int segments = segments_in_use();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(std::make_unique<Client>("Anna"));
    EXPECT_TRUE(succeeded(clients.back()->say("ls Shared\\Team\\*")));
  }
  for (int maps = 0; maps < 7; ++maps) publish_team({{kAnna.uid, 7}}, {});
  EXPECT_TRUE(comes([&] { return segments_in_use() == segments; })) << segments_in_use();
  EXPECT_TRUE(succeeded(clients.front()->say("put /scratch/data.txt Shared\\Team\\x")));
}

// The process never rests, and each map is decided about at once: by the decisions without the
// refresh file, by cached verdicts after it was touched.
TEST_F(Sessions, OfABusyConnectionSeeANewMapWithTheNextRequest) {
  start_smbd();
  Client client("Anna");
  for (int round = 0; round < 8; ++round) {
    const bool may_write = round % 2 == 1;
    for (int i = 0; i < 5; ++i) client.say("get Shared\\Team\\report.txt /dev/null");
    publish_team({{kAnna.uid, static_cast<uint16_t>(may_write ? 7 : 1)}}, {});
    EXPECT_EQ(
        may_write,
        static_cast<bool>(succeeded(client.say("put /scratch/data.txt Shared\\Team\\report.txt"))))
        << round;
  }
  for (int round = 0; round < 8; ++round) {
    const bool may_see = round % 2 == 1;
    for (int i = 0; i < 5; ++i) client.say("ls Shared\\Lobby\\*");
    publish_team({{kAnna.uid, static_cast<uint16_t>(may_see ? 7 : 0)}}, {});
    touch_refresh_file();
    EXPECT_EQ(may_see, static_cast<bool>(succeeded(client.say("ls Shared\\Team\\report.txt"))))
        << round;
  }
}

TEST_F(Sessions, OfARestingConnectionSeeANewMapWithTheNextRequest) {
  start_smbd();
  Client client("Anna");
  EXPECT_TRUE(succeeded(client.say("ls Shared\\Team\\report.txt")));
  EXPECT_TRUE(comes_to_rest(only_server()));
  publish_team({{kAnna.uid, 0}}, {});
  touch_refresh_file();
  EXPECT_FALSE(succeeded(client.say("ls Shared\\Team\\report.txt")));
}

// One process serves both trees. The timer goes with the first of them, and nothing stays.
TEST_F(Sessions, OfTwoTreesRestWhenTheOneThatWorkedEnds) {
  bash(
      "sed -n '/^.tavrix.$/,$p' $samba_folder/smb.conf | sed 's/^.tavrix.$/[other]/' "
      ">/scratch/other; cat /scratch/other >>$samba_folder/smb.conf");
  start_smbd();
  Child client([] {
    EXPECT_EQ("b'content'\n", wire("Anna",
                                   "first, other = me.tree, me.smb.connectTree('other')\n"
                                   "me.close(me.open('Shared\\\\Team\\\\report.txt'))\n"
                                   "me.smb.disconnectTree(first)\n"
                                   "open('/scratch/ended', 'w').close()\n"
                                   "while not os.path.exists('/scratch/go'): time.sleep(0.01)\n"
                                   "me.tree = other\n"
                                   "h = me.open('Shared\\\\Team\\\\report.txt')\n"
                                   "print(me.read(h, 7))\n"));
  });
  EXPECT_TRUE(comes([] { return exists("/scratch/ended"); }));
  EXPECT_TRUE(comes_to_rest(only_server()));
  write_file("/scratch/go", "");
  const Outcome outcome = client.wait();
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  EXPECT_EQ("", trouble_of_smbd());
}

}  // namespace
}  // namespace tavrix::test
