// SPDX-License-Identifier: LGPL-3.0-or-later
// Hints of earlier lookups: they save the scan, and never answer for another map or another name.

#include "permissions/map/child_hints.hpp"

#include <gtest/gtest.h>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "perm_utils.h"
#include "tests/support/isolated.hpp"
#include "tests/support/map_model.hpp"

namespace tavrix::test {
namespace {

Governing look_up(std::vector<std::byte>& image, const std::string& path) {
  tavrix_acl_t* acl = nullptr;
  EXPECT_EQ(0, get_tavrix_acl(image.data(), path.c_str(), &acl));
  Governing governing = governing_of(*acl);
  free_ACL(acl);
  std::free(acl);
  return governing;
}

Folder tree(const std::string& first, const std::string& second) {
  return {.name = "/",
          .children = {{.name = first, .users = {{1, 1}}}, {.name = second, .users = {{2, 2}}}}};
}

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

// The same header, as a second import of the same generation has it, over other names.
TEST(ChildHints, DoNotAnswerForAnotherName) {
  auto image = build_image(tree("aa", "bb"));
  EXPECT_EQ(1U, look_up(image, "aa").entries.at(0).ace.id);
  EXPECT_EQ(2U, look_up(image, "BB").entries.at(0).ace.id);
  const auto exchanged = build_image(tree("bb", "aa"));
  ASSERT_EQ(0, std::memcmp(image.data(), exchanged.data(), 176));
  std::copy(exchanged.begin(), exchanged.end(), image.begin());
  EXPECT_EQ(2U, look_up(image, "aa").entries.at(0).ace.id);
  EXPECT_EQ(1U, look_up(image, "BB").entries.at(0).ace.id);
}

TEST(ChildHints, DoNotAnswerForAnotherParent) {
  const Folder nested{.name = "/",
                      .children = {{.name = "a", .children = {{.name = "x", .users = {{1, 1}}}}},
                                   {.name = "b", .children = {{.name = "x", .users = {{2, 2}}}}}}};
  auto image = build_image(nested);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(1U, look_up(image, "a/x").entries.at(0).ace.id);
    EXPECT_EQ(2U, look_up(image, "b/x").entries.at(0).ace.id);
  }
}

class ChildHintsOfExtendedNames : public Isolated {};

TEST_F(ChildHintsOfExtendedNames, TellNamesOfOneHashApart) {
  give_samba_library_its_name();
  // Extended bytes are not in the hash.
  const Folder both{.name = "/",
                    .children = {{.name = "n\xc3\xa8", .users = {{1, 1}}},
                                 {.name = "n\xc3\xb6", .users = {{2, 2}}}}};
  auto image = build_image(both);
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(1U, look_up(image, "n\xc3\xa8").entries.at(0).ace.id);
    EXPECT_EQ(2U, look_up(image, "n\xc3\xb6").entries.at(0).ace.id);
  }
}

TEST(ChildHints, AreOfNoConsequenceOnRandomTrees) {
  for (uint32_t seed = 50; seed < 54; ++seed) {
    const Folder tree = random_tree(seed, 300, Bytes::kUtf8);
    auto image = build_image(tree);
    for (int round = 0; round < 2; ++round) {
      for (const std::string& path : paths_of(tree)) {
        bool is_ascii = true;
        for (const char c : path) is_ascii = is_ascii && static_cast<signed char>(c) >= 0;
        if (!is_ascii) continue;  // those need Samba, and have a test of their own
        ASSERT_EQ(naive_lookup(tree, path), look_up(image, path)) << path;
      }
    }
  }
}

TEST(ChildHints, AreEachThreadsOwn) {
  auto image = build_image(tree("aa", "bb"));
  const auto look = [&image] {
    for (int round = 0; round < 2000; ++round) {
      ASSERT_EQ(1U, look_up(image, "aa").entries.at(0).ace.id);
      ASSERT_EQ(2U, look_up(image, "bb").entries.at(0).ace.id);
    }
  };
  std::thread one(look);
  std::thread two(look);
  one.join();
  two.join();
}

TEST(ChildHints, ReachDeeperThanOneLook) {
  Folder deep{.name = "bottom", .users = {{9, 1}}};
  std::string path = "bottom";
  for (int level = 0; level < 40; ++level) {
    const std::string name = "level" + std::to_string(level);
    deep = {.name = name, .children = {deep}};
    path = name + "/" + path;
  }
  auto image = build_image({.name = "/", .children = {deep}});
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(9U, look_up(image, path).entries.at(0).ace.id);
    EXPECT_TRUE(look_up(image, path + "/below").inherited);
  }
}

}  // namespace
}  // namespace tavrix::test
