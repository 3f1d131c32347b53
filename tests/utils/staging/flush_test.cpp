// SPDX-License-Identifier: LGPL-3.0-or-later
// The flush: dump files, contexts, and every error path.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/xattr.h>
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
  // Aborts of a child come with its log.
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

// Also of a record whose writer was killed while it copied it: its bytes are behind the last whole
// one.
TEST_F(Flush, LeavesABufferThatIsZeroBehindItsHead) {
  append("one");
  staging_buffer_s* buffer = get_eventstore_staging_buffer();
  auto* bytes = reinterpret_cast<char*>(buffer);
  std::memset(bytes + buffer->next_offset, 'x', 9000);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(std::string(20800 - 8, '\0'), std::string(bytes + 8, 20800 - 8));
  put_eventstore_staging_buffer(buffer);
}

TEST_F(Flush, HoldsItsTemporaryFileUntilItHasItsName) {
  append("x");
  const auto expect_locked = [] {
    const std::string name = std::string(kDir) + "/" + list(kDir).at(0);
    const Fd file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(-1, flock(file.get(), LOCK_EX | LOCK_NB));
    EXPECT_EQ(EWOULDBLOCK, errno);
  };
  run_before("write", expect_locked);
  run_before("rename", expect_locked);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
}

TEST_F(Flush, MakesAnotherFileWhenTheSweeperTookItsEmptyOne) {
  append("x");
  run_before("fstat", [] { remove_all(std::string(kDir) + "/" + list(kDir).at(0)); });
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(Payloads{"x"}, dumped());
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
      // Of a flush that returns, no temporary file stays.
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

// --- names, strings, writes ----------------------------------------------------------------------

TEST(DumpName, ReplacesAMissingFolder) {
  const CString name([] {
    char* made = nullptr;
    EXPECT_EQ(0, level_of("prefix is NULL", [&] {
                std::free(made);
                made = get_dumpfname(nullptr);
              }));
    return made;
  }());
  EXPECT_TRUE(std::string(name.get()).starts_with("unk/pending_"));
}

TEST(DumpName, IsCutAtItsRoom) {
  const CString name(get_dumpfname(std::string(300, 'd').c_str()));
  EXPECT_EQ(std::string(255, 'd'), name.get());
}

TEST(DumpName, WithoutMemoryIsNone) {
  const auto attempt = [] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(nullptr, get_dumpfname("/x"));
  };
  EXPECT_EQ(
      0, level_of("failed to calloc for dumpfname, errno = 12 (Cannot allocate memory)", attempt));
}

TEST(WriteAll, WritesNothingAndEverything) {
  EXPECT_EQ(0, write_all(-1, "x", 0));
  const auto attempt = [] { EXPECT_EQ(-1, write_all(-1, "xyz", 3)); };
  EXPECT_EQ(
      0,
      level_of("Failed to write to fd. nwritten=-1, nleft=3, size=3, errno=9(Bad file descriptor)",
               attempt));
}

// --- a flusher that was killed before ------------------------------------------------------------

class KilledFlush : public Flush {
 protected:
  static constexpr const char* kLeft = "/scratch/staging/txtempAbCdEf";

