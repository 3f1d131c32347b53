// SPDX-License-Identifier: LGPL-3.0-or-later
// Hints of earlier lookups: they save the scan, and never answer for another map, parent or name.
// Lookups consult them on the attached table only, so the tests of lookups attach one.

#include "permissions/map/child_hints.hpp"

#include <gtest/gtest.h>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "perm_map.h"
#include "permissions/map/image.hpp"
#include "tests/support/attached_map.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

constexpr SegmentIdentity kTable{.segment = 3, .maker = 4, .made = 5};

TEST(ChildHints, RememberWhatTheyAreTold) {
  auto hints = std::make_unique<ChildHints>();
  hints->use(kTable);
  EXPECT_EQ(ChildHints::kNone, hints->find(24, 5));
  hints->remember(24, 5, 48);
  EXPECT_EQ(48U, hints->find(24, 5));
  EXPECT_EQ(ChildHints::kNone, hints->find(24, 6));
  EXPECT_EQ(ChildHints::kNone, hints->find(48, 5));
  hints->remember(24, 5, 72);
  EXPECT_EQ(72U, hints->find(24, 5));
}

// A slot is shared by many folders and names: each hint knows whose it is.
TEST(ChildHints, TellTheUsersOfASlotApart) {
  auto hints = std::make_unique<ChildHints>();
  hints->use(kTable);
  hints->remember(24, 5, 48);
  for (uint32_t other = 1; other < 200'000; ++other) {
    if (other != 24) {
      ASSERT_EQ(ChildHints::kNone, hints->find(other, 5)) << other;
    }
    if (other != 5) {
      ASSERT_EQ(ChildHints::kNone, hints->find(24, other)) << other;
    }
  }
}

// The folders above some thousand files of a large map. A hint that is lost costs a scan.
TEST(ChildHints, HoldThousandsAtOnce) {
  auto hints = std::make_unique<ChildHints>();
  hints->use(kTable);
  constexpr uint32_t kMany = 16'000;
  const auto parent_of = [](uint32_t i) { return i / 16 * 24; };
  const auto hash_of = [](uint32_t i) { return i * 2654435761U; };
  for (uint32_t i = 0; i < kMany; ++i) hints->remember(parent_of(i), hash_of(i), (i + 1) * 24);
  uint32_t kept = 0;
  for (uint32_t i = 0; i < kMany; ++i) {
    const uint32_t child = hints->find(parent_of(i), hash_of(i));
    ASSERT_TRUE(child == (i + 1) * 24 || child == ChildHints::kNone) << i;
    kept += child != ChildHints::kNone ? 1 : 0;
  }
  EXPECT_GT(kept, kMany * 97 / 100);
}

// Two names of one hash take turns in one place, and push no other hint out.
TEST(ChildHints, KeepOneHintOfAHash) {
  auto hints = std::make_unique<ChildHints>();
  hints->use(kTable);
  hints->remember(48, 7, 480);
  for (uint32_t round = 1; round < 100; ++round) {
    hints->remember(24, 5, round * 24);
    EXPECT_EQ(round * 24, hints->find(24, 5));
  }
  EXPECT_EQ(480U, hints->find(48, 7));
}

TEST(ChildHints, ForgetEverythingAboutAnotherTable) {
  auto hints = std::make_unique<ChildHints>();
  for (const SegmentIdentity& other :
       {SegmentIdentity{9, 4, 5}, SegmentIdentity{3, 9, 5}, SegmentIdentity{3, 4, 9}}) {
    hints->use(kTable);
    hints->remember(24, 5, 48);
    hints->use(kTable);
    EXPECT_EQ(48U, hints->find(24, 5));
    hints->use(other);
    EXPECT_EQ(ChildHints::kNone, hints->find(24, 5));
  }
}

class ChildHintsOfATable : public Isolated {
 protected:
  // Changes the current table, which no loader does: the hints of it point at other records now.
  template <typename Change>
  static void poison(Change change) {
    void* map = get_perm_map_addr();
    change(map);
    put_perm_map_addr(map);
  }
  static Folder tree(const std::string& first, const std::string& second) {
    return {.name = "/",
            .children = {{.name = first, .users = {{1, 1}}}, {.name = second, .users = {{2, 2}}}}};
  }
};

// Two names of one hash: where one was found before, the other is not compared again. Each thread
// learns that for itself.
TEST_F(ChildHintsOfATable, SaveTheScanOfTheirThread) {
  give_samba_library_its_name();
  publish(build_image(tree("n\xc3\xa8", "n\xc3\xb6")));  // extended bytes are not in the hash
  set_debug_level(10);
  const auto comparisons = [] {
    clear_log();
    EXPECT_EQ(2U, governor("n\xc3\xb6"));
    int made = 0;
    for (const std::string& text : messages()) made += text.starts_with("tavrix_strncasecmp ");
    return made;
  };
  EXPECT_EQ(2, comparisons());
  EXPECT_EQ(1, comparisons());
  std::thread([&comparisons] {
    EXPECT_EQ(2, comparisons());
    EXPECT_EQ(1, comparisons());
  }).join();
}

