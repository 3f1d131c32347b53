// SPDX-License-Identifier: LGPL-3.0-or-later
// The priorities of the lines that the programs print, as the service manager reads them.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cstring>
#include <sstream>

#include "internal/scoped.hpp"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

const std::string kInbox = "/scratch/maps";

class Journal : public Operator {
 protected:
  void SetUp() override {
    Operator::SetUp();
    write_file("/etc/tavrix/exception_patterns", "^a$\n");
    make_dirs(kInbox);
  }
  static void load_settings() {
    ASSERT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
    ctl({"config", "set", "VFS:debug level", "-1"});
  }
  // Runs the program as a service: with the variable that the service manager sets for standard
  // error.
  static std::string said_by(const std::string& command) {
    return run_program(
               {"bash", "-c",
                "export JOURNAL_STREAM=$(stat -Lc %d:%i /proc/self/fd/2); exec " TAVRIX_BUILD_DIR
                "/tools/" +
                    command})
        .err;
  }
  static std::string said_by_loader() { return said_by("tavrix-loader --once --dir " + kInbox); }
};

TEST_F(Journal, OrdinaryWordsOfTheLoaderAreInformation) {
  load_settings();
  write_json_pair(team());
  ASSERT_EQ(0, rename("/scratch/size.json", (kInbox + "/size.json").c_str()));
  ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
  EXPECT_TRUE(contains("\n" + said_by_loader(), "\n<6>table 1 is current"));
}

TEST_F(Journal, ARefusedMapIsAWarningInEachOfItsLines) {
  load_settings();
  write_file(kInbox + "/size.json", "nonsense");
  write_file(kInbox + "/data.json", "nonsense");
  const std::string said = said_by_loader();
  EXPECT_TRUE(contains(said, "<4>refused, see ")) << said;
  std::istringstream lines(said.substr(said.find("<4>")));
  for (std::string line; std::getline(lines, line);) EXPECT_TRUE(line.starts_with("<4>")) << said;
}

TEST_F(Journal, AMapThatCannotBeRestoredIsAnError) {
  load_settings();
  write_file("/etc/tavrix/.permbe_map", "garbage");
  EXPECT_TRUE(said_by_loader().starts_with("<3>cannot restore: "));
}

TEST_F(Journal, TheLoaderWarnsOfThePatternFile) {
  load_settings();
  write_file("/etc/tavrix/exception_patterns", "\n");
  const std::string said = said_by_loader();
  EXPECT_TRUE(contains(said, "<4>/etc/tavrix/exception_patterns:1: error: an empty line")) << said;
}

TEST_F(Journal, EachStatusOfTheLoaderNamesAPatternFileThatIsNotUsed) {
  load_settings();
  write_file("/etc/tavrix/exception_patterns", "\n");
  const Fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/scratch/notify"};
  ASSERT_EQ(0, bind(manager.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
  run_program({TAVRIX_BUILD_DIR "/tools/tavrix-loader", "--once", "--dir", kInbox}, "",
              {{"NOTIFY_SOCKET", "/scratch/notify"}});
  char status[1024] = "";
  ASSERT_GT(recv(manager.get(), status, sizeof status - 1, 0), 0);
  EXPECT_TRUE(contains(status,
                       "STATUS=no map yet: waiting for the first one; look at the pattern "
                       "file: /etc/tavrix/exception_patterns: a line matches every name"))
      << status;
}

TEST_F(Journal, TheSweeperWithoutSettingsIsAnError) {
  EXPECT_TRUE(said_by("tavrix-sweeper --once").starts_with("<3>there are no settings"));
}

TEST_F(Journal, ADamagedBufferIsAnError) {
  load_settings();
  const int segment = shmget(ftok("/dev/null", 1234), 1048576, IPC_CREAT | 0666);
  std::memset(shmat(segment, nullptr, 0), 0xff, 16);
  const std::string said = said_by("tavrix-sweeper --once");
  EXPECT_TRUE(contains(said, "<3>the staging buffer was damaged")) << said;
}

TEST_F(Journal, TavrixctlTellsErrorsAndWarnings) {
  EXPECT_EQ("<3>tavrixctl: /none: No such file or directory\n",
            said_by("tavrixctl config load /none"));
  write_file("/etc/tavrix/exception_patterns", "a\n");
  EXPECT_TRUE(said_by("tavrixctl config load " TAVRIX_SOURCE_DIR "/packaging/tavrix.conf")
                  .starts_with("<4>tavrixctl: /etc/tavrix/exception_patterns:1: warning: "));
}

// A shell started by a service inherits the variable, but its terminal is not the journal.
TEST_F(Journal, SomewhereElseThereAreNoPriorities) {
  const Outcome outcome = run_program({TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--once"}, "",
                                      {{"JOURNAL_STREAM", "8:1"}});
  EXPECT_TRUE(outcome.err.starts_with("there are no settings")) << outcome.err;
}

// The line of an aborting process has no priority of its own.
TEST_F(Journal, TheUnitsTakeAnyOtherLineForAnError) {
  for (const std::string unit : {"loader", "sweeper"}) {
    EXPECT_TRUE(contains(read_file(TAVRIX_SOURCE_DIR "/packaging/tavrix-" + unit + ".service"),
                         "\nSyslogLevel=err\n"))
        << unit;
  }
}

}  // namespace
}  // namespace tavrix::test
