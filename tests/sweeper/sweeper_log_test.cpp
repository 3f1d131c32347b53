// SPDX-License-Identifier: LGPL-3.0-or-later
// The operator's log of imports.

#include "sweeper_log.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "internal/scoped.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

class SweeperLog : public Isolated {
 protected:
  static std::string line_of(unsigned severity, const char* text, int index) {
    char* line = nullptr;
    unsigned int size = 0;
    EXPECT_EQ(0, create_sweeperlog_msg(severity, text, index, &line, &size));
    const CString owner(line);
    return line;
  }
};

TEST_F(SweeperLog, WritesTheFiveFieldsOfALine) {
  const time_t before = std::time(nullptr);
  log_perm_error("Missing JSON size file", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL);
  const auto lines = lines_of("/var/log/tavrix_perms.log");
  ASSERT_EQ(1U, lines.size());
  std::smatch part;
  ASSERT_TRUE(std::regex_match(
      lines[0], part,
      std::regex("(\\d+),(\\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}),5,Missing JSON size "
                 "file,1")))
      << lines[0];
  const time_t told = std::stol(part[1]);
  EXPECT_GE(told, before);
  EXPECT_LE(told, std::time(nullptr));
  std::string text = std::ctime(&told);
  text.pop_back();
  EXPECT_EQ(text, part[2]);
}

TEST_F(SweeperLog, AppendsALinePerEvent) {
  write_file("/var/log/tavrix_perms.log", "earlier\n");
  log_perm_error("one", 0, SWEEPER_LOGSEV_INFO);
  log_perm_error("two", 6, SWEEPER_LOGSEV_WARN);
  const auto lines = lines_of("/var/log/tavrix_perms.log");
  ASSERT_EQ(3U, lines.size());
  EXPECT_EQ("earlier", lines[0]);
  EXPECT_TRUE(lines[1].ends_with(",1,one,0")) << lines[1];
  EXPECT_TRUE(lines[2].ends_with(",2,two,6")) << lines[2];
}

TEST_F(SweeperLog, NeitherQuotesNorEscapes) {
  EXPECT_TRUE(line_of(1, "a,b,\"c\",%s", 0).ends_with(",1,a,b,\"c\",%s,0\n"));
}

TEST_F(SweeperLog, WritesALineForAnEmptyMessage) {
  EXPECT_TRUE(line_of(4, "", 2).ends_with(",4,,2\n"));
}

TEST_F(SweeperLog, KeepsANewlineOfTheMessage) {
  EXPECT_TRUE(line_of(4, "text\n", 2).ends_with(",4,text\n,2\n"));
}

TEST_F(SweeperLog, ReallocatesTheBufferToItsExactSize) {
  auto* buffer = static_cast<char*>(std::malloc(1));
  unsigned int size = 0;
  ASSERT_EQ(0, create_sweeperlog_msg(1, "hello", 0, &buffer, &size));
  EXPECT_EQ(25U + 5U + 32U, size);
  const std::string line = buffer;
  for (std::size_t i = line.size(); i < size; ++i) EXPECT_EQ('\0', buffer[i]);
  std::free(buffer);
}

TEST_F(SweeperLog, CutsALineAtItsSize) {
  // Numbers of full width leave no room for the end of the line.
  const std::string line = line_of(0x80000000U, "", -2147483647 - 1);
  EXPECT_LE(line.size(), 25U + 32U - 1);
}

TEST_F(SweeperLog, HasTextsForItsReaders) {
  EXPECT_STREQ("Successfully loaded permission map from cloud filesystem", messgage_dictionary[0]);
  EXPECT_STREQ(
      "Missing or corrupted temporary files created to import permission map from cloud "
      "filesystem. Please reset permissions",
      messgage_dictionary[1]);
  EXPECT_STREQ(
      "The created permission map is corrupted. To regain access to the share please "
      "reset permissions",
      messgage_dictionary[2]);
}

// --- every error path ----------------------------------------------------------------------------

TEST_F(SweeperLog, CannotOpenNothing) {
  EXPECT_EQ(0, level_of("sweeper: No file given for sweeper log file",
                        [] { EXPECT_EQ(nullptr, open_sweeper_log(nullptr)); }));
}

