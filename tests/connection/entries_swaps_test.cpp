// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions in many processes while maps are swapped all the time, against an independent model:
// each verdict is the one of a map that was current during the call.

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tavrix_session.h"
#include "tests/support/rule_table.hpp"
#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

constexpr uint32_t kNames = 300;
constexpr uint32_t kSwaps = 300;
constexpr int kDeciders = 16;

// --- the model ----------------------------------------------------------------------------------

// A mask that depends on map and folder alone; with `inherits` one that passes down whole.
uint16_t mask_of(uint32_t map, uint32_t folder, bool inherits = false) {
  static constexpr uint16_t kMasks[] = {1, 3, 7, 0, 8, 16};
  uint32_t mixed = (map * 2654435761U) ^ (folder * 40503U + 977U);
  mixed ^= mixed >> 15;
  mixed *= 2246822519U;
  mixed ^= mixed >> 13;
  return kMasks[mixed % (inherits ? 3 : std::size(kMasks))];
}
uint16_t mask_of_team(uint32_t map) { return mask_of(map, kNames, true); }

std::string name_at(uint32_t entry) { return "e" + std::to_string(entry); }

// The disk holds folders, files and missing names by thirds. The map has a folder for two of three
// names; the others inherit.
e_file_type type_of(uint32_t entry) {
  return entry % 3 == 0 ? FSTYPE_FOLDER : entry % 3 == 1 ? FSTYPE_FILE : FSTYPE_DOES_NOT_EXIST;
}
bool is_in_map(uint32_t map, uint32_t entry) { return (entry / 3 + map) % 3 != 0; }

Folder map_of(uint32_t map) {
  Folder team{.name = "Team", .users = {{kPat.uid, mask_of_team(map)}}};
  for (uint32_t i = 0; i < kNames; ++i) {
    if (!is_in_map(map, i)) continue;
    team.children.push_back({.name = name_at(i), .users = {{kPat.uid, mask_of(map, i)}}});
  }
  // Folders that come first change the offsets of all others from map to map.
  Folder shared{.name = "Shared"};
  for (uint32_t i = 0; i < map % 7; ++i) {
    shared.children.push_back({.name = "x" + std::to_string(i), .users = {{kOlga.uid, 7}}});
  }
  shared.children.push_back(team);
  return {.name = "/", .children = {shared}};
}

struct Asked {
  uint32_t entry = 0;
  int told_type = 0;
  bool is_granted = false;
};
bool grants(uint32_t map, e_fsop_type op, const Asked& asked) {
  const e_file_type type =
      asked.told_type != 0 ? static_cast<e_file_type>(asked.told_type) : type_of(asked.entry);
  if (op == FSOP_OPEN_READ && type == FSTYPE_FOLDER) return true;
  const uint32_t parent = mask_of_team(map);
  const uint32_t self = type == FSTYPE_DOES_NOT_EXIST ? 7
                        : is_in_map(map, asked.entry) ? mask_of(map, asked.entry)
                                                      : parent;
  return rule_says(op, type, self, parent).granted;
}
bool all_from(uint32_t map, e_fsop_type op, const std::vector<Asked>& batch) {
  return std::all_of(batch.begin(), batch.end(), [&](const Asked& asked) {
    return grants(map, op, asked) == asked.is_granted;
  });
}

// --- the processes ------------------------------------------------------------------------------

// The maps that may answer: one may from some moment after `begun` names it, and no other may once
// `done` does.
struct Progress {
  std::atomic<uint32_t> begun{0};
  std::atomic<uint32_t> done{0};
  std::atomic<int> saw_last{0};
  std::atomic<bool> may_end{false};
};

enum class Asks { kAlone, kInBatch };
struct Manner {
  const char* name;
  Asks asks;
  int sessions_of_ten;  // of ten deciders, those with a session
};
std::ostream& operator<<(std::ostream& out, const Manner& manner) { return out << manner.name; }
const Manner kManners[] = {{"Alone", Asks::kAlone, 0},
                           {"AloneInSessions", Asks::kAlone, 10},
                           {"Batches", Asks::kInBatch, 0},
                           {"BatchesInSessions", Asks::kInBatch, 10},
                           {"BatchesMixed", Asks::kInBatch, 5}};

class Decider {
 public:
  Decider(Progress& progress, const Manner& manner, unsigned seed)
      : progress_(progress), asks_(manner.asks), random_(seed) {
    has_session_ = static_cast<int>(seed % 10) < manner.sessions_of_ten;
  }

  void run() {
    ask_once();  // the first call keeps some blocks for good
    const long blocks = live_allocations();
    const auto fds = list("/proc/self/fd").size();
    if (has_session_) {
      ASSERT_EQ(0, tavrix_session_begin());
    }
    while (progress_.done < kSwaps && !testing::Test::HasFailure()) {
      ask_once();
      if (random_() % 40 == 0) tavrix_session_idle();
      if (random_() % 400 == 0) ask_in_child();
    }
    ask_once();  // the last map alone may answer
    tavrix_session_idle();
    ++progress_.saw_last;
    while (!progress_.may_end) usleep(1000);
    if (has_session_) tavrix_session_end();
    EXPECT_EQ(blocks, live_allocations());
    EXPECT_EQ(fds, list("/proc/self/fd").size());
  }

