// SPDX-License-Identifier: LGPL-3.0-or-later
// Bits that flip in segments and files, and the programs that come upon them.

#include <sys/shm.h>
#include <functional>

#include "perm_map.h"
#include "perm_utils.h"
#include "read_perms.h"
#include "tests/storms/acknowledged.hpp"
#include "tests/storms/sessions.hpp"
#include "tests/storms/storm.hpp"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

void flip_bit(char* bytes, std::size_t bit) {
  bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
}
void flip_in_file(Storm& storm, const std::string& path) {
  std::string bytes = read_file(path);
  flip_bit(bytes.data(), storm.below(bytes.size() * 8));
  write_file(path, bytes);
}
std::string end_of(const Outcome& outcome) {
  if (outcome.signal == SIGABRT && contains(outcome.err, "Assertion `")) return "assertion's end";
  if (outcome.signal != 0) return "signal " + std::to_string(outcome.signal);
  return outcome.exit_code == 0 ? "done" : "refused with a message";
}

class MapFlipStorm : public Loader {
 protected:
  // The whole map as a server process reads it, or how that ended.
  static std::string answers() {
    const Outcome outcome = in_child([] {
      void* map = init_perm_map_semaphore() == 0 ? get_perm_map_addr() : nullptr;
      if (map == nullptr) return;
      for (const char* path : {"Shared", "Shared/Team", "Shared/Team/Docs", "Shared/Team/Secret",
                               "Shared/Other/x", "Private"}) {
        tavrix_acl_t* acl = nullptr;
        get_tavrix_acl(map, path, &acl);
        std::printf("%s:", path);
        for (auto* elem = acl->ace_list_head.first_elem; elem != nullptr; elem = elem->next_elem) {
          const auto* ace = reinterpret_cast<const tavrix_ace_s*>(elem);
          std::printf(" %d %u %u", static_cast<int>(ace->trustee_type),
                      static_cast<unsigned>(ace->trustee.uid),
                      static_cast<unsigned>(ace->perm_mask));
        }
        std::printf("\n");
        free_ACL(acl);
        std::free(acl);
      }
      put_perm_map_addr(map);
    });
    return outcome.ok() ? outcome.out : end_of(outcome);
  }
  static int current_table() {
    const int id = shmget(TAVRIX_PERM_TABLE0_KEY, 0, 0);
    return id != -1 ? id : shmget(TAVRIX_PERM_TABLE1_KEY, 0, 0);
  }
  static std::size_t bits_of(int table) {
    struct shmid_ds info {};
    return shmctl(table, IPC_STAT, &info) == 0 ? info.shm_segsz * 8 : 0;
  }
};

// A reader of a damaged table gives an answer or ends by an assertion. Either way "map verify" and
// a look at the copy tell, and the copy, made current again, answers as before.
TEST_F(MapFlipStorm, OfTheTableIsKnownAndHealed) {
  Storm storm("flip.table", 5);
  constexpr int kNumber = 1234;
  Folder map = numbered_map(kNumber);
  map.children[0].children.push_back(team().children[0].children[0]);
  import(map);
  ASSERT_EQ(kNumber, number_by_verdicts());
  const StormFootprint footprint;
  const std::string right = answers();
  const std::string copy = read_file(kCopy);
  while (storm.goes_on()) {
    StormSession session(storm);
    EXPECT_EQ(kNumber, number_by_verdicts());  // and holds the table that is damaged then
    const int table = current_table();
    const std::size_t bit = storm.below(bits_of(table));
    {
      const ShmAttachment attached(shmat(table, nullptr, 0));
      flip_bit(static_cast<char*>(attached.get()), bit);
    }
    const std::string where = storm.where() + ", bit " + std::to_string(bit);
    const std::string answer = answers();
    EXPECT_FALSE(answer.starts_with("signal")) << answer << " " << where;
    EXPECT_EQ(1, ctl({"map", "verify"}).exit_code) << where;
    storm.count(answer == right               ? "right answers; verify tells"
                : answer == "assertion's end" ? "assertion's end; verify tells"
                                              : "other answers; verify tells");
    EXPECT_TRUE(copy == read_file(kCopy)) << where;
    ctl({"map", "remove", "--yes"});
    EXPECT_EQ(0, once().exit_code) << where;
    EXPECT_EQ(right, answers()) << where;
    EXPECT_EQ(kNumber, number_by_verdicts()) << where;
  }
  footprint.expect_same(storm.where());
}

