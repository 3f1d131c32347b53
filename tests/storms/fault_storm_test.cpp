// SPDX-License-Identifier: LGPL-3.0-or-later
// Calls of real programs that fail, once or for good, wherever chance has it.

#include <cerrno>

#include "tests/storms/acknowledged.hpp"
#include "tests/storms/sessions.hpp"
#include "tests/storms/storm.hpp"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

struct Fault {
  std::string rule;
  std::string text;
};

// A rule for tests/support/faults.cpp: one of the calls, at one of its first uses.
template <typename Calls>
Fault any_fault(Storm& storm, const Calls& calls) {
  const std::pair<int, const char*> errors[] = {
      {ENOSPC, "ENOSPC"}, {EIO, "EIO"}, {ENOMEM, "ENOMEM"}, {EINTR, "EINTR"}, {EMFILE, "EMFILE"}};
  const std::string call = storm.any_of(calls);
  const auto [error, name] = storm.any_of(errors);
  const std::string first = std::to_string(1 + storm.below(8));
  const char* const many[] = {"1", "1", "1", "3", "3", "99"};
  const std::string times = storm.any_of(many);
  return {call + ":" + std::to_string(error) + ":" + first + ":" + times,
          call + " " + name + " at " + first + ", " + times + " times"};
}

std::vector<std::pair<std::string, std::string>> environment_of(const Fault& fault) {
  return {{"LD_PRELOAD", TAVRIX_BUILD_DIR "/tests/libtavrix_faults.so"},
          {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"},
          {"TAVRIX_FAULTS", fault.rule}};
}

std::string end_of(const Outcome& outcome) {
  if (outcome.signal == SIGABRT && outcome.err.find("Assertion `") != std::string::npos) {
    return "assertion's end";
  }
  if (outcome.signal != 0) return "signal " + std::to_string(outcome.signal);
  return outcome.exit_code == 0 ? "done" : "refused with a message";
}

class FaultStorm : public EventStorm {};

// A flusher whose calls fail, between writers whose calls do not.
TEST_F(FaultStorm, OfEventsLosesNothingUntold) {
  const char* const calls[] = {"open",      "write",     "rename",       "unlink",   "fsync",
                               "fdatasync", "mkostemp",  "flock",        "semget",   "semop",
                               "semctl",    "shmget",    "shmat",        "shmctl",   "stat",
                               "calloc",    "lsetxattr", "lremovexattr", "renameat2"};
  Storm storm("fault.events", 2);
  send("first");
  const StormFootprint footprint;
  while (storm.goes_on()) {
    StormSession session(storm);
    empty_staging_dir();
    forget_what_was_told();
    std::set<std::string> acknowledged;
    const auto write_some = [&](const char* when) {
      for (unsigned i = 0, count = 1 + storm.below(20); i < count; ++i) {
        const std::string path = std::string(when) + std::to_string(i);
        if (append(path) == 0) acknowledged.insert(path);
        session.rest_at_times();
      }
    };
    write_some("before-");
    const Fault fault = any_fault(storm, calls);
    const bool is_sweeper = storm.below(2) == 0;
    const Outcome outcome =
        is_sweeper
            ? run_program({"timeout", "20", TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--once"}, {},
                          environment_of(fault))
            : run_program({"timeout", "20", TAVRIX_BUILD_DIR "/tools/tavrixctl", "events", "buffer",
                           "flush"},
                          {}, environment_of(fault));
    const std::string where = storm.where() + ", " + fault.text +
                              (is_sweeper ? " in the sweeper: " : " in a flush: ") + outcome.err;
    const std::string end = end_of(outcome);
    EXPECT_FALSE(end.starts_with("signal")) << end << " " << where;
    EXPECT_NE(124, outcome.exit_code) << "hangs: " << where;
    if (end == "refused with a message") {
      EXPECT_NE("", outcome.err) << where;
    }
    write_some("after-");
    const Outcome last = once();
    EXPECT_EQ(0, last.exit_code) << where << last.err;
    EXPECT_EQ(Paths{}, others()) << where;
    if (end == "assertion's end") {
      EXPECT_TRUE(is_told()) << where;
    }
    if (!is_told()) {
      each_is_there_once(acknowledged, where);
      storm.count(end + ": every event once");
    } else {
      int lost = 0;
      const auto files = files_of_events();
      for (const std::string& path : acknowledged) lost += files.count(path) == 0 ? 1 : 0;
      storm.count(end + (lost == 0 ? ": every event there, and the agent looks at the tree"
                                   : ": events lost, and the agent looks at the tree"));
    }
  }
  footprint.expect_same(storm.where());
}

class MapFaultStorm : public Loader {};

TEST_F(MapFaultStorm, OfImportsLosesNoMap) {
  const char* const calls[] = {"open",   "fopen",  "write",  "rename", "unlink", "fsync",
                               "flock",  "link",   "semget", "semctl", "setall", "getval",
                               "shmget", "shmnew", "shmat",  "shmctl", "shmrm",  "stat",
                               "calloc", "fork",   "mkdir",  "symlink"};
  Storm storm("fault.maps", 2);
  uint32_t current = 50;
  hand_over(numbered_map(current));
  ASSERT_EQ(0, once().exit_code);
  ASSERT_EQ(static_cast<int>(current), number_by_verdicts());
  const StormFootprint footprint;
  StormSession session(storm);
  while (storm.goes_on()) {
    const uint32_t next = current + 1 + storm.below(50);
    hand_over(numbered_map(next));
    const Fault fault = any_fault(storm, calls);
    const Outcome outcome = once_with(fault.rule);
    const std::string where = storm.where() + ", " + fault.text + ": " + outcome.err;
    const std::string end = end_of(outcome);
    EXPECT_FALSE(end.starts_with("signal")) << end << " " << where;
    const auto between = static_cast<uint32_t>(folders_of_current());
    EXPECT_TRUE(between == current || between == next) << between << " " << where;
    EXPECT_EQ(static_cast<int>(between), number_by_verdicts()) << where;
    session.rest_at_times();
    const Outcome after = once();
    EXPECT_EQ(0, after.exit_code) << where << after.err;
    const auto now = static_cast<uint32_t>(folders_of_current());
    EXPECT_EQ(static_cast<int>(now), number_by_verdicts()) << where;
    // The old map stays only with a pair that was set aside, whole.
    EXPECT_TRUE(now == next || (now == current && !refused().empty())) << now << " " << where;
    for (const std::string& name : refused()) {
      const auto files = list(kInbox + "/refused/" + name);
      EXPECT_TRUE(std::count(files.begin(), files.end(), "data.json") == 1 &&
                  std::count(files.begin(), files.end(), "size.json") == 1)
          << where;
      remove_all(kInbox + "/refused/" + name);
    }
    EXPECT_EQ(0, ctl({"map", "verify"}).exit_code) << where;
    EXPECT_EQ(2, segments_in_use()) << "the table and the settings; " << where;
    storm.count(end + (between == next ? ": the new map at once"
                       : now == next   ? ": the new map after the next start"
                                       : ": the pair set aside, the old map kept"));
    current = now;
  }
  footprint.expect_same(storm.where());
}

}  // namespace
}  // namespace tavrix::test
