// SPDX-License-Identifier: LGPL-3.0-or-later
// Every request that changes a file, and the event that it leaves.

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

// Reads are audited: the close of an unchanged file leaves an audit record, the close of a changed
// one does not.
class Changes : public WireClients {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    write_file(full("Shared/Team/book"), std::string(100000, 'x'));
  }
  static void start(Lines options = {}) {
    options.emplace_back("tavrix:audit = yes");
    configure(options);
    start_smbd();
  }
  // Opens the book for writing, sends one request about it, and closes it.
  void change_by(const std::string& request) {
    const std::string said =
        wire(kAnna, "h = me.open('Shared/Team/book', WRITE)\n" + request + "\nme.close(h)\n");
    EXPECT_EQ("", said);
    const Lines told = new_events();
    EXPECT_FALSE(told.empty());
    for (const std::string& line : told) EXPECT_EQ("OPEN Shared/Team/book", line);
    EXPECT_EQ("Anna", stamp_of("Shared/Team/book"));
    EXPECT_TRUE(audit_records().empty()) << "taken for a read";
  }
  static std::string book() { return read_file(full("Shared/Team/book")); }
};

TEST_F(Changes, AreNoneWhenAFileIsOnlyOpenedForThem) {
  start();
  EXPECT_EQ("", wire(kAnna, "me.close(me.open('Shared/Team/book', WRITE))"));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ(1U, audit_records().size());
}

TEST_F(Changes, ByWriting) {
  start();
  change_by("me.write(h, b'short')");
  EXPECT_EQ("short", book().substr(0, 5));
}

TEST_F(Changes, ByWritingInTheBackground) {
  start({"aio write size = 1"});
  change_by("me.write(h, b'short')");
  EXPECT_EQ("short", book().substr(0, 5));
}

TEST_F(Changes, ByWritingFromTheSocketToTheDisk) {
  configure({});
  bash("sed -i '/^.global.$/a min receivefile size = 1024' /scratch/samba/smb.conf");
  start_smbd();
  change_by("me.write(h, b'y' * 20000)");
  EXPECT_EQ(std::string(20000, 'y'), book().substr(0, 20000));
}

TEST_F(Changes, ByCutting) {
  start();
  change_by("me.resize(h, 10)");
  EXPECT_EQ(10U, book().size());
}

TEST_F(Changes, ByZeroingARange) {
  start();
  change_by("me.zero(h, 0, 8192)");
  EXPECT_EQ('\0', book().at(0));
}

TEST_F(Changes, ByTakingSpace) {
  start({"strict allocate = yes"});
  change_by("me.allocate(h, 1 << 20)");
  EXPECT_EQ(100000U, book().size());
}

TEST_F(Changes, ByOpeningAFileEmpty) {
  start();
  EXPECT_EQ("", wire(kAnna, "me.close(me.open('Shared/Team/book', WRITE, FILE_OVERWRITE))"));
  EXPECT_EQ("OPEN Shared/Team/book", new_events().at(0));
  EXPECT_EQ("", book());
  EXPECT_TRUE(audit_records().empty());
}

// A change of a file without a name is not recorded: the record would need a path.
TEST_F(Changes, OfADeletedFileAreNotTold) {
  start();
  EXPECT_EQ("", wire(kAnna,
                     "h = me.open('Shared/Team/book', WRITE | DELETE)\n"
                     "me.write(h, b'last words')\n"
                     "me.delete(h)\n"
                     "me.close(h)\n"));
  EXPECT_FALSE(exists(full("Shared/Team/book")));
  EXPECT_EQ("UNLINK Shared/Team/book", new_events().back());
  for (const std::string& line : event_lines()) {
    EXPECT_EQ(std::string::npos, line.find("(deleted)")) << line;
  }
}

// The server remembers the attributes of a durable handle's file. A stamp that is written after the
// client is gone would change them, and the client would not get its handle back.
TEST_F(Changes, OfAClientThatIsLostAreToldAndItComesBack) {
  start({"kernel share modes = no", "kernel oplocks = no", "posix locking = no"});
  EXPECT_EQ("b'draft'\n", wire(kAnna,
                               "h = open_durable(me, 'Shared/Team/book', READ | WRITE)\n"
                               "me.write(h, b'draft')\n"
                               "me.drop()\n"
                               "me, h = come_back('Anna', 'Shared/Team/book', h, READ | WRITE)\n"
                               "print(me.read(h, 5))\n"));
  EXPECT_EQ("OPEN Shared/Team/book", new_events().at(0));
  EXPECT_EQ("Anna", stamp_of("Shared/Team/book"));
}

}  // namespace
}  // namespace tavrix::test