  static void leave(const std::string& bytes) {
    write_file(kLeft, bytes);
    ASSERT_EQ(0, lsetxattr(kDir, "trusted.tavrix.flush", "txtempAbCdEf", 12, 0));
  }
  // As it is while its flusher dies: the semaphore is free already, the lock not yet.
  static Fd locked() {
    Fd file(open(kLeft, O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(0, flock(file.get(), LOCK_EX));
    return file;
  }
};

TEST_F(KilledFlush, WhoseRecordsAreInTheBufferLeavesThemOnceWhileItStillDies) {
  append("one");
  leave(content());
  append("two");
  {
    const Fd dying = locked();
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  }
  EXPECT_EQ((Payloads{"one", "two"}), dumped());
  EXPECT_FALSE(exists(kLeft));
}

TEST_F(KilledFlush, WhoseRecordsItAloneHasKeepsItsFileWhileItStillDies) {
  append("one");
  leave(content());
  EXPECT_EQ(0, initialize_staging_buffer());
  append("two");
  {
    const Fd dying = locked();
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  }
  EXPECT_EQ(Payloads{"two"}, dumped());
  EXPECT_EQ(Payloads{"one"}, payloads_of(read_file(kLeft)));
}

// Both files get this process's number: the second one is named after the first was settled.
TEST_F(KilledFlush, IsPublishedUnderAnotherNameThanTheFlushThatFindsIt) {
  append("one");
  leave(content());
  EXPECT_EQ(0, initialize_staging_buffer());
  append("two");
  timeval now{};
  run_before("semop", [&now] {
    usleep(1000);
    gettimeofday(&now, nullptr);
  });
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  char then[64];
  std::snprintf(then, sizeof then, "pending_%d_%ld.%06ld", getpid(), now.tv_sec, now.tv_usec);
  ASSERT_EQ(2U, dumps().size());
  EXPECT_GT(dumps()[1], then);
  EXPECT_EQ((Payloads{"one", "two"}), dumped());
}

TEST_F(KilledFlush, IsTriedAgainWhenItsFileCannotBeLookedAt) {
  append("one");
  leave(content());
  fail_call("fstat", EIO, 2);  // the first is of the new file
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(Payloads{"one"}, dumped());
  EXPECT_FALSE(exists(kLeft));
}

// --- the markers ---------------------------------------------------------------------------------

class EventMarkers : public Isolated {};

TEST_F(EventMarkers, AreOnTheDiskWithTheirNames) {
  make_dirs("/tavrix/.conf");
  reset_calls();
  write_sync_off();
  EXPECT_EQ(2, calls("fsync"));  // the file and its folder
  mark_event_db_as_rescan_needed("x");
  EXPECT_EQ(4, calls("fsync"));
}

TEST_F(EventMarkers, CountAsMadeWhenTheDiskCannotSync) {
  make_dirs("/tavrix/.conf");
  fail_call("fsync", EIO, 1, 9);
  EXPECT_EQ(0, write_sync_off());
  EXPECT_EQ(0, mark_event_db_as_rescan_needed("x"));
}

TEST_F(EventMarkers, SyncOffIsWrittenOverWhatIsThere) {
  make_dirs("/tavrix/.conf");
  write_file("/tavrix/.conf/sync.off", std::string(40, 'o'));
  EXPECT_EQ(
      0, level_of("/tavrix/.conf/sync.off file created.", [] { EXPECT_EQ(0, write_sync_off()); }));
  EXPECT_EQ("Failed to write event." + std::string(18, 'o'), read_file("/tavrix/.conf/sync.off"));
}

TEST_F(EventMarkers, SyncOffCannotBeMadeWithoutItsFolder) {
  EXPECT_EQ(0,
            level_of("Creation of /tavrix/.conf/sync.off failed with 2(No such file or directory)",
                     [] { EXPECT_EQ(ENOENT, write_sync_off()); }));
}

TEST_F(EventMarkers, RescanHoldsItsReasonAndANul) {
  make_dirs("/tavrix/.conf");
  EXPECT_EQ(0, mark_event_db_as_rescan_needed("because"));
  EXPECT_EQ(std::string("because\0", 8), read_file("/tavrix/.conf/tavrix_event_status.dirty"));
  struct stat info {};
  stat("/tavrix/.conf/tavrix_event_status.dirty", &info);
  EXPECT_EQ(0744U, info.st_mode & 0777);
}

TEST_F(EventMarkers, RescanFailures) {
  const std::string rest =
      " event status file '/tavrix/.conf/tavrix_event_status.dirty' to mark rescan needed (-1). "
      "errno = ";
  EXPECT_EQ(0, level_of("Cannot open" + rest + "2(No such file or directory)",
                        [] { EXPECT_EQ(-1, mark_event_db_as_rescan_needed("x")); }));
  make_dirs("/tavrix/.conf");
  EXPECT_EQ(0, level_of("Cannot write" + rest + "28(No space left on device)", [] {
              fail_call("write", ENOSPC);
              EXPECT_EQ(-1, mark_event_db_as_rescan_needed("x"));
            }));
  EXPECT_EQ(0, level_of("Close of event status file '/tavrix/.conf/tavrix_event_status.dirty' "
                        "failed. errno = 5(Input/output error)",
                        [] {
                          fail_call("close", EIO);
                          EXPECT_EQ(-1, mark_event_db_as_rescan_needed("x"));
                        }));
}

}  // namespace
}  // namespace tavrix::test
