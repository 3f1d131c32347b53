// SPDX-License-Identifier: LGPL-3.0-or-later
// The verdict cache of a connection.

#include <gtest/gtest.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>

#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class VerdictCache : public testing::Test {
 protected:
  VerdictCache() { init_tlb(&cache()); }
  ~VerdictCache() override { destroy_tlb(&cache()); }
  vfs_table_cache_s& cache() { return *cache_; }

  e_vfs_enforce_perms ask(const std::string& path, e_fsop_type op = FSOP_STAT) {
    index_ = 77;
    return check_tlb(path.c_str(), op, &index_, &cache());
  }
  void add(const std::string& path, e_vfs_enforce_perms verdict, e_fsop_type op = FSOP_STAT,
           int slot = -1) {
    add_tlb_entry(path.c_str(), slot, op, verdict, &cache());
  }
  int position_of(const std::string& path) { return _tlb_lookup_path(path.c_str(), &cache()); }

  std::unique_ptr<vfs_table_cache_s> cache_ = std::make_unique<vfs_table_cache_s>();
  int index_ = 0;
};

TEST_F(VerdictCache, BeginsEmpty) {
  cache().flush_tlb = 21;
  init_tlb(&cache());
  EXPECT_EQ(0, cache().vfs_tlb_end);
  EXPECT_EQ(21, cache().flush_tlb);
  for (int i = 0; i < 1024; ++i) EXPECT_EQ(i, cache().tlb_index_table[i]);
  cache().flush_tlb = 0;
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("a"));
  EXPECT_EQ(-1, index_);
}

TEST_F(VerdictCache, AnswersWhatItWasTold) {
  add("a", TXPERMS_HAS_PERMS);
  add("b", TXPERMS_NO_PERM);
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("a"));
  EXPECT_EQ(0, index_);
  EXPECT_EQ(TXPERMS_NO_PERM, ask("b"));
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("A"));
}

TEST_F(VerdictCache, KeepsEachOperationApart) {
  for (int op = 1; op < 30; ++op) {
    add("a", op % 3 == 0 ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM, static_cast<e_fsop_type>(op),
        op == 1 ? -1 : 0);
  }
  for (int op = 1; op < 30; ++op) {
    EXPECT_EQ(op % 3 == 0 ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM,
              ask("a", static_cast<e_fsop_type>(op)));
  }
  EXPECT_EQ(1, cache().vfs_tlb_end);
}

TEST_F(VerdictCache, PutsBitsWhereTheModuleReadsThem) {
  add("a", TXPERMS_HAS_PERMS, FSOP_STAT);
  add("a", TXPERMS_NO_PERM, static_cast<e_fsop_type>(33), 0);
  EXPECT_EQ(1U << 16, cache().tlb_perms[0].set[0]);
  EXPECT_EQ(1U << 16, cache().tlb_perms[0].value[0]);
  EXPECT_EQ(1U << 1, cache().tlb_perms[0].set[1]);
  EXPECT_EQ(0U, cache().tlb_perms[0].value[1]);
}

TEST_F(VerdictCache, GivesThePositionOfAnUnknownOperationWithoutMovingIt) {
  add("a", TXPERMS_HAS_PERMS);
  add("b", TXPERMS_HAS_PERMS);
  add("c", TXPERMS_HAS_PERMS);
  EXPECT_EQ(TXPERMS_NOT_SET, ask("a", FSOP_UNLINK));
  EXPECT_EQ(2, index_);
  EXPECT_EQ(2, position_of("a"));
}

TEST_F(VerdictCache, MovesAHitToTheFront) {
  add("a", TXPERMS_HAS_PERMS);
  add("b", TXPERMS_HAS_PERMS);
  add("c", TXPERMS_HAS_PERMS);
  ask("a");
  EXPECT_EQ(0, position_of("a"));
  EXPECT_EQ(1, position_of("c"));
  EXPECT_EQ(2, position_of("b"));
}

TEST_F(VerdictCache, ReplacesTheLeastRecentlyUsed) {
  for (int i = 0; i < 1024; ++i) add("p" + std::to_string(i), TXPERMS_HAS_PERMS);
  ask("p0");
  add("new", TXPERMS_NO_PERM);
  EXPECT_EQ(1024, cache().vfs_tlb_end);
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("p1"));
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("p0"));
  EXPECT_EQ(TXPERMS_NO_PERM, ask("new"));
}