// A damaged copy is never served: it is written again from the table, or refused without one.
TEST_F(MapFlipStorm, OfTheCopyIsHealedOrRefused) {
  Storm storm("flip.copy", 5);
  import(team());
  const std::string right = answers();
  const std::vector<std::string> files{kCopy, kCopy + ".sha256", kCopy + ".mark"};
  std::map<std::string, std::string> whole;
  for (const std::string& file : files) whole[file] = read_file(file);
  while (storm.goes_on()) {
    const std::string file = storm.any_of(files);
    flip_in_file(storm, file);
    const std::string where = storm.where() + ", " + file;
    const bool has_table = storm.below(2) == 0;
    if (!has_table) ctl({"map", "remove", "--yes"});
    const Outcome outcome = once();
    EXPECT_EQ(0, outcome.signal) << where << outcome.err;
    const std::string answer = answers();
    EXPECT_TRUE(answer == right || (!has_table && answer.empty()))
        << answer << where << outcome.err;
    const bool is_whole = whole[kCopy] == read_file(kCopy);
    EXPECT_TRUE(is_whole || !has_table) << where << outcome.err;
    if (answer.empty()) {
      EXPECT_NE("", outcome.err) << where;
    }
    storm.count(file.substr(kCopy.rfind('/') + 1) +
                (has_table ? ", with the table: " : ", alone: ") +
                (answer.empty() ? "refused with a message" : "healed"));
    ctl({"map", "remove", "--yes"});
    for (const auto& [path, bytes] : whole) write_file(path, bytes);
    ASSERT_EQ(0, once().exit_code) << where;
    for (const std::string& path : files) whole[path] = read_file(path);
  }
}

class FlipStorm : public EventStorm {
 protected:
  // The events of all dump files; `is_damaged` when a reader says that something is wrong.
  static std::multiset<std::string> events_there(bool& is_damaged) {
    std::multiset<std::string> there;
    for (const std::string& name : list(kStaging)) {
      if (!name.starts_with("pending_")) continue;
      const std::string bytes = read_file(std::string(kStaging) + "/" + name);
      events::DumpReader reader(bytes);
      while (const auto payload = reader.next()) {
        const auto event = events::unpack_event(*payload);
        there.insert(event ? event->path : "no event");
        is_damaged |= !event;
      }
      is_damaged |= !reader.damage().empty();
    }
    return there;
  }

