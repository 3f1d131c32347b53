// SPDX-License-Identifier: LGPL-3.0-or-later
// Deletions that one user asks for and the close of another user carries out. The rights and the
// event are those of the user who asked.

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class Deletions : public WireClients {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    start_smbd();
    make_folder("Shared/Team/Old");
    publish_team({}, {{kWriters, 7}, {kReaders, 1}});  // Anna's rights are her group's.
  }
  // Each of the two users has a server process of its own.
  static std::string asked_by_anna(const std::string& asker, const std::string& name,
                                   const std::string& kind = "0") {
    return wire(kBen, "anna = Client('" + asker + "')\n" + "a = anna.open('" + name +
                          "', DELETE | FILE_READ_ATTRIBUTES, FILE_OPEN, " + kind + ")\n" +
                          "b = me.open('" + name + "', READ, FILE_OPEN, " + kind + ")\n" +
                          "anna.delete(a)\nanna.close(a)\n" + "print(os.path.exists('/tavrix/" +
                          name + "'))\nme.close(b)\n");
  }
  static uid_t uid_of_last_event() {
    const auto all = events();
    return all.empty() ? 0 : all.back().uid;
  }
};

TEST_F(Deletions, OfAFileHoldWhenAReaderClosesLast) {
  EXPECT_EQ("True\n", asked_by_anna("Anna", "Shared/Team/report.txt"));
  EXPECT_FALSE(exists(full("Shared/Team/report.txt")));
  EXPECT_EQ((Lines{"UNLINK Shared/Team/report.txt"}), new_events());
  EXPECT_EQ(kAnna.uid, uid_of_last_event());
}

TEST_F(Deletions, OfAFolderHoldWhenAReaderClosesLast) {
  EXPECT_EQ("True\n", asked_by_anna("Anna", "Shared/Team/Old", "FILE_DIRECTORY_FILE"));
  EXPECT_FALSE(exists(full("Shared/Team/Old")));
  EXPECT_EQ((Lines{"RMDIR Shared/Team/Old"}), new_events());
  EXPECT_EQ(kAnna.uid, uid_of_last_event());
}

TEST_F(Deletions, OfAFolderByOneWhoMayNotDeleteItAreRefusedWhoeverClosesLast) {
  publish_team({}, {{kWriters, 3}, {kReaders, 7}});
  asked_by_anna("Anna", "Shared/Team/Old", "FILE_DIRECTORY_FILE");
  EXPECT_TRUE(exists(full("Shared/Team/Old")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(Deletions, AskedForAtTheOpenHoldToo) {
  EXPECT_EQ("", wire(kBen,
                     "anna = Client('Anna')\n"
                     "b = me.open('Shared/Team/report.txt')\n"
                     "a = anna.open('Shared/Team/report.txt', DELETE, FILE_OPEN, "
                     "FILE_DELETE_ON_CLOSE)\n"
                     "anna.close(a)\nme.close(b)\n"));
  EXPECT_FALSE(exists(full("Shared/Team/report.txt")));
  EXPECT_EQ((Lines{"UNLINK Shared/Team/report.txt"}), new_events());
  EXPECT_EQ(kAnna.uid, uid_of_last_event());
}

TEST_F(Deletions, HoldWhenTheAskerIsGone) {
  EXPECT_EQ("", wire(kBen,
                     "anna = Client('Anna')\n"
                     "a = anna.open('Shared/Team/report.txt', DELETE)\n"
                     "b = me.open('Shared/Team/report.txt')\n"
                     "anna.delete(a); anna.connection.logoff()\nme.close(b)\n"));
  EXPECT_FALSE(exists(full("Shared/Team/report.txt")));
  EXPECT_EQ((Lines{"UNLINK Shared/Team/report.txt"}), new_events());
}

TEST_F(Deletions, LeaveTheCloserItsOwnRights) {
  EXPECT_EQ("STATUS_ACCESS_DENIED\nTrue\n",
            wire(kBen,
                 "anna = Client('Anna')\n"
                 "a = anna.open('Shared/Team/report.txt', DELETE)\n"
                 "b = me.open('Shared/Team/report.txt')\n"
                 "anna.delete(a); anna.close(a); me.close(b)\n"
                 "me.open('Shared/Team/new.txt', WRITE, FILE_CREATE)\n"
                 "print('plan.txt' in me.names(me.open('Shared/Team/Docs', READ)))\n"));
  EXPECT_FALSE(exists(full("Shared/Team/new.txt")));
}

TEST_F(Deletions, OfAReservedUserAreNotRecordedWhoeverClosesLast) {
  stop_smbd();
  configure({"tavrix:reserved user = StandardUser"});
  start_smbd();
  EXPECT_EQ("True\n", asked_by_anna("StandardUser", "Shared/Team/report.txt"));
  EXPECT_FALSE(exists(full("Shared/Team/report.txt")));
  EXPECT_EQ(Lines{}, new_events());
}

}  // namespace
}  // namespace tavrix::test
