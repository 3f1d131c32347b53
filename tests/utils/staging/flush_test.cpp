// SPDX-License-Identifier: LGPL-3.0-or-later
// The flush: dump files, contexts, and every error path.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <cerrno>
#include <csignal>
#include <regex>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

using Payloads = std::vector<std::string>;

constexpr FB_CTX kContexts[] = {FB_CTX_INVAL, FB_CTX_SWPR, FB_CTX_DISCON, FB_CTX_EVT};

class Flush : public Staging {
 protected:
  // A child that aborts prints its log.
  static Outcome flush_in_child(
      FB_CTX ctx, const std::function<void()>& before = [] {}) {
    return in_child([&] {
      std::signal(SIGABRT, [](int) {
        for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
      });
      set_debug_level(0);
      clear_log();
      before();
      const int result = flush_staging_buffer(ctx);
      for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
      std::fflush(stderr);
      _exit(result == 1 ? 1 : 2);
    });
  }
  static bool has(const Outcome& outcome, const std::string& message) {
    return outcome.err.find("<" + message + ">") != std::string::npos;
  }
};

TEST_F(Flush, MovesTheRecordsToADumpFile) {
  append("one");
  append("two");
  const std::string bytes = content();
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  ASSERT_EQ(1U, dumps().size());
  EXPECT_EQ(bytes, read_file(std::string(kDir) + "/" + dumps()[0]));
  EXPECT_EQ((Payloads{"one", "two"}), dumped());
  EXPECT_EQ(16U, header().next_offset);
  EXPECT_EQ(0U, header().num_records);
  EXPECT_EQ(1U, list(kDir).size());
  EXPECT_TRUE(semaphore_is_free());
}

// That includes the bytes of a torn record behind the last whole one, whose writer was killed while
// it copied.
TEST_F(Flush, LeavesABufferThatIsZeroBehindItsHead) {
  append("one");
  staging_buffer_s* buffer = get_eventstore_staging_buffer();
  auto* bytes = reinterpret_cast<char*>(buffer);
  std::memset(bytes + buffer->next_offset, 'x', 9000);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(std::string(20800 - 8, '\0'), std::string(bytes + 8, 20800 - 8));
  put_eventstore_staging_buffer(buffer);
}

TEST_F(Flush, NamesDumpFilesByProcessAndTime) {
  append("x");
  flush_staging_buffer(FB_CTX_SWPR);
  std::smatch part;
  const std::string name = dumps().at(0);
  ASSERT_TRUE(std::regex_match(name, part, std::regex("pending_(\\d+)_(\\d+)\\.(\\d{6})"))) << name;
  EXPECT_EQ(std::to_string(getpid()), part[1]);
  EXPECT_NEAR(static_cast<double>(time(nullptr)), std::stod(part[2]), 2);
}

TEST_F(Flush, HasNothingToDoWithAnEmptyBuffer) {
  for (const FB_CTX ctx : kContexts) EXPECT_EQ(1, flush_staging_buffer(ctx));
  EXPECT_TRUE(list(kDir).empty());
}

TEST_F(Flush, OfAnEventLooksAtTheThresholdAgain) {
  append(std::string(5000, 'x'));
  reset_calls();
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_EVT));
  EXPECT_EQ(1, calls("mkostemp"));
  EXPECT_TRUE(list(kDir).empty());
  set_offset(10399);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_EVT));
  EXPECT_TRUE(list(kDir).empty());
  set_offset(10400);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_EVT));
  EXPECT_EQ(1U, list(kDir).size());
}

TEST_F(Flush, RunsAsRootForAUserAndGivesItBack) {
  append("x");
  ASSERT_EQ(0, chmod(kDir, 0700));
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    const Ids before = ids_now();
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_DISCON));
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_DISCON));
    EXPECT_TRUE(before == ids_now());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
  EXPECT_EQ(1U, dumps().size());
}

