// SPDX-License-Identifier: LGPL-3.0-or-later
// Temporary files of killed flushes: every acknowledged event comes into one dump file.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <set>
#include <sstream>
#include <stdexcept>

#include "tests/support/stops.hpp"
#include "tests/tools/sweeper.hpp"

namespace tavrix::test {
namespace {

class Stranded : public SweeperWorld {
 protected:
  void SetUp() override {
    SweeperWorld::SetUp();
    ASSERT_EQ(0, once().exit_code);
  }
  // The bytes of a dump file with these events.
  static std::string records(const Paths& paths) {
    for (const std::string& path : paths) send(path);
    flush_staging_buffer(FB_CTX_SWPR);
    const std::string name = std::string(kStaging) + "/" + list(kStaging).at(0);
    std::string bytes = read_file(name);
    remove_all(name);
    return bytes;
  }
  static std::string in_buffer() {
    staging_buffer_s* buffer = get_eventstore_staging_buffer();
    std::string bytes(reinterpret_cast<const char*>(buffer + 1), buffer->next_offset - 16);
    put_eventstore_staging_buffer(buffer);
    return bytes;
  }
  static void leave(const std::string& bytes, const std::string& name = "txtempAbCdEf") {
    write_file(std::string(kStaging) + "/" + name, bytes);
  }
  static bool is_marked() { return lgetxattr(kStaging, "trusted.tavrix.flush", nullptr, 0) > 0; }
  static void expect_settled(const Paths& wanted, const std::string& where) {
    EXPECT_EQ(wanted, sorted(dumped())) << where;
    EXPECT_TRUE(others().empty()) << where << " " << others().at(0);
    EXPECT_FALSE(is_marked()) << where;
    EXPECT_FALSE(exists(kSyncOff)) << where;
  }
};

// "+dac_override,..." for "CapabilityBoundingSet=CAP_DAC_OVERRIDE ..."
std::string rights_in(const std::string& unit) {
  const std::string key = "\nCapabilityBoundingSet=";
  const auto start = unit.find(key);
  if (start == std::string::npos) throw std::runtime_error("the unit leaves every right");
  std::istringstream words(
      unit.substr(start + key.size(), unit.find('\n', start + 1) - start - key.size()));
  std::string rights = "-all";
  for (std::string word; words >> word;) {
    std::string name = word.substr(std::string("CAP_").size());
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    rights += ",+" + name;
  }
  return rights;
}

// Without its mark a flush that is killed may leave its records twice, and nobody is told.
TEST_F(Stranded, AFlushIsMarkedWithTheRightsThatTheUnitLeaves) {
  send("a");
  const std::string unit = read_file(TAVRIX_SOURCE_DIR "/packaging/tavrix-sweeper.service");
  const Outcome outcome =
      run_program({"setpriv", "--bounding-set=" + rights_in(unit), "--", kSweeper, "--once"}, {},
                  with_faults("fdatasync@txtemp:kill:1"));
  EXPECT_EQ(SIGKILL, outcome.signal) << outcome.err;
  EXPECT_TRUE(is_marked());
}

// --- one file ------------------------------------------------------------------------------------

TEST_F(Stranded, WholeFilesThatAloneHaveTheirRecordsArePublished) {
  leave(records({"a", "b"}));
  send("c");
  EXPECT_EQ(0, once().exit_code);
  expect_settled({"a", "b", "c"}, "");
}

TEST_F(Stranded, FilesWhoseRecordsAreInTheBufferGo) {
  send("a");
  leave(in_buffer());
  send("b");
  EXPECT_EQ(0, once().exit_code);
  expect_settled({"a", "b"}, "");
}

TEST_F(Stranded, CutAndEmptyFilesGo) {
  const std::string bytes = records({"a", "b"});
  leave(bytes.substr(0, bytes.size() - 1));
  leave(bytes.substr(0, 5), "txtempBBBBBB");
  leave("", "txtempCCCCCC");
  EXPECT_EQ(0, once().exit_code);
  expect_settled({}, "");
}

// The missing part may have been records that were nowhere else.
TEST_F(Stranded, ACutFileThatAloneHasItsRecordsAsksForARescan) {
  leave(records({"a", "b"}));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_FALSE(exists(kRescan));
  empty_staging_dir();
  const std::string bytes = records({"a", "b"});
  leave(bytes.substr(0, bytes.size() - 1));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_TRUE(contains(read_file(kRescan), "a file of events was cut"));
}

TEST_F(Stranded, ForeignBytesAreSetAsideAndNamed) {
  leave(std::string(100, '\0'));
  const Outcome outcome = once();
  EXPECT_EQ(Paths{"aside_txtempAbCdEf"}, others());
  EXPECT_TRUE(contains(outcome.err, "/scratch/staging/txtempAbCdEf was not written by a flush"))
      << outcome.err;
  EXPECT_FALSE(contains(once().err, "txtemp"));
}

TEST_F(Stranded, FilesOfLiveFlushersStay) {
  leave(records({"a"}));
  const Fd live(open("/scratch/staging/txtempAbCdEf", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(0, flock(live.get(), LOCK_EX));
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"txtempAbCdEf"}, others());
}

TEST_F(Stranded, ManyFilesOfOneMomentGetNamesOfTheirOwn) {
  Paths wanted;
  for (const char* path : {"a", "b", "c", "d"}) {
    const std::string name = std::string("txtempAAAAA") + path;
    leave(records({path}), name);
    const timespec times[2] = {{1700000000, 5000}, {1700000000, 5000}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (std::string(kStaging) + "/" + name).c_str(), times, 0));
    wanted.emplace_back(path);
  }
  EXPECT_EQ(0, once().exit_code);
  expect_settled(wanted, "");
}

// --- kills at each step -------------------------------------------------------------------

struct After {
  const char* name;
  std::function<Paths()> act;  // runs between the kill and the sweeper; returns the events it adds
};

TEST_F(Stranded, NothingIsLostOrDoubledWhereverAFlushIsKilled) {
  const After afters[] = {
      {"nothing", [] { return Paths{}; }},
      {"an event",
       [] {
         send("c");
         return Paths{"c"};
       }},
      {"another flush",
       [] {
         EXPECT_EQ(1, flush_staging_buffer(FB_CTX_DISCON));
         return Paths{};
       }},
      {"an event and another flush",
       [] {
         send("c");
         EXPECT_EQ(1, flush_staging_buffer(FB_CTX_DISCON));
         send("d");
         return Paths{"c", "d"};
       }},
  };
  int kills = 0;
  for (const After& after : afters) {
    for (int change = 1;; ++change) {
      empty_staging_dir();
      send("a");
      send("b");
      const bool was_killed = killed_at_change(change, [] { flush_staging_buffer(FB_CTX_SWPR); });
      Paths wanted{"a", "b"};
      for (const std::string& path : after.act()) wanted.push_back(path);
      ASSERT_EQ(0, once().exit_code);
      expect_settled(wanted, std::string(after.name) + " at change " + std::to_string(change));
      if (!was_killed) break;
      ++kills;
    }
  }
  EXPECT_GT(kills, 4 * 10);
}

// The files that have a name in the folder, by their inodes.
std::set<ino_t> files_in(const std::string& folder, const std::string& start) {
  std::set<ino_t> inodes;
  for (const std::string& name : list(folder)) {
    struct stat info {};
    if (name.starts_with(start) && stat((folder + "/" + name).c_str(), &info) == 0) {
      inodes.insert(info.st_ino);
    }
  }
  return inodes;
}

TEST_F(Stranded, TheHistoryHasTheFilesOfTheAgentWhereverAFlushIsKilled) {
  for (int change = 1;; ++change) {
    remove_all(TAVRIX_HISTORY_FOLDER);
    make_dirs(TAVRIX_HISTORY_FOLDER);
    empty_staging_dir();
    send("a");
    const bool was_killed = killed_at_change(change, [] { flush_staging_buffer(FB_CTX_SWPR); });
    ASSERT_EQ(0, once().exit_code);
    EXPECT_EQ(Paths{"a"}, dumped()) << change;
    EXPECT_EQ(files_in(kStaging, "pending_"),
              files_in(TAVRIX_HISTORY_FOLDER, "events.staging.pending_"))
        << change;
    if (HasFailure() || !was_killed) break;
  }
}

// After a killed sweeper a writer comes before the next sweeper. It may have to wait for the
// semaphore, but no process ends and nothing is lost.
void settle_after_a_kill(const std::function<Outcome()>& next, const std::string& event) {
  std::unique_ptr<Child> writer;
  if (semget(ftok("/dev/null", 2345), 0, 0) != -1) {
    writer = std::make_unique<Child>([&event] {
      VFSEvent message = VFSEVENT__INIT;
      message.path = const_cast<char*>(event.c_str());
      pop_vfs_event(&message, 1001);
      const Malloced<staging_data_s> record(create_staging_data_buf(&message));
      ASSERT_EQ(0, write_to_staging_buffer(record.get()));
      write_file("/scratch/written", event);
    });
  }
  const Outcome outcome = next();
  ASSERT_EQ(0, outcome.exit_code) << outcome.err;
  if (writer == nullptr) return;
  const Outcome written = writer->wait();
  ASSERT_TRUE(written.ok()) << written.out << written.err;
}

class KilledSweeper : public Stranded {
 protected:
  static bool run_killed(int change) {
    return killed_at_change(
        change, [] { execl(kSweeper, "tavrix-sweeper", "--once", "--settings", kConf, nullptr); });
  }
  // Kills the sweeper at each step, each time from the state that `prepare` makes. `prepare`
  // returns the events of that state.
  static void expect_all_kept(const std::function<Paths()>& prepare) {
    for (int change = 1;; ++change) {
      empty_staging_dir();
      remove_all("/scratch/written");
      Paths wanted = prepare();
      const bool was_killed = run_killed(change);
      ASSERT_NO_FATAL_FAILURE(settle_after_a_kill(once_in_haste, "w")) << "at change " << change;
      ASSERT_EQ(0, once().exit_code);
      if (exists("/scratch/written")) wanted.emplace_back("w");
      expect_settled(sorted(wanted), "at change " + std::to_string(change));
      if (HasFailure() || !was_killed) break;
    }
  }
};

TEST_F(KilledSweeper, AtEachStepOfAFirstStart) {
  expect_all_kept([] {
    shmctl(segment(), IPC_RMID, nullptr);
    semctl(semaphore(), 0, IPC_RMID);
    remove_all(kRunning);
    return Paths{};
  });
}

TEST_F(KilledSweeper, AtEachStepOfAFlush) {
  expect_all_kept([] {
    send("a");
    leave(in_buffer(), "txtempAAAAAA");
    return Paths{"a"};
  });
}

TEST_F(KilledSweeper, AtEachStepOfAPublication) {
  expect_all_kept([] {
    leave(records({"a"}));
    send("b");
    return Paths{"a", "b"};
  });
}

TEST_F(KilledSweeper, AtEachStepWhileTheSegmentGrows) {
  expect_all_kept([] {
    shmctl(segment(), IPC_RMID, nullptr);
    global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = 65536;
    EXPECT_EQ(0, create_staging_buffer());
    ctl({"config", "set", "SWEEPER:staging buffer size", "65536"});
    write_settings(131072, 1);
    send("a");
    return Paths{"a"};
  });
}

}  // namespace
}  // namespace tavrix::test