TEST_F(SweeperLog, CannotOpenWithoutMemory) {
  fail_call("malloc", ENOMEM, 1, 100);
  EXPECT_EQ(0, level_of("sweeper: Cannot create log file handle. No memory",
                        [] { EXPECT_EQ(nullptr, open_sweeper_log("/scratch/log")); }));
}

TEST_F(SweeperLog, CannotOpenInAMissingFolder) {
  const long blocks = live_allocations();
  EXPECT_EQ(0, level_of("sweeper: Cannot create log file /nowhere/log. Error: No such file or "
                        "directory",
                        [] { EXPECT_EQ(nullptr, open_sweeper_log("/nowhere/log")); }));
  EXPECT_EQ(blocks, live_allocations());
}

TEST_F(SweeperLog, ClosesButDoesNotFree) {
  sweeper_log* log = open_sweeper_log("/scratch/log");
  ASSERT_NE(nullptr, log);
  close_sweeper_log(log);
  EXPECT_EQ(nullptr, log->fp);
  std::free(log);
  EXPECT_EQ(0, level_of("sweeper: Null sweeper log", [] { close_sweeper_log(nullptr); }));
}

TEST_F(SweeperLog, RefusesWhatCannotBeWritten) {
  sweeper_log closed{};
  const Malloced<sweeper_log> open(open_sweeper_log("/scratch/log"));
  EXPECT_EQ(0, level_of("sweeper: Null log handle",
                        [] { EXPECT_EQ(-1, write_sweeper_log(nullptr, 1, "x")); }));
  EXPECT_EQ(0, level_of("sweeper: Null log file pointer in handle",
                        [&] { EXPECT_EQ(-1, write_sweeper_log(&closed, 1, "x")); }));
  EXPECT_EQ(0, level_of("Message len is zero. Nothing to write",
                        [&] { EXPECT_EQ(-1, write_sweeper_log(open.get(), 0, "x")); }));
  EXPECT_EQ(0, level_of("sweeper: Null message. Nothing to write",
                        [&] { EXPECT_EQ(-1, write_sweeper_log(open.get(), 1, nullptr)); }));
  close_sweeper_log(open.get());
  EXPECT_EQ("", read_file("/scratch/log"));
}

TEST_F(SweeperLog, TellsAFailedWrite) {
  const Malloced<sweeper_log> log(open_sweeper_log("/dev/full"));
  EXPECT_EQ(0, level_of("sweeper: Write to log file failed No space left on device",
                        [&] { EXPECT_EQ(-1, write_sweeper_log(log.get(), 1, "x")); }));
  fail_call("fputs", EIO);
  EXPECT_EQ(-1, write_sweeper_log(log.get(), 1, "x"));
  close_sweeper_log(log.get());
}

TEST_F(SweeperLog, TellsMissingMemoryForALine) {
  for (const char* call : {"strdup", "realloc"}) {
    const auto attempt = [call] {
      fail_call(call, ENOMEM);
      char* line = nullptr;
      unsigned int size = 7;
      EXPECT_EQ(-1, create_sweeperlog_msg(1, "x", 0, &line, &size));
      EXPECT_EQ(nullptr, line);
      EXPECT_EQ(7U, size);
    };
    EXPECT_EQ(0, level_of("sweeper: Cannot allocate memory for sweeper log buffer", attempt))
        << call;
  }
}

TEST_F(SweeperLog, SaysOneThingWhenItCannotBeOpened) {
  remove_all("/var/log/tavrix_perms.log");
  make_dirs("/var/log/tavrix_perms.log");  // a folder: not even root can append to it
  clear_log();
  log_perm_error("lost", 1, SWEEPER_LOGSEV_FATAL);
  EXPECT_EQ(
      (std::vector<std::string>{
          "sweeper: Cannot create log file /var/log/tavrix_perms.log. Error: Is a directory"}),
      messages());
}

TEST_F(SweeperLog, LeavesNothingOnTheHeap) {
  log_perm_error("one", 0, SWEEPER_LOGSEV_INFO);
  const long blocks = live_allocations();
  log_perm_error("two", 0, SWEEPER_LOGSEV_INFO);
  fail_call("realloc", ENOMEM);
  log_perm_error("three", 0, SWEEPER_LOGSEV_INFO);
  EXPECT_EQ(blocks, live_allocations());
}

}  // namespace
}  // namespace tavrix::test