TEST_F(Flush, WithoutRootFailsAtOnce) {
  append("x");
  const Outcome outcome = in_child([] {
    ASSERT_EQ(0, setresuid(1000, 1000, 1000));
    EXPECT_EQ(-1, flush_staging_buffer(FB_CTX_SWPR));
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  EXPECT_FALSE(exists(kSyncOff));
}

TEST_F(Flush, LeavesNothingOpenAttachedOrOnTheHeap) {
  append("x");
  flush_staging_buffer(FB_CTX_SWPR);
  const int free_descriptor = dup(0);
  close(free_descriptor);
  const long blocks = live_allocations();
  append("y");
  flush_staging_buffer(FB_CTX_SWPR);
  flush_staging_buffer(FB_CTX_SWPR);
  EXPECT_EQ(blocks, live_allocations());
  const int now = dup(0);
  close(now);
  EXPECT_EQ(free_descriptor, now);
  EXPECT_EQ(0, attach_count(ftok("/dev/null", 1234)));
}

TEST_F(Flush, SyncsTheFileBeforeItsNameAndTheFolderAfter) {
  append("x");
  reset_calls();
  run_before("rename", [] { EXPECT_EQ(1, calls("fdatasync")); });
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(1, calls("rename"));
}

// --- what an error means in a context ------------------------------------------------------------

TEST(FlushErrors, AreFatalByContext) {
  for (int error = 1; error <= 10; ++error) {
    EXPECT_EQ(1, fb_err_disp(FB_CTX_SWPR, static_cast<FB_ERR>(error)));
    EXPECT_EQ(1, fb_err_disp(FB_CTX_EVT, static_cast<FB_ERR>(error)));
    EXPECT_EQ(error >= 7 ? 1 : 0, fb_err_disp(FB_CTX_DISCON, static_cast<FB_ERR>(error)));
    EXPECT_EQ(0, fb_err_disp(FB_CTX_INVAL, static_cast<FB_ERR>(error)));
    EXPECT_EQ(0, fb_err_disp(static_cast<FB_CTX>(9), static_cast<FB_ERR>(error)));
  }
  for (const FB_CTX ctx : kContexts) EXPECT_EQ(0, fb_err_disp(ctx, FB_OK));
}

// --- every error path ----------------------------------------------------------------------------

struct Failure {
  const char* name;
  FB_ERR error;
  std::function<void()> provoke;
  std::string message;  // the start of the text behind "FSB: "
  bool keeps_records;
};

class FlushFailure : public Flush {
 protected:
  static std::vector<Failure> failures() {
    const std::string no_space = "errno = 28(No space left on device)";
    return {
        {"missing folder", FB_ERR_MISSING_STAGING_DIR, [] { remove_all(kDir); },
         "missing staging directory /scratch/staging\n", true},
        {"no folder", FB_ERR_MISSING_STAGING_DIR,
         [] {
           remove_all(kDir);
           write_file(kDir, "");
         },
         "missing staging directory /scratch/staging\n", true},
        {"no name", FB_ERR_GET_DUMPFNAME_FAILED, [] { fail_call("calloc", ENOMEM, 2, 9); },
         "Failed to get the dumpfname ", true},
        {"no file", FB_ERR_MKSTEMP_FAILED, [] { fail_call("mkostemp", ENOSPC, 1, 9); },
         "cannot openfile /scratch/staging/txtemp", true},
        {"semaphore refused", FB_ERR_SEMAPHORE_WAIT_FAILED,
         [] { fail_call("semop", EACCES, 1, 9); },
         "Failed to get the eventstore semaphore with err 13.", true},
        {"semaphore removed", FB_ERR_SEMAPHORE_WAIT_FAILED, [] { fail_call("semop", EIDRM, 1, 9); },
         "Failed to get the eventstore semaphore with err 43.", true},
        {"semaphore missing", FB_ERR_SEMAPHORE_NOT_FOUND, [] { fail_call("semget", ENOENT, 1, 9); },
         "Failed to get the eventstore semaphore with err 2.", true},
        {"no buffer", FB_ERR_STAGING_BUFFER_UNAVAILABLE, [] { fail_call("shmat", ENOMEM, 1, 9); },
         "cannot access staging buffer.\n", true},
        {"overflow", FB_ERR_STAGING_BUFFER_OVERFLOW, [] { set_offset(20801); },
         "Event buffer overflow detected buf->nxt_offset:20801, bufsz:20800\n", true},
        {"write", FB_ERR_BUFFER_WRITE_FAILED, [] { fail_call("write", ENOSPC, 1, 9); },
         "staging buffer write failed sizewr = -1 size = 9. " + no_space + "\n", true},
        {"sync", FB_ERR_FDATASYNC_FAILED, [] { fail_call("fdatasync", EIO, 1, 1); },
         "staging buffer fdatasync error. errno = 5(Input/output error)\n", true},
        {"rename", FB_ERR_RENAME_FAILED, [] { fail_call("rename", EROFS, 1, 1); },
         "cannot rename /scratch/staging/txtemp", false},
    };
  }
};

TEST_F(FlushFailure, EndsAsItsContextSays) {
  for (const Failure& failure : failures()) {
    for (const FB_CTX ctx : {FB_CTX_INVAL, FB_CTX_SWPR, FB_CTX_DISCON, FB_CTX_EVT}) {
      remove_all(kDir);
      make_dirs(kDir);
      remove_all(kSyncOff);
      initialize_staging_buffer();
      append("x");
      if (ctx == FB_CTX_EVT) configure(20800, 0, kDir);  // anything is past that threshold
      const Outcome outcome = flush_in_child(ctx, failure.provoke);
      configure(20800, 50, kDir);
      const std::string what =
          std::string(failure.name) + " in " + std::to_string(ctx) + "\n" + outcome.err;

      const bool fatal = fb_err_disp(ctx, failure.error) == 1;
      EXPECT_EQ(fatal ? SIGABRT : 0, outcome.signal) << what;
      EXPECT_EQ(fatal ? -1 : 2, outcome.exit_code) << what;
      EXPECT_EQ(fatal, exists(kSyncOff)) << what;
      EXPECT_NE(std::string::npos, outcome.err.find("<FSB: " + failure.message)) << what;
      const char* names[] = {"Invalid ctx", "Sweeper", "Disconnect", "Event"};
      EXPECT_NE(std::string::npos, outcome.err.find(std::string(" in ctx ") + names[ctx] + ">"))
          << what;
      EXPECT_EQ(fatal, has(outcome, "Writing sync.off file.")) << what;
      const std::string name = failure.name;
      EXPECT_EQ(name.starts_with("semaphore"), has(outcome, "Failed to get the semaphore."))
          << what;
      const bool is_removed = name == "semaphore removed" || name == "semaphore missing";
      EXPECT_EQ(is_removed && (ctx == FB_CTX_SWPR || ctx == FB_CTX_EVT),
                has(outcome, "Semaphore is removed."))
          << what;
      EXPECT_EQ(name == "write",
                has(outcome,
                    "staging buffer could not finish write, perhaps interrupted by a signal. "
                    "retrying errno = 28(No space left on device)"))
          << what;
      EXPECT_EQ(!fatal && ctx == FB_CTX_INVAL, has(outcome, "FSB - Unknown context")) << what;
      EXPECT_EQ(failure.keeps_records ? 1U : 0U, header().num_records) << what;
      EXPECT_TRUE(semaphore_is_free()) << what;
      // A flush that returns leaves no temporary file.
      if (exists(kDir) && !fatal && std::string(failure.name) != "no folder") {
        EXPECT_TRUE(list(kDir).empty()) << what;
      }
    }
  }
}

struct Retry {
  const char* call;
  int error;
  int at;
};

TEST_F(Flush, TriesThreeTimesMoreWhereThatMayHelp) {
  const Retry retries[] = {
      {"mkostemp", EMFILE, 1}, {"write", EINTR, 1}, {"shmat", ENOMEM, 1}, {"semop", EACCES, 1}};
  for (const Retry& retry : retries) {
    initialize_staging_buffer();
    append("x");
    const auto flush = [&](int times) {
      return flush_in_child(FB_CTX_DISCON,
                            [&] { fail_call(retry.call, retry.error, retry.at, times); });
    };
    EXPECT_EQ(2, flush(4).exit_code == 1 ? 1 : 2) << retry.call;
    initialize_staging_buffer();
    append("x");
    EXPECT_EQ(1, flush(3).exit_code) << retry.call;
    EXPECT_EQ(1U, list(kDir).size()) << retry.call;
    for (const std::string& name : list(kDir)) remove_all(std::string(kDir) + "/" + name);
    remove_all(kSyncOff);
  }
}

TEST_F(Flush, WaitsThroughSignals) {
  append("x");
  const Outcome outcome = flush_in_child(FB_CTX_SWPR, [] { fail_call("semop", EINTR, 1, 20); });
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
}

TEST_F(Flush, SyncsThroughSignals) {
  append("x");
  const Outcome outcome = flush_in_child(FB_CTX_SWPR, [] { fail_call("fdatasync", EINTR, 1, 5); });
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
  EXPECT_EQ(Payloads{"x"}, dumped());
}

TEST_F(Flush, DoesNotTrustASyncThatFailedOnce) {
  append("x");
  const Outcome outcome = flush_in_child(FB_CTX_DISCON, [] { fail_call("fdatasync", EIO, 1, 1); });
  EXPECT_EQ(SIGABRT, outcome.signal);
  EXPECT_TRUE(dumps().empty());
  EXPECT_EQ(1U, header().num_records);
}

TEST_F(Flush, FinishesShortWrites) {
  append(std::string(3000, 'x'));
  const Outcome outcome = flush_in_child(FB_CTX_SWPR, [] { cut_short("write", 100); });
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(has(outcome, "Short write nwritten=100, nleft=2908, size=3008")) << outcome.err;
  EXPECT_EQ(Payloads{std::string(3000, 'x')}, dumped());
}

TEST_F(Flush, ToAFullDiskKeepsTheRecords) {
  mount_small_disk(kDir, 4096);
  append(std::string(9000, 'x'));
  EXPECT_TRUE(flush_in_child(FB_CTX_DISCON).signal == SIGABRT);
  EXPECT_EQ(1U, header().num_records);
  EXPECT_TRUE(exists(kSyncOff));
  EXPECT_TRUE(dumps().empty());
}

TEST_F(Flush, ToAReadOnlyFolderKeepsTheRecords) {
  append("x");
  mount_small_disk(kDir, 65536);
  ASSERT_EQ(0, mount(nullptr, kDir, nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(2, flush_in_child(FB_CTX_DISCON).exit_code);
  EXPECT_EQ(1U, header().num_records);
  EXPECT_FALSE(exists(kSyncOff));
}

TEST_F(Flush, SurvivesATimersStorm) {
  append("x");
  const Outcome outcome = in_child([] {
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGALRM, &ignore, nullptr);
    const itimerval storm{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &storm, nullptr);
    for (int round = 0; round < 200; ++round) {
      append("y");
      if (flush_staging_buffer(FB_CTX_SWPR) != 1) _exit(1);
    }
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  EXPECT_FALSE(exists(kSyncOff));
}

}  // namespace
}  // namespace tavrix::test