TEST_F(VerdictCache, ForgetsTheVerdictsOfAReplacedPath) {
  for (int i = 0; i < 1024; ++i) add("p" + std::to_string(i), TXPERMS_HAS_PERMS, FSOP_UNLINK);
  add("new", TXPERMS_HAS_PERMS, FSOP_STAT);
  EXPECT_EQ(TXPERMS_NOT_SET, ask("new", FSOP_UNLINK));
}

TEST_F(VerdictCache, IsFlushedByItsNextLookup) {
  add("a", TXPERMS_HAS_PERMS);
  cache().flush_tlb = 21;
  EXPECT_EQ(1, cache().vfs_tlb_end);
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("a"));
  EXPECT_EQ(9, cache().flush_tlb);
  EXPECT_EQ(0, cache().vfs_tlb_end);
  EXPECT_EQ(10, level_of("Flushing and rebuilding tlb \n", [this] {
              cache().flush_tlb = 21;
              ask("a");
            }));
}

TEST_F(VerdictCache, IsFlushedByNoOtherValue) {
  for (const int value : {0, 9, 20, 22, -21}) {
    add("a", TXPERMS_HAS_PERMS);
    cache().flush_tlb = value;
    EXPECT_EQ(TXPERMS_HAS_PERMS, ask("a")) << value;
    destroy_tlb(&cache());
  }
}

// The argument is a slot, although callers hand it a position; the two agree until the order
// changes.
TEST_F(VerdictCache, UpdatesTheSlotOfThatNumber) {
  add("a", TXPERMS_HAS_PERMS);  // slot 0
  add("b", TXPERMS_HAS_PERMS);  // slot 1, position 0
  update_tlb_entry(0, FSOP_UNLINK, TXPERMS_HAS_PERMS, &cache());
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("a", FSOP_UNLINK));
  EXPECT_EQ(TXPERMS_NOT_SET, ask("b", FSOP_UNLINK));
}

TEST_F(VerdictCache, UpdatesAGrantToARefusal) {
  add("a", TXPERMS_HAS_PERMS);
  update_tlb_entry(0, FSOP_STAT, TXPERMS_NO_PERM, &cache());
  EXPECT_EQ(TXPERMS_NO_PERM, ask("a"));
  update_tlb_entry(0, FSOP_STAT, TXPERMS_HAS_PERMS, &cache());
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("a"));
}

TEST_F(VerdictCache, ForgetsTheLastPathWhole) {
  add("a", TXPERMS_HAS_PERMS);
  add("b", TXPERMS_HAS_PERMS);
  del_tlb_entry("a", &cache());
  EXPECT_EQ(1, cache().vfs_tlb_end);
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("a"));
  add("c", TXPERMS_NO_PERM);
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("b"));
  EXPECT_EQ(TXPERMS_NO_PERM, ask("c"));
}

// A freed slot is given back only when it was the last one; callers know that, and flush instead.
TEST_F(VerdictCache, AbortsWhenAnInnerPathWasForgotten) {
  add("a", TXPERMS_HAS_PERMS);
  add("b", TXPERMS_HAS_PERMS);
  add("c", TXPERMS_HAS_PERMS);
  del_tlb_entry("b", &cache());
  EXPECT_EQ(2, cache().vfs_tlb_end);
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("b"));
  EXPECT_TRUE(in_child([this] {
                add("d", TXPERMS_HAS_PERMS);
              }).aborted_with("tlb_cache->tlb_paths[index] == NULL"));
}

TEST_F(VerdictCache, TellsAPathThatItCannotForget) {
  EXPECT_LE(
      level_of("del_tlb_entry: did not find path x\n", [this] { del_tlb_entry("x", &cache()); }),
      10);
}

TEST_F(VerdictCache, WithoutMemoryLosesAVerdictOnly) {
  const auto attempt = [this] {
    fail_call("malloc", ENOMEM, 1, 1);
    fail_call("strdup", ENOMEM, 1, 1);
    fail_call("calloc", ENOMEM, 1, 1);
    add("lost" + std::to_string(cache().vfs_tlb_end), TXPERMS_HAS_PERMS);
  };
  EXPECT_EQ(0, level_of("Cannot create path for TLB cache, out of memory\n", attempt));
  destroy_tlb(&cache());
  attempt();
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("lost0"));
  destroy_tlb(&cache());
}

