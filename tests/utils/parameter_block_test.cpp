// SPDX-License-Identifier: LGPL-3.0-or-later
// The shared block of settings: creation, removal, layout.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>

#include "eventstore.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr int kEntryBytes = 1040;
constexpr int kBlockBytes = 19760;

class ParameterBlock : public Isolated {
 protected:
  static key_t key() { return ftok("/dev/null", 3456); }
  static int segment(int flags = 0) { return shmget(key(), kBlockBytes, flags); }
  static std::string line(const std::string& text) { return "create_config_buffer: " + text; }
};

struct Row {
  int index;
  int type;
  const char* name;
};

TEST_F(ParameterBlock, HasTheNamesAndTypesOfItsEntries) {
  ASSERT_EQ(0, create_config_buffer());
  const Row rows[] = {{0, 1, "VFS:default user"},
                      {1, 1, "VFS:default group"},
                      {2, 2, "VFS:exception pattern file"},
                      {3, 3, "SWEEPER:disable sweeper flush"},
                      {4, 1, "SWEEPER:staging buffer size"},
                      {5, 1, "SWEEPER:flush period"},
                      {6, 2, "SWEEPER:staging dir"},
                      {7, 1, "SWEEPER:flush fill threshold pct"},
                      {8, 1, "MESSENGER:socket backlog"},
                      {9, 1, "MESSENGER:socket message size"},
                      {10, 2, "MESSENGER:socket path"},
                      {11, 0, nullptr},
                      {12, 0, nullptr},
                      {13, 1, "VFS:check regex unlink"},
                      {14, 1, "VFS:debug level"},
                      {15, 3, "VFS:enable forbidden rmdir"},
                      {16, 2, "SWEEPER:auditing dir"},
                      {17, 1, "SWEEPER:auditing buffer size"},
                      {18, 1, "SWEEPER:auditing flush interval"}};
  EXPECT_EQ(kBlockBytes, kEntryBytes * static_cast<int>(std::size(rows)));
  const auto* raw = reinterpret_cast<const unsigned char*>(global_params);
  for (const Row& row : rows) {
    int type = -1;
    const char* name = nullptr;
    std::memcpy(&type, raw + kEntryBytes * row.index, sizeof type);
    std::memcpy(&name, raw + kEntryBytes * row.index + 8, sizeof name);
    EXPECT_EQ(row.type, type) << row.index;
    EXPECT_STREQ(row.name, name) << row.index;
    for (int byte = 4; byte < 8; ++byte) EXPECT_EQ(0, raw[kEntryBytes * row.index + byte]);
    for (int byte = 16; byte < kEntryBytes; ++byte)
      ASSERT_EQ(0, raw[kEntryBytes * row.index + byte]);
  }
}

TEST_F(ParameterBlock, IsASegmentForEverybody) {
  ASSERT_EQ(0, create_config_buffer());
  struct shmid_ds info {};
  ASSERT_EQ(0, shmctl(segment(), IPC_STAT, &info));
  EXPECT_EQ(0666, info.shm_perm.mode & 0777);
  EXPECT_EQ(std::size_t{kBlockBytes}, info.shm_segsz);
  EXPECT_EQ(1U, info.shm_nattch);
}

TEST_F(ParameterBlock, IsTheCreatorsOwnParameters) {
  ASSERT_EQ(0, create_config_buffer());
  global_params[PARAM_DEBUG_LEVEL].value.intval = 42;
  auto* again = static_cast<global_param_s*>(shmat(segment(), nullptr, 0));
  EXPECT_EQ(42, again[14].value.intval);
}

TEST_F(ParameterBlock, ReplacesAStaleOneOnce) {
  const int stale = segment(IPC_CREAT | 0666);
  ASSERT_GE(stale, 0);
  skip_sleeps();
  EXPECT_EQ(0, create_config_buffer());
  EXPECT_EQ((std::vector<unsigned>{1, 1}), skipped_sleeps());
  EXPECT_NE(stale, segment());
  const std::string errors =
      "cannot create shared memory for global param error_no=17 "
      "error_sz=File exists";
  EXPECT_EQ((std::vector<std::string>{
                line(errors), line(errors + " will remove and retry"),
                line("success removing shared memory for global param will try to re-create.")}),
            messages());
}

