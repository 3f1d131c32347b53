// SPDX-License-Identifier: LGPL-3.0-or-later
// The append to the staging buffer.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <csignal>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix::test {
namespace {

using Payloads = std::vector<std::string>;

class StagingAppend : public Staging {};

TEST_F(StagingAppend, PacksRecordsBackToBack) {
  EXPECT_EQ(0, append("one"));
  EXPECT_EQ(0, append("second"));
  EXPECT_EQ(2U, header().num_records);
  EXPECT_EQ(16U + 11 + 14, header().next_offset);
  EXPECT_EQ((Payloads{"one", "second"}), payloads_of(content()));
  EXPECT_TRUE(semaphore_is_free());
}

TEST_F(StagingAppend, CostsOneRoundOfCallsAndNoMemory) {
  const auto record = record_of("x");
  reset_calls();
  const long before = allocations();
  write_to_staging_buffer(record.get());
  EXPECT_EQ(2, calls("semop"));
  EXPECT_EQ(1, calls("shmat"));
  EXPECT_EQ(1, calls("shmdt"));
  EXPECT_EQ(before, allocations());
}

TEST_F(StagingAppend, StaysBelowTheThreshold) {
  EXPECT_EQ(10400, staging_fill_threshold());
  EXPECT_EQ(0, append(std::string(10400 - 16 - 8 - 1, 'x')));  // ends one byte below it
  EXPECT_EQ(10399U, header().next_offset);
}

// By the kernel's clock: one attempt, then a wait that lasts.
TEST_F(StagingAppend, FlushesAndWaitsAtTheThreshold) {
  const Outcome outcome = in_child([] {
    std::signal(SIGALRM, [](int) { _exit(header().next_offset == 16 ? calls("sleep") : 99); });
    reset_calls();
    ualarm(300 * 1000, 0);
    append(std::string(10400 - 16 - 8, 'x'));  // never fits: it waits for larger settings
  });
  EXPECT_EQ(1, outcome.exit_code);
}

TEST_F(StagingAppend, OfAStarvingWriterIsTold) {
  const Outcome outcome = in_child([] {
    set_debug_level(0);
    skip_sleeps();
    const auto look = [] {
      EXPECT_EQ(std::vector<unsigned>(5, 5), skipped_sleeps());
      EXPECT_TRUE(logged("Write thrshld Exceeded. offset:16 size:10384 thrsh:10400"));
      const std::string pid = std::to_string(getpid());
      const auto complaints = [](const std::string& text) { return text.starts_with("Starving"); };
      const auto all = messages();
      EXPECT_EQ(1, std::count_if(all.begin(), all.end(), complaints));
      EXPECT_TRUE(logged("Starving producer " + pid + ". Unable to push event after 5 retries."));
      end_child();
    };
    run_before("sleep", look, 6);
    append(std::string(10400 - 16 - 8, 'x'));
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
}

TEST_F(StagingAppend, ThresholdsAboveNinetyNineAreEighty) {
  const std::pair<int, int> rows[] = {{0, 0},      {1, 208},     {50, 10400},
                                      {99, 20592}, {100, 16640}, {500, 16640}};
  for (const auto& [percent, threshold] : rows) {
    configure(20800, percent, kDir);
    EXPECT_EQ(threshold, staging_fill_threshold()) << percent;
  }
  configure(1 << 30, 80, kDir);
  EXPECT_EQ(858993459, staging_fill_threshold());
}

TEST_F(StagingAppend, RefusesWhatIsNoRecord) {
  EXPECT_EQ(0,
            level_of("null staging data", [] { EXPECT_EQ(-1, write_to_staging_buffer(nullptr)); }));
  for (const uint32_t size : {0U, 0x80000000U, 0xFFFFFFFFU}) {
    staging_data_s record{size, STAGING_DATA_SIGNATURE};
    EXPECT_EQ(
        0, level_of("invalid data size", [&] { EXPECT_EQ(-1, write_to_staging_buffer(&record)); }));
  }
}

TEST_F(StagingAppend, StoresAForeignSignatureAllTheSame) {
  const auto record = record_of("odd");
  record->sig = 5;
  EXPECT_EQ(0, level_of("writing a buffer without a proper signature",
                        [&] { EXPECT_EQ(0, write_to_staging_buffer(record.get())); }));
  EXPECT_GT(header().num_records, 0U);
}

TEST_F(StagingAppend, WithoutASegmentLosesThisEventOnly) {
  remove_staging_buffers();
  EXPECT_EQ(0, level_of("cannot access the staging buffer. errno = 2(No such file or directory)",
                        [] { EXPECT_EQ(-1, append("x")); }));
  EXPECT_TRUE(semaphore_is_free());
  EXPECT_FALSE(exists(kSyncOff));
}

TEST_F(StagingAppend, WithoutASemaphoreTellsTheAgentAndAborts) {
  destroy_eventstore_staging_buffer_semaphore();
  const Outcome outcome = in_child([] {
    std::signal(SIGABRT, [](int) {
      for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
    });
    set_debug_level(0);
    become_samba_user(1000, 1000);
    append("x");
  });
  EXPECT_TRUE(outcome.aborted_with("0")) << outcome.err;
  EXPECT_NE(std::string::npos, outcome.err.find("<Eventstore semaphore does not exist pid: "));
  EXPECT_EQ("Failed to write event.", read_file(kSyncOff));
}

TEST_F(StagingAppend, OfADamagedBufferTellsTheAgentAndAborts) {
  for (const uint32_t offset : {0U, 15U, 0x90000000U, 20801U}) {
    remove_all(kSyncOff);
    set_offset(offset);
    EXPECT_TRUE(in_child([] { append("12345678"); }).aborted_with("0")) << offset;
    EXPECT_EQ("Failed to write event.", read_file(kSyncOff)) << offset;
  }
  // An offset past the threshold but inside the buffer counts as full; a sweeper finds the damage.
  configure(20800, 99, kDir);
  set_offset(20795);
  run_before("sleep", [] { end_child(); });
  EXPECT_TRUE(in_child([] { append("12345678"); }).ok());
  configure(20800, 50, kDir);
  set_offset(0x90000000);
  EXPECT_TRUE(in_child([] { append("x"); }).aborted_with("0"));
  set_offset(3);
  EXPECT_TRUE(in_child([] { append("x"); }).aborted_with("0"));
  EXPECT_TRUE(semaphore_is_free());
}

TEST_F(StagingAppend, TellsADamagedBuffer) {
  set_offset(7);
  const Outcome outcome = in_child([] {
    std::signal(SIGABRT, [](int) {
      for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
    });
    set_debug_level(0);
    append("12345");
  });
  EXPECT_NE(std::string::npos,
            outcome.err.find("<buffer overflow detected buffer->next_offset = 7, size = 13>"))
      << outcome.err;
}

TEST_F(StagingAppend, TriesTheSemaphoreAgain) {
  set_debug_level(0);
  clear_log();
  fail_call("semop", EINTR, 1, 3);
  EXPECT_EQ(0, append("x"));
  EXPECT_EQ(3, times_logged("Failed to get eventstore semaphore, retrying"));
  EXPECT_EQ(Payloads{"x"}, payloads_of(content()));
}

// An error that stays: a thousand tries at once, then one each second, and one line a minute for
// the operator.
TEST_F(StagingAppend, RestsBetweenTriesThatKeepFailing) {
  for (const int error : {EACCES, EINVAL, ENOSPC, ERANGE, EFBIG, ENOMEM}) {
    const Outcome outcome = in_child([error] {
      set_debug_level(0);
      skip_sleeps();
      clear_log();
      reset_calls();
      fail_call("semop", error, 1, 1 << 30);
      const auto look = [] {
        const auto is_error = [](const LogLine& line) { return line.priority == LOG_ERR; };
        EXPECT_EQ(std::vector<unsigned>(120, 1), skipped_sleeps());
        EXPECT_EQ(1000 + 121, calls("semop"));
        EXPECT_EQ(3, std::count_if(log_lines().begin(), log_lines().end(), is_error));
        end_child();
      };
      run_before("sleep", look, 121);
      append("x");
    });
    EXPECT_TRUE(outcome.ok()) << error << outcome.out;
  }
}

TEST_F(StagingAppend, SaysWhenTheAgentCannotBeTold) {
  destroy_eventstore_staging_buffer_semaphore();
  remove_all("/tavrix/.conf");
  const Outcome outcome = in_child([] {
    std::signal(SIGABRT, [](int) {
      for (const LogLine& line : log_lines()) {
        if (line.priority == LOG_ERR) std::fprintf(stderr, "<%s>\n", line.text.c_str());
      }
    });
    set_debug_level(0);
    append("x");
  });
  EXPECT_TRUE(outcome.aborted_with("0")) << outcome.err;
  EXPECT_NE(std::string::npos,
            outcome.err.find("<events are lost, and /tavrix/.conf/sync.off, which would tell the "
                             "agent, cannot be made: No such file or directory>"))
      << outcome.err;
}

// The semaphore is free while the writer waits: a sweeper can make room.
TEST_F(StagingAppend, WaitsForRoomAndNeverDropsAnEvent) {
  append(std::string(10000, 'a'));
  skip_sleeps();
  run_before("sleep", [] {
    EXPECT_EQ(1U, header().num_records);
    EXPECT_TRUE(semaphore_is_free());
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  });
  EXPECT_EQ(0, append(std::string(1000, 'b')));
  EXPECT_EQ(std::vector<unsigned>{5}, skipped_sleeps());
  EXPECT_EQ((Payloads{std::string(1000, 'b')}), payloads_of(content()));
  EXPECT_EQ((Payloads{std::string(10000, 'a')}), dumped());
}

}  // namespace
}  // namespace tavrix::test