 private:
  void ask_once() {
    const auto op = ops_[random_() % ops_.size()];
    std::vector<Asked> batch(asks_ == Asks::kAlone ? 1 : 1 + random_() % kNames);
    for (Asked& asked : batch) {
      asked.entry = static_cast<uint32_t>(random_() % kNames);
      asked.told_type = random_() % 2 == 0 ? 0 : type_of(asked.entry);
    }
    const uint32_t first = progress_.done;
    asks_ == Asks::kAlone ? answer_alone(op, batch[0]) : answer_batch(op, batch);
    const uint32_t last = progress_.begun;
    bool is_of_one_map = false;
    for (uint32_t map = first; map <= last && !is_of_one_map; ++map) {
      is_of_one_map = all_from(map, op, batch);
    }
    if (!is_of_one_map) tell(op, batch, first, last);
  }
  // A child of a session goes on with it, or closes it; the parent's goes on.
  void ask_in_child() {
    const bool closes = random_() % 2 == 0;
    const Outcome outcome = in_child([&] {
      if (closes) tavrix_session_end();
      for (int i = 0; i < 3; ++i) ask_once();
      tavrix_session_end();
    });
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
  void answer_alone(e_fsop_type op, Asked& asked) {
    const std::string path = "/tavrix/Shared/Team/" + name_at(asked.entry);
    int is_nav = 0;
    asked.is_granted = granted(vfs_enforce_perms("/tavrix", path.c_str(), op,
                                                 &connection_->groupmap, asked.told_type, &is_nav));
  }
  void answer_batch(e_fsop_type op, std::vector<Asked>& batch) {
    struct Line {
      std::string name;
      tavrix_entry_s entry{};
    };
    std::vector<Line> lines(batch.size());
    for (std::size_t i = 0; i < batch.size(); ++i) {
      lines[i].name = name_at(batch[i].entry);
      lines[i].entry = {lines[i].name.c_str(), batch[i].told_type, TXPERMS_NOT_SET};
    }
    ASSERT_EQ(0, tavrix_decide_entries("/tavrix", "Shared/Team", op, connection_.get(),
                                       &lines[0].entry, sizeof(Line), lines.size()));
    for (std::size_t i = 0; i < batch.size(); ++i) {
      batch[i].is_granted = granted(lines[i].entry.verdict);
    }
  }
  static bool granted(e_vfs_enforce_perms verdict) {
    EXPECT_TRUE(verdict == TXPERMS_HAS_PERMS || verdict == TXPERMS_NO_PERM) << verdict;
    return verdict == TXPERMS_HAS_PERMS;
  }
  static void tell(e_fsop_type op, const std::vector<Asked>& batch, uint32_t first, uint32_t last) {
    std::string text;
    for (const Asked& asked : batch) {
      text += " " + name_at(asked.entry) + ":" + std::to_string(asked.told_type) +
              (asked.is_granted ? "+" : "-");
    }
    ADD_FAILURE() << name_of(op) << ": no map of " << first << " to " << last << " says" << text;
  }

  Progress& progress_;
  Asks asks_;
  std::mt19937 random_;
  bool has_session_;
  std::vector<e_fsop_type> ops_ = operations_with_a_rule();
  Session connection_{kPat};
};

class Swaps : public Share, public testing::WithParamInterface<Manner> {
 protected:
  void SetUp() override {
    Share::SetUp();
    for (uint32_t entry = 0; entry < kNames; ++entry) {
      const std::string path = "Shared/Team/" + name_at(entry);
      if (type_of(entry) == FSTYPE_FOLDER) make_folder(path);
      if (type_of(entry) == FSTYPE_FILE) make_file(path);
    }
    publish_map(map_of(0));
    void* shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    progress_ = new (shared) Progress;
  }
  void TearDown() override { munmap(progress_, sizeof(Progress)); }

  // The most tables that were there at any time.
  int swap_all_the_time() {
    int most = 0;
    for (uint32_t map = 1; map <= kSwaps; ++map) {
      progress_->begun = map;
      publish_map(map_of(map));
      progress_->done = map;
      most = std::max(most, segments_in_use());
      usleep(2000);
    }
    return most;
  }

  Progress* progress_ = nullptr;
};

TEST_P(Swaps, EachVerdictIsOfAMapThatWasCurrentDuringTheCall) {
  std::vector<std::unique_ptr<Child>> deciders;
  for (unsigned seed = 0; seed < kDeciders; ++seed) {
    deciders.push_back(std::make_unique<Child>([this, seed] {
      become_samba_user(kPat.uid, kPat.gid, kPat.groups);
      Decider(*progress_, GetParam(), seed).run();
    }));
  }
  EXPECT_LE(swap_all_the_time(), kDeciders + 2);
  // Idle processes keep no table, though their sessions are open.
  for (int tries = 0; progress_->saw_last < kDeciders && tries < 3000; ++tries) usleep(10'000);
  EXPECT_EQ(kDeciders, progress_->saw_last);
  EXPECT_EQ(1, segments_in_use());
  EXPECT_EQ(0, attachments());
  progress_->may_end = true;
  for (auto& decider : deciders) {
    const Outcome outcome = decider->wait();
    EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.out.substr(0, 3000) << outcome.err;
  }
  EXPECT_EQ(0, attachments());
}

INSTANTIATE_TEST_SUITE_P(Manners, Swaps, testing::ValuesIn(kManners),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace tavrix::test