TEST_F(ChildHintsOfATable, TellNamesOfOneHashApart) {
  give_samba_library_its_name();
  publish(build_image(tree("n\xc3\xa8", "n\xc3\xb6")));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(1U, governor("n\xc3\xa8"));
    EXPECT_EQ(2U, governor("n\xc3\xb6"));
  }
}

TEST_F(ChildHintsOfATable, DoNotAnswerForAnotherName) {
  publish(build_image(tree("aa", "bb")));
  EXPECT_EQ(1U, governor("aa"));
  EXPECT_EQ(2U, governor("BB"));
  poison([](void* map) {
    const auto exchanged = build_image(tree("bb", "aa"));
    ASSERT_EQ(0, std::memcmp(map, exchanged.data(), sizeof(tavrix_be_header)));
    std::memcpy(map, exchanged.data(), exchanged.size());
  });
  EXPECT_EQ(2U, governor("aa"));
  EXPECT_EQ(1U, governor("BB"));
}

TEST_F(ChildHintsOfATable, DoNotAnswerForAnotherParent) {
  publish(
      build_image({.name = "/",
                   .children = {{.name = "a", .children = {{.name = "x", .users = {{1, 1}}}}},
                                {.name = "b", .children = {{.name = "x", .users = {{2, 2}}}}}}}));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(1U, governor("a/x"));
    EXPECT_EQ(2U, governor("b/x"));
  }
  // The two folders exchange their children: the hint for "a/x" leads to a child of "b".
  poison([](void* map) {
    const ImageView image(map, ImageView::kUnknownSize);
    const auto child = [&image](const fs_elem_s& folder, uint32_t slot) -> fs_elem_s& {
      const uint32_t offset = ImageView::child_at(image.children_of(folder), slot);
      return const_cast<fs_elem_s&>(image.fselem(offset));
    };
    fs_elem_s& a = child(image.fselem(0), 0);
    fs_elem_s& b = child(image.fselem(0), 1);
    fs_elem_s& x_of_a = child(a, 0);
    fs_elem_s& x_of_b = child(b, 0);
    const uint32_t parent = x_of_a.parent_offset;
    const uint32_t children = a.clist_offset;
    x_of_a.parent_offset = x_of_b.parent_offset;
    x_of_b.parent_offset = parent;
    a.clist_offset = b.clist_offset;
    b.clist_offset = children;
  });
  EXPECT_EQ(2U, governor("a/x"));
  EXPECT_EQ(1U, governor("b/x"));
}

// One map after the other in one process: the second round of each goes by hints.
TEST_F(ChildHintsOfATable, AreOfNoConsequenceOnRandomTrees) {
  give_samba_library_its_name();
  for (uint32_t seed = 50; seed < 54; ++seed) {
    const Folder tree = random_tree(seed, 300, Bytes::kUtf8);
    publish(build_image(tree));
    for (int round = 0; round < 2; ++round) {
      for (const std::string& path : paths_of(tree)) {
        if (path.empty()) continue;
        ASSERT_EQ(naive_lookup(tree, path), look_up(path)) << path;
      }
    }
  }
}

// Two threads at once, each with a table of its own, in which another one of two siblings comes
// first.
TEST_F(ChildHintsOfATable, AreEachThreadsOwn) {
  std::atomic<int> attached{0};
  const auto work = [&attached](uint32_t wanted) {
    void* map = get_perm_map_addr();
    ++attached;
    while (attached < 2) std::this_thread::yield();
    for (int round = 0; round < 100'000; ++round) ASSERT_EQ(wanted, governor_in(map, "team"));
    put_perm_map_addr(map);
  };
  publish(build_image(tree("Xxxx", "Team")));
  std::thread one(work, 2);
  while (attached < 1) std::this_thread::yield();
  publish(build_image(tree("TEAM", "Team")));
  std::thread two(work, 1);
  one.join();
  two.join();
}

TEST_F(ChildHintsOfATable, ReachDeeperThanOneLook) {
  Folder deep{.name = "bottom", .users = {{9, 1}}};
  std::string path = "bottom";
  for (int level = 0; level < 40; ++level) {
    const std::string name = "level" + std::to_string(level);
    deep = {.name = name, .children = {deep}};
    path = name + "/" + path;
  }
  publish(build_image({.name = "/", .children = {deep}}));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(9U, governor(path));
    EXPECT_TRUE(look_up(path + "/below").inherited);
  }
}

}  // namespace
}  // namespace tavrix::test
