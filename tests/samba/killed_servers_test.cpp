// SPDX-License-Identifier: LGPL-3.0-or-later
// A server process that is killed while a changed file is open: the event comes once all the same.

#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kNotes = "/tavrix/.conf/changing";
constexpr const char* kRescan = "/tavrix/.conf/tavrix_event_status.dirty";

class KilledServers : public WireClients {
 protected:
  // Anna changes a file and keeps it open, `act` runs, and then every process that serves a client
  // is killed.
  void kill_while_changing(const std::string& name = "Shared/Team/report.txt",
                           const std::string& act = "pass") {
    start_smbd();
    EXPECT_EQ("", wire(kAnna, "h = me.open('" + name + "', WRITE, FILE_OPEN_IF)\n" +
                                  "me.write(h, b'changed')\n" + act + "\n" +
                                  "os.killpg(int(open('/scratch/samba/smbd.pid').read()), 9)\n"));
    bash("await_end_of_smbd");
    new_events();
    start_smbd();
  }
  static std::size_t notes() { return exists(kNotes) ? list(kNotes).size() : 0; }
  static bool asks_for_rescan() { return exists(kRescan); }
};

TEST_F(KilledServers, AreMadeUpForAtTheNextConnect) {
  kill_while_changing();
  EXPECT_EQ(1U, notes());
  EXPECT_TRUE(succeeded(smb(kBen, "ls")));
  ASSERT_EQ((Lines{"OPEN Shared/Team/report.txt"}), new_events());
  EXPECT_EQ(kAnna.uid, events().back().uid);
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
  EXPECT_EQ("changed\n", read_file(full("Shared/Team/report.txt")));
  EXPECT_TRUE(succeeded(smb(kBen, "ls")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_EQ(0U, notes());
  EXPECT_FALSE(asks_for_rescan());
}

TEST_F(KilledServers, AreMadeUpForBySweeper) {
  kill_while_changing();
  const Outcome outcome =
      run_program({std::string(TAVRIX_BUILD_DIR) + "/tools/tavrix-sweeper", "--once"});
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  EXPECT_EQ((Lines{"OPEN Shared/Team/report.txt"}), new_events());
  EXPECT_TRUE(succeeded(smb(kBen, "ls")));
  EXPECT_EQ(Lines{}, new_events());
}

TEST_F(KilledServers, HaveANewFilesCreationBeforeItsChange) {
  kill_while_changing("Shared/Team/new.txt");
  EXPECT_EQ("CREATE FILE /tavrix/Shared/Team/new.txt", event_lines().at(0));
  EXPECT_TRUE(succeeded(smb(kBen, "ls")));
  EXPECT_EQ((Lines{"OPEN Shared/Team/new.txt"}), new_events());
}

TEST_F(KilledServers, AskForARescanWhenTheFileIsNoLongerThere) {
  kill_while_changing();
  ASSERT_EQ(0, rename(full("Shared/Team/report.txt").c_str(), full("Shared/Team/r").c_str()));
  make_file("Shared/Team/report.txt");
  EXPECT_TRUE(succeeded(smb(kBen, "ls")));
  EXPECT_EQ(Lines{}, new_events());
  EXPECT_TRUE(asks_for_rescan());
  EXPECT_EQ(0U, notes());
}

// After a power cut the noted process numbers belong to other processes, or to none.
TEST_F(KilledServers, OfAnotherBootAreMadeUpForToo) {
  make_dirs(kNotes);
  struct stat st {};
  ASSERT_EQ(0, stat(full("Shared/Team/report.txt").c_str(), &st));
  const std::string text = std::to_string(st.st_ino) + " " + std::to_string(kAnna.uid) + " 4 Anna" +
                           full("Shared/Team/report.txt");
  const std::string name = "01234567-89ab-cdef-0123-456789abcdef." + std::to_string(getpid());
  ASSERT_EQ(0, symlink(text.c_str(), (std::string(kNotes) + "/" + name + ".1.1").c_str()));
  start_smbd();
  EXPECT_TRUE(succeeded(smb(kBen, "ls")));
  EXPECT_EQ((Lines{"OPEN Shared/Team/report.txt"}), new_events());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/report.txt"));
}

TEST_F(KilledServers, AreToldFromOnesThatLive) {
  start_smbd();
  EXPECT_EQ("1\n", wire(kAnna,
                        "h = me.open('Shared/Team/report.txt', WRITE); me.write(h, b'x')\n"
                        "me.write(h, b'y')\n"
                        "Client('Ben'); Client('Ben')\n"
                        "print(len(os.listdir('/tavrix/.conf/changing')))\n"
                        "me.close(h)\n"));
  EXPECT_EQ((Lines{"OPEN Shared/Team/report.txt", "OPEN Shared/Team/report.txt"}), new_events());
  EXPECT_EQ(0U, notes());
}

TEST_F(KilledServers, AreMadeUpForOnceByManyClientsThatConnect) {
  kill_while_changing();
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 6; ++i) {
    children.push_back(std::make_unique<Child>([] { EXPECT_TRUE(succeeded(smb(kBen, "ls"))); }));
  }
  for (auto& child : children) EXPECT_TRUE(child->wait().ok());
  EXPECT_EQ((Lines{"OPEN Shared/Team/report.txt"}), new_events());
}

// The change of a client with a durable handle is recorded when it disconnects; its next change has
// a note again.
TEST_F(KilledServers, LeaveNoNoteOfAFileWhoseClientIsAway) {
  start_smbd();
  EXPECT_EQ("1\n0\n1\n",
            wire(kAnna,
                 "notes = lambda: len(os.listdir('/tavrix/.conf/changing'))\n"
                 "h = open_durable(me, 'Shared/Team/report.txt', READ | WRITE)\n"
                 "me.write(h, b'x'); print(notes()); me.drop()\n"
                 "back, b = come_back('Anna', 'Shared/Team/report.txt', h, READ | WRITE)\n"
                 "print(notes()); back.write(b, b'y'); print(notes()); back.close(b)\n"));
  EXPECT_EQ(0U, notes());
  EXPECT_LE(2U, new_events().size());
  EXPECT_EQ("yontent\n", read_file(full("Shared/Team/report.txt")));
}

TEST_F(KilledServers, LeaveNoNoteOfFilesThatWereOnlyReadOrDeleted) {
  start_smbd();
  EXPECT_EQ("False\n0\n", wire(kAnna,
                               "me.read(me.open('Shared/Team/report.txt'))\n"
                               "print(os.path.exists('/tavrix/.conf/changing'))\n"
                               "h = me.open('Shared/Team/new', WRITE | DELETE, FILE_CREATE, "
                               "FILE_DELETE_ON_CLOSE); me.write(h, b'x'); me.close(h)\n"
                               "print(len(os.listdir('/tavrix/.conf/changing')))\n"));
}

// A change without a note is refused: nothing would tell of it if the process died.
TEST_F(KilledServers, CannotLoseAChangeThatLeavesNoNote) {
  write_file(kNotes, "no folder");
  start_smbd();
  const std::string said = wire(kAnna,
                                "h = me.open('Shared/Team/report.txt', READ | WRITE)\n"
                                "me.write(h, b'x')\nme.resize(h, 1)\n"
                                "print(me.read(h))\n");
  EXPECT_EQ(3, std::count(said.begin(), said.end(), '\n')) << said;
  EXPECT_TRUE(said.ends_with("b'content\\n'\n")) << said;
  EXPECT_EQ("content\n", read_file(full("Shared/Team/report.txt")));
}

}  // namespace
}  // namespace tavrix::test