TEST_F(VerdictCache, AbortsOnMisuse) {
  add("a", TXPERMS_HAS_PERMS);
  const auto op = static_cast<e_fsop_type>(0);
  EXPECT_TRUE(in_child([&] { ask("a", op); }).aborted_with("op != 0"));
  EXPECT_TRUE(in_child([&] { add("b", TXPERMS_HAS_PERMS, op); }).aborted_with("op != 0"));
  EXPECT_TRUE(in_child([&] {
                update_tlb_entry(0, op, TXPERMS_HAS_PERMS, &cache());
              }).aborted_with("op != 0"));
  for (const int slot : {-1, 1, 1024}) {
    EXPECT_TRUE(in_child([&] {
                  update_tlb_entry(slot, FSOP_STAT, TXPERMS_HAS_PERMS, &cache());
                }).aborted_with("slot >= 0 && slot < tlb_cache->vfs_tlb_end"));
  }
}

TEST_F(VerdictCache, ComparesFourThousandBytes) {
  const std::string start(4096, 'x');
  add(start + "a", TXPERMS_HAS_PERMS);
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask(start + "b"));
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask(start.substr(1)));
}

// The path in between matters: the previous lookup's path is compared by its fingerprint first.
TEST_F(VerdictCache, ComparesFourThousandBytesOfEachPath) {
  const std::string start(4096, 'x');
  add(start + "a", TXPERMS_HAS_PERMS);
  add("between", TXPERMS_HAS_PERMS);
  EXPECT_EQ(1, position_of(start + "b"));
  EXPECT_EQ(1, position_of(start));
  EXPECT_EQ(-1, position_of(start.substr(1)));
  EXPECT_EQ(-1, position_of(start.substr(1) + "y"));
}

TEST_F(VerdictCache, TellsPathsApartByEachOfTheirBytes) {
  for (const std::size_t length : {1U, 7U, 8U, 9U, 63U, 1000U, 4095U, 4096U}) {
    const std::string path(length, 'x');
    add(path, TXPERMS_HAS_PERMS);
    add("between", TXPERMS_HAS_PERMS);
    for (std::size_t at = 0; at < length; at += 1 + length / 50) {
      std::string other = path;
      other[at] = 'y';
      EXPECT_EQ(-1, position_of(other)) << length << " " << at;
    }
    EXPECT_EQ(1, position_of(path)) << length;
    destroy_tlb(&cache());
  }
}

TEST_F(VerdictCache, IsOneOfSeveral) {
  auto other = std::make_unique<vfs_table_cache_s>();
  init_tlb(other.get());
  for (int i = 0; i < 50; ++i) {
    add("here" + std::to_string(i), TXPERMS_HAS_PERMS);
    add_tlb_entry(("there" + std::to_string(i)).c_str(), -1, FSOP_STAT, TXPERMS_NO_PERM,
                  other.get());
  }
  for (int i = 0; i < 50; ++i) {
    const std::string here = "here" + std::to_string(i), there = "there" + std::to_string(i);
    EXPECT_EQ(TXPERMS_HAS_PERMS, ask(here));
    EXPECT_EQ(TXPERMS_NOT_FOUND, ask(there));
    EXPECT_NE(-1, _tlb_lookup_path(there.c_str(), other.get()));
    EXPECT_EQ(-1, _tlb_lookup_path(here.c_str(), other.get()));
  }
  destroy_tlb(other.get());
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("here7"));
}

// A module may fill a slot by itself: nothing that was known of the earlier string there holds.
TEST_F(VerdictCache, FindsAPathThatAModulePutThere) {
  add("a", TXPERMS_HAS_PERMS);
  EXPECT_EQ(0, position_of("a"));
  char* before = cache().tlb_paths[0];
  cache().tlb_paths[0] = strdup("b");
  EXPECT_EQ(TXPERMS_HAS_PERMS, ask("b"));
  EXPECT_EQ(TXPERMS_NOT_FOUND, ask("a"));
  std::free(before);
}

// An address may come back after a flush with another string behind it.
TEST_F(VerdictCache, KnowsNothingOfTheStringsBeforeAFlush) {
  for (int round = 0; round < 20; ++round) {
    const std::string path = "round" + std::to_string(round);
    EXPECT_EQ(TXPERMS_NOT_FOUND, ask(path));
    add(path, TXPERMS_HAS_PERMS);
    EXPECT_EQ(TXPERMS_HAS_PERMS, ask(path));
    EXPECT_EQ(TXPERMS_NOT_FOUND, ask("round" + std::to_string(round + 1)));
    if (round % 2 == 0) {
      cache().flush_tlb = 21;
    } else {
      del_tlb_entry(path.c_str(), &cache());
    }
  }
}

