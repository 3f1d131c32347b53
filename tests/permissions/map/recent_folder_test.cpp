// SPDX-License-Identifier: LGPL-3.0-or-later
// The folder of the last decision: remembered for one table, and never for another path.

#include "permissions/map/recent_folder.hpp"

#include <gtest/gtest.h>
#include <random>

#include "perm_map.h"
#include "tests/support/attached_map.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

constexpr SegmentIdentity kTable{1, 2, 3};
constexpr FolderMatch kMatch{40, SHM_MEMBE_OK};

TEST(RecentFolder, IsFoundByTheWholePathOnly) {
  RecentFolder recent;
  recent.use(kTable);
  EXPECT_EQ(nullptr, recent.find(""));
  EXPECT_EQ(nullptr, recent.find("shared/team"));
  recent.remember("shared/team", kMatch);
  ASSERT_NE(nullptr, recent.find("shared/team"));
  EXPECT_EQ(40U, recent.find("shared/team")->offset);
  for (const char* other : {"shared/tea", "shared/teams", "shared/Team", "Shared/team", ""}) {
    EXPECT_EQ(nullptr, recent.find(other)) << other;
  }
}

TEST(RecentFolder, HoldsForOneTable) {
  RecentFolder recent;
  recent.use(kTable);
  recent.remember("a", kMatch);
  recent.use(kTable);
  EXPECT_NE(nullptr, recent.find("a"));
  recent.use({1, 2, 4});
  EXPECT_EQ(nullptr, recent.find("a"));
}

TEST(RecentFolder, IsNoneForAPathWithoutRoom) {
  RecentFolder recent;
  recent.use(kTable);
  recent.remember("a", kMatch);
  const std::string longest(1024, 'x');
  recent.remember(longest, kMatch);
  EXPECT_NE(nullptr, recent.find(longest));
  recent.remember(longest + "x", kMatch);
  EXPECT_EQ(nullptr, recent.find(longest + "x"));
  EXPECT_EQ(nullptr, recent.find(longest));
  EXPECT_EQ(nullptr, recent.find("a"));
}

// --- in lookups of a decision
// ---------------------------------------------------------------------

class RecentFolders : public Isolated {
 protected:
  struct Both {
    Governing self, parent;
    bool operator==(const Both&) const = default;
  };
  // As a decision looks them up.
  static Both look_up_both(const std::string& path) {
    void* map = get_perm_map_addr();
    AclPtr self;
    AclPtr parent;
    EXPECT_EQ(0, governing_acls(map, path, self, parent));
    Both both{governing_of(*self), governing_of(*parent)};
    put_perm_map_addr(map);
    return both;
  }
  static Both naive(const Folder& root, const std::string& path) {
    const auto slash = path.rfind('/');
    Both both;
    both.self = naive_lookup(root, path);
    both.parent = naive_lookup(root, slash == std::string::npos ? "/" : path.substr(0, slash));
    // The parent of a top-level name is the root, whose entries pass down to it.
    if (slash == std::string::npos) both.parent.inherited = true;
    return both;
  }
};

// Questions about folders, files and missing names, again and again in the same few folders, while
// maps change: each answer is the naive lookup's.
TEST_F(RecentFolders, ChangeNoAnswer) {
  give_samba_library_its_name();
  std::mt19937 random(20261122);
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    const Folder root = random_tree(seed, 200, Bytes::kUtf8);
    publish(build_image(root));
    const auto paths = paths_of(root);
    std::string folder;
    for (int question = 0; question < 400; ++question) {
      if (folder.empty() || random() % 4 == 0) folder = paths[random() % paths.size()];
      std::string path = folder;
      if (random() % 3 != 0) path += "/file" + std::to_string(random() % 3);
      if (random() % 6 == 0) path += "/below";
      if (path.empty() || path == "/") continue;
      EXPECT_EQ(naive(root, path).self, look_up_both(path).self) << seed << " " << path;
      EXPECT_EQ(naive(root, path).parent.entries, look_up_both(path).parent.entries)
          << seed << " " << path;
    }
  }
}

TEST_F(RecentFolders, AreNotThoseOfAnotherMap) {
  const auto tree = [](uint32_t id) {
    return Folder{.name = "/",
                  .users = {{1, 1}},
                  .children = {{.name = "a", .users = {{id, 1}}, .children = {{.name = "b"}}}}};
  };
  publish(build_image(tree(7)));
  EXPECT_EQ(7U, look_up_both("a/x").parent.entries.at(0).ace.id);
  publish(build_image(tree(8)));
  EXPECT_EQ(8U, look_up_both("a/x").parent.entries.at(0).ace.id);
}

// The level that traces comparisons shows each one, so nothing is skipped there.
TEST_F(RecentFolders, AreNotUsedWhileComparisonsAreTraced) {
  publish(build_image({.name = "/",
                       .users = {{1, 1}},
                       .children = {{.name = "aa", .children = {{.name = "bb"}}}}}));
  set_debug_level(10);
  look_up_both("aa/bb");
  clear_log();
  look_up_both("aa/bb");
  EXPECT_TRUE(logged("Found match cnelem aa and pelem aa"));
}

}  // namespace
}  // namespace tavrix::test