  // After a flip: the sweeper's end, and what the agent gets.
  static void look(Storm& storm, const std::string& what, const Paths& sent) {
    const Outcome outcome =
        run_program({"timeout", "20", TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--once"});
    const std::string where = storm.where() + ", " + what + ": " + outcome.err;
    const std::string end = end_of(outcome);
    EXPECT_FALSE(end.starts_with("signal")) << end << " " << where;
    EXPECT_NE(124, outcome.exit_code) << "hangs: " << where;
    // The pipeline works again, whatever was lost.
    EXPECT_EQ(0, once().exit_code) << where;
    EXPECT_EQ(0, append("fresh")) << where;
    EXPECT_EQ(0, once().exit_code) << where;
    bool is_damaged = false;
    const auto there = events_there(is_damaged);
    EXPECT_TRUE(there.count("fresh") == 1 || is_damaged) << where;
    std::size_t missing = 0;
    for (const std::string& path : sent) missing += there.count(path) == 0 ? 1 : 0;
    const bool is_aside = !others().empty();
    // A flip inside an event's own bytes leaves as many events.
    const bool is_changed = missing > 0 && there.size() == sent.size() + 1;
    EXPECT_TRUE(missing == 0 || is_changed || is_damaged || is_told() || is_aside)
        << missing << " events are lost: " << where;
    storm.count(what + (missing == 0                ? ": every event there"
                        : is_told()                 ? ": the agent looks at the tree"
                        : is_aside                  ? ": set aside, with a line in the journal"
                        : is_changed && !is_damaged ? ": an event says something else"
                                                    : ": the reader of the dump tells"));
  }

  static Paths send_some(Storm& storm) {
    Paths sent;
    for (unsigned i = 0, count = 1 + storm.below(12); i < count; ++i) {
      sent.push_back("event-" + std::to_string(i));
      send(sent.back());
    }
    return sent;
  }
  static void begin() {
    empty_staging_dir();
    forget_what_was_told();
    shmctl(segment(), IPC_RMID, nullptr);
    remove_all(kRunning);
    ASSERT_EQ(0, once().exit_code);
    forget_what_was_told();
  }
};

TEST_F(FlipStorm, OfTheBufferLosesNothingUntold) {
  Storm storm("flip.buffer", 5);
  send("first");
  const StormFootprint footprint;
  while (storm.goes_on()) {
    StormSession session(storm);  // keeps a buffer that is replaced more than once
    ASSERT_NO_FATAL_FAILURE(begin());
    const Paths sent = send_some(storm);
    staging_buffer_s* buffer = get_eventstore_staging_buffer();
    const bool is_head = storm.below(2) == 0;
    const std::size_t bytes = is_head ? 8 : buffer->next_offset - 16;
    flip_bit(reinterpret_cast<char*>(buffer) + (is_head ? 0 : 16), storm.below(bytes * 8));
    put_eventstore_staging_buffer(buffer);
    look(storm, is_head ? "buffer's head" : "buffer's records", sent);
    session.rest_at_times();
  }
  footprint.expect_same(storm.where());
}

TEST_F(FlipStorm, OfTheFileOfAKilledFlushLosesNothingUntold) {
  Storm storm("flip.file", 5);
  send("first");
  const StormFootprint footprint;
  while (storm.goes_on()) {
    StormSession session(storm);
    ASSERT_NO_FATAL_FAILURE(begin());
    const Paths sent = send_some(storm);
    flush_staging_buffer(FB_CTX_SWPR);
    const std::string left = std::string(kStaging) + "/txtempAbCdEf";
    ASSERT_EQ(0,
              rename((std::string(kStaging) + "/" + list(kStaging).at(0)).c_str(), left.c_str()));
    flip_in_file(storm, left);
    look(storm, "file of a killed flush", sent);
    session.rest_at_times();
  }
  footprint.expect_same(storm.where());
}

// Settings with a flipped bit are taken, as an operator could have written them, or refused; the
// services go on.
TEST_F(FlipStorm, OfTheSettingsIsRefusedOrTaken) {
  Storm storm("flip.settings", 5);
  send("first");
  const StormFootprint footprint;
  ASSERT_EQ(0, once().exit_code);
  empty_staging_dir();
  StormSession session(storm);
  while (storm.goes_on()) {
    write_settings(65536, 1);
    flip_in_file(storm, kConf);
    const Outcome outcome = run_program(
        {"timeout", "20", TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--once", "--settings", kConf});
    const std::string where = storm.where() + "\n" + read_file(kConf) + outcome.err;
    EXPECT_EQ(0, outcome.signal) << where;
    EXPECT_NE(124, outcome.exit_code) << "hangs: " << where;
    if (outcome.exit_code != 0) {
      EXPECT_NE("", outcome.err) << where;
    }
    storm.count(outcome.exit_code != 0                                ? "refused with a message"
                : contains(outcome.err, "the previous settings hold") ? "the previous settings hold"
                                                                      : "taken");
    write_settings(65536, 1);
    EXPECT_EQ(0, ctl({"config", "load", kConf}).exit_code) << where;
    EXPECT_EQ(0, once().exit_code) << where;
    use_settings();
    send("e");
    EXPECT_EQ(0, once().exit_code) << where;
    EXPECT_EQ(Paths{"e"}, dumped()) << where;
    empty_staging_dir();
    session.rest_at_times();
  }
  footprint.expect_same(storm.where());
}

}  // namespace
}  // namespace tavrix::test