TEST_F(VerdictCache, LeavesNothingOnTheHeap) {
  const long blocks = live_allocations();
  for (int i = 0; i < 3000; ++i) add("p" + std::to_string(i), TXPERMS_HAS_PERMS);
  destroy_tlb(&cache());
  EXPECT_EQ(blocks, live_allocations());
}

// --- a model -------------------------------------------------------------------------------------

// The cache as a list, most recently used first; slots are numbered as they were first used.
class Model {
 public:
  struct Entry {
    std::string path;
    int slot;
    std::map<int, bool> verdicts;
  };

  std::pair<e_vfs_enforce_perms, int> ask(const std::string& path, int op) {
    const int at = position_of(path);
    if (at < 0) return {TXPERMS_NOT_FOUND, -1};
    const auto known = entries_[static_cast<std::size_t>(at)].verdicts.find(op);
    if (known == entries_[static_cast<std::size_t>(at)].verdicts.end())
      return {TXPERMS_NOT_SET, at};
    const auto verdict = known->second ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM;
    to_front(at);
    return {verdict, 0};
  }
  void add(const std::string& path, int position, int op, bool granted) {
    if (position < 0) {
      int slot = static_cast<int>(entries_.size());
      if (slot == 1024) {
        slot = entries_.back().slot;
        entries_.pop_back();
      }
      entries_.push_back({path, slot, {}});
      position = static_cast<int>(entries_.size()) - 1;
    }
    auto& verdict = entries_[static_cast<std::size_t>(position)].verdicts[op];
    verdict = verdict || granted;  // a grant's bit is never taken back here
    to_front(position);
  }
  void update(int slot, int op, bool granted) {
    for (Entry& entry : entries_) {
      if (entry.slot == slot) entry.verdicts[op] = granted;
    }
  }
  void forget_last() { entries_.pop_back(); }
  void clear() { entries_.clear(); }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }

 private:
  int position_of(const std::string& path) {
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& entry) { return entry.path == path; });
    return found == entries_.end() ? -1 : static_cast<int>(found - entries_.begin());
  }
  void to_front(int position) {
    std::rotate(entries_.begin(), entries_.begin() + position, entries_.begin() + position + 1);
  }
  std::vector<Entry> entries_;
};

TEST_F(VerdictCache, IsItsModel) {
  std::mt19937 random(17);
  Model model;
  for (int round = 0; round < 100000; ++round) {
    // So few paths that many lookups hit, and enough of them to overflow.
    const std::string path = "p" + std::to_string(random() % (round % 2000 < 1000 ? 50 : 1500));
    const int op = 1 + static_cast<int>(random() % 29);
    const bool granted = random() % 2 == 0;
    const auto verdict = granted ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM;
    const auto [expected, position] = model.ask(path, op);
    ASSERT_EQ(expected, ask(path, static_cast<e_fsop_type>(op))) << round;
    ASSERT_EQ(position, index_) << round;
    if (expected == TXPERMS_NOT_FOUND) {
      add(path, verdict, static_cast<e_fsop_type>(op));
      model.add(path, -1, op, granted);
    } else if (expected == TXPERMS_NOT_SET && random() % 2 == 0) {
      add(path, verdict, static_cast<e_fsop_type>(op), position);
      model.add(path, position, op, granted);
    } else if (expected == TXPERMS_NOT_SET) {
      update_tlb_entry(position, static_cast<e_fsop_type>(op), verdict, &cache());
      model.update(position, op, granted);
    }
    if (random() % 20 == 0 && !model.entries().empty() && cache().vfs_tlb_end < 1024) {
      del_tlb_entry(model.entries().back().path.c_str(), &cache());
      model.forget_last();
      if (cache().vfs_tlb_end == 0) {
        destroy_tlb(&cache());
        model.clear();
      } else {
        // Slots are handed out in order only until the first path is forgotten.
        cache().flush_tlb = 21;
        ask("x");
        model.clear();
      }
    }
    ASSERT_EQ(static_cast<int>(model.entries().size()), cache().vfs_tlb_end);
  }
}

}  // namespace
}  // namespace tavrix::test