TEST_F(ParameterBlock, FailsWhenARivalIsThereAgain) {
  segment(IPC_CREAT | 0666);
  skip_sleeps();
  run_before(
      "shmget", [] { segment(IPC_CREAT | 0666); }, 3);
  EXPECT_EQ(-1, create_config_buffer());
  EXPECT_EQ(2, times_logged(line("cannot create shared memory for global param error_no=17 "
                                 "error_sz=File exists")));
}

TEST_F(ParameterBlock, FailsWhenAStaleOneCannotBeRemoved) {
  // A block of another size is not found by the removal.
  shmget(key(), 100, IPC_CREAT | 0666);
  skip_sleeps();
  EXPECT_EQ(-1, create_config_buffer());
  EXPECT_TRUE(logged(line("cannot remove shared memory for global param.")));
}

TEST_F(ParameterBlock, FailsAtOnceOnAnyOtherError) {
  fail_call("shmget", ENOSPC);
  EXPECT_EQ(-1, create_config_buffer());
  EXPECT_EQ((std::vector<std::string>{line("cannot create shared memory for global param "
                                           "error_no=28 error_sz=No space left on device")}),
            messages());
}

TEST_F(ParameterBlock, FailsWithoutAKey) {
  const auto attempt = [] {
    fail_call("ftok", ENOENT);
    EXPECT_EQ(-1, create_config_buffer());
  };
  EXPECT_EQ(0, level_of(line("cannot create sema key for shm"), attempt));
}

TEST_F(ParameterBlock, LeavesTheSegmentWhenItCannotBeAttached) {
  fail_call("shmat", EACCES);
  EXPECT_EQ(-1, create_config_buffer());
  EXPECT_TRUE(logged(line("cannot attach to shm Errno 13")));
  EXPECT_GE(segment(), 0);
}

TEST_F(ParameterBlock, GoesWithItsLastProcess) {
  ASSERT_EQ(0, create_config_buffer());
  EXPECT_EQ(0, remove_config_buffer());
  EXPECT_EQ(-1, segment());
  EXPECT_EQ(1, segments_in_use());
  shmdt(global_params);
  global_params = nullptr;
  EXPECT_EQ(0, segments_in_use());
}

TEST_F(ParameterBlock, ThatIsMissingCannotBeRemoved) {
  EXPECT_EQ(-1, remove_config_buffer());
  EXPECT_EQ(0, level_of("remove_config_buffer: cannot get shared memory for global param",
                        [] { remove_config_buffer(); }));
}

TEST_F(ParameterBlock, CannotBeRemovedWithoutAKey) {
  const auto attempt = [] {
    fail_call("ftok", ENOENT);
    EXPECT_EQ(-1, remove_config_buffer());
  };
  EXPECT_EQ(0, level_of("remove_config_buffer: cannot get sema key for shm", attempt));
}

// --- logging before and below the block ----------------------------------------------------------

TEST(Logging, CountsAMissingBlockAsLevelZero) {
  no_parameter_block();
  EXPECT_EQ(-1, remove_config_buffer() == 0 ? 0 : -1);
  EXPECT_FALSE(messages().empty());
}

TEST(Logging, CarriesFileLineAndFunction) {
  no_parameter_block();
  fail_call("ftok", ENOENT);
  remove_config_buffer();
  const LogLine& line = log_lines().at(0);
  EXPECT_EQ(6, line.priority);  // LOG_INFO
  EXPECT_EQ("utils/parameter_block.cpp", line.file);
  EXPECT_GT(line.line, 0);
  EXPECT_EQ("remove_config_buffer", line.function);
}

}  // namespace
}  // namespace tavrix::test
