// SPDX-License-Identifier: LGPL-3.0-or-later
// Everything that brings a record into the history is killed at random moments, while the agent
// takes each dump file as soon as it sees it.

#include "tests/historian/historian.hpp"
#include "tests/storms/killed.hpp"
#include "tests/storms/sessions.hpp"
#include "tests/storms/storm.hpp"

namespace tavrix::test {
namespace {

class HistoryStorm : public HistorianWorld {
 protected:
  static constexpr int kWriters = 16;
  static constexpr int kReadEvery = 40;  // events between two reads of a writer
  static constexpr std::size_t kEnough = 1000;
  static constexpr int kMostRounds = 5000;

  // A read is acknowledged when the flush of the audit buffer is done.
  static bool append_read(const std::string& path) {
    AuditEvent audit = AUDIT_EVENT__INIT;
    audit.path = const_cast<char*>(path.c_str());
    pop_audit_event(&audit);
    return send_audit_vfs_event(&audit, 1001) == 0 && flush_audit_buffer() == 0;
  }

  [[noreturn]] static void write(int round, int writer, bool has_session) {
    StormSession session(has_session, static_cast<unsigned>(round * kWriters + writer));
    init_audit_buffer();
    AcknowledgedList log(writer);
    for (int number = 0;; ++number) {
      const bool is_read = number % kReadEvery == 1;
      const std::string path = std::string(is_read ? "read" : "event") + std::to_string(round) +
                               "-" + std::to_string(writer) + "-" + std::to_string(number);
      if (is_read ? append_read(path) : append(path) == 0) log.add(path);
    }
  }
  [[noreturn]] static void be_the_agent() {
    for (;;) {
      for (const char* folder : {kStaging, kAuditing}) {
        for (const std::string& name : list(folder)) {
          if (name.starts_with("pending_")) unlink((folder + ("/" + name)).c_str());
        }
      }
    }
  }

  void round(Storm& storm) {
    KilledProcesses processes;
    for (int writer = 0; writer < kWriters; ++writer) {
      processes.add([round = storm.rounds(), writer, has_session = storm.gives_session()] {
        write(round, writer, has_session);
      });
    }
    for (const FB_CTX ctx : {FB_CTX_SWPR, FB_CTX_DISCON}) {
      processes.add([ctx] {
        for (;;) flush_staging_buffer(ctx);
      });
    }
    processes.add([] { execl(kSweeper, "tavrix-sweeper", "--foreground", nullptr); });
    for (int i = 0; i < 2; ++i) {
      processes.add([] { execl(kHistorian, "tavrix-historian", "--settings", kConf, nullptr); });
    }
    processes.add([] { be_the_agent(); });
    processes.kill_all(storm);
    storm.count("dump file that waits at the end of a round", static_cast<int>(links().size()));
    AcknowledgedList::collect(kWriters, acknowledged_);
  }

  void expect_each_kept_once(Storm& storm) {
    std::map<std::string, int> times;
    for (const std::string& path : kept()) ++times[path];
    // Their names say in which round they were written, by whom, and which kind they are.
    Paths missing;
    Paths doubled;
    for (const std::string& path : acknowledged_) {
      if (times[path] == 0) missing.push_back(path);
    }
    for (const auto& [path, count] : times) {
      if (count > 1) doubled.push_back(path);
    }
    EXPECT_EQ(Paths{}, missing) << storm.where();
    EXPECT_EQ(Paths{}, doubled) << storm.where();
    storm.count("record acknowledged", static_cast<int>(acknowledged_.size()));
    storm.count("record in the history", static_cast<int>(times.size()));
  }

  std::set<std::string> acknowledged_;
};

TEST_F(HistoryStorm, OfKillsKeepsEachRecordOnce) {
  Storm storm("history.kill", 1);
  ASSERT_EQ(0, keep().exit_code);
  while (storm.goes_on() || (acknowledged_.size() < kEnough && storm.rounds() < kMostRounds)) {
    ASSERT_NO_FATAL_FAILURE(round(storm));
    if (HasFailure()) break;
  }
  EXPECT_EQ(0, once().exit_code);
  const Outcome last = keep();
  EXPECT_EQ(0, last.exit_code) << last.err;
  EXPECT_TRUE(links().empty());
  EXPECT_FALSE(exists(kRefused));
  EXPECT_EQ(Paths{}, notices("gap"));
  EXPECT_GE(acknowledged_.size(), kEnough);
  expect_each_kept_once(storm);
}

}  // namespace
}  // namespace tavrix::test
