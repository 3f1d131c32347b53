// SPDX-License-Identifier: LGPL-3.0-or-later
// Absences of names: they save the scan of the folders beside a file, and hold for one table only.

#include "permissions/map/child_absences.hpp"

#include <gtest/gtest.h>
#include <cstring>
#include <thread>

#include "tests/support/attached_map.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

using Summary = ChildAbsences::Summary;

TEST(ChildAbsences, SummariesForgetNoHash) {
  for (uint32_t seed = 1; seed < 200; ++seed) {
    Summary summary;
    for (uint32_t i = 0; i < ChildAbsences::kMostChildren; ++i) summary.add(seed * 7919 * (i + 1));
    for (uint32_t i = 0; i < ChildAbsences::kMostChildren; ++i) {
      EXPECT_TRUE(summary.may_hold(seed * 7919 * (i + 1)));
    }
  }
}

TEST(ChildAbsences, SummariesTellMostOthersApart) {
  Summary summary;
  for (uint32_t i = 0; i < 16; ++i) summary.add(i * 2654435761U + 17);
  int taken_for_theirs = 0;
  for (uint32_t i = 0; i < 10000; ++i) taken_for_theirs += summary.may_hold(i * 40503U + 3) ? 1 : 0;
  EXPECT_LT(taken_for_theirs, 500);
}

class Absences : public Share {
 protected:
  static Folder tree(const std::string& name) {
    return {.name = "/", .users = {{1, 1}}, .children = {{.name = name, .users = {{2, 2}}}}};
  }
};

TEST_F(Absences, AreRememberedOfTheCurrentTableOnly) {
  publish_map(tree("aa"));
  EXPECT_EQ(1U, governor("bb"));
  EXPECT_EQ(1U, governor("bb"));
  EXPECT_EQ(2U, governor("aa"));
}

// Two maps with equal headers, as a second import of one generation makes them, and other names.
TEST_F(Absences, AreForgottenWithTheTable) {
  for (int round = 0; round < 5; ++round) {
    publish_map(tree("aa"));
    EXPECT_EQ(1U, governor("bb"));
    EXPECT_EQ(2U, governor("aa"));
    publish_map(tree("bb"));
    EXPECT_EQ(2U, governor("bb"));
    EXPECT_EQ(1U, governor("aa"));
  }
}

// Equal headers again, and siblings that differ in case only, of which the first one rules: a hint
// of the first map leads to the second sibling, which a fresh process would not find.
TEST_F(Absences, AndHintsAreForgottenWithTheTable) {
  const auto tree_of = [](const std::string& first) -> Folder {
    return {.name = "/",
            .users = {{1, 1}},
            .children = {{.name = first, .users = {{2, 2}}}, {.name = "Team", .users = {{3, 3}}}}};
  };
  ASSERT_EQ(0, std::memcmp(build_image(tree_of("Xxxx")).data(), build_image(tree_of("TEAM")).data(),
                           sizeof(tavrix_be_header)));
  for (int round = 0; round < 3; ++round) {
    publish_map(tree_of("Xxxx"));
    EXPECT_EQ(3U, governor("team"));
    publish_map(tree_of("TEAM"));
    EXPECT_EQ(2U, governor("team"));
  }
}

TEST_F(Absences, AndHintsAreDoneWithoutWhenMemoryIsShort) {
  publish_map(tree("aa"));
  for (int nth = 1; nth <= 3; ++nth) {
    EXPECT_TRUE(in_child([nth] {
                  fail_call("mmap", ENOMEM, nth, 1000);
                  for (int round = 0; round < 3; ++round) {
                    ASSERT_EQ(1U, governor("bb"));
                    ASSERT_EQ(2U, governor("aa"));
                  }
                }).ok())
        << nth;
  }
}

TEST_F(Absences, AndHintsGoWithTheirThread) {
  publish_map(tree("aa"));
  const auto mapped = [] { return calls("mmap") - calls("munmap"); };
  reset_calls();
  std::thread([] { EXPECT_EQ(2U, governor("aa")); }).join();
  EXPECT_GT(calls("mmap"), 0);
  EXPECT_EQ(0, mapped());
}

TEST_F(Absences, AreNotKeptOfImagesElsewhere) {
  auto image = build_image(tree("aa"));
  const auto governor_of = [&image](const char* path) { return governor_in(image.data(), path); };
  EXPECT_EQ(1U, governor_of("bb"));
  image = build_image(tree("bb"));
  EXPECT_EQ(2U, governor_of("bb"));
}

TEST_F(Absences, SayTheSameAsANaiveLookupForEveryName) {
  give_samba_library_its_name();
  const Folder root = random_tree(11, 3000);
  publish_map(root);
  std::vector<std::string> paths = paths_of(root);
  paths.resize(std::min<std::size_t>(paths.size(), 1500));
  for (int round = 0; round < 2; ++round) {
    for (const std::string& path : paths) {
      if (path.empty()) continue;
      for (const std::string& name : {path, path + "/file.txt", path + "x"}) {
        EXPECT_EQ(naive_lookup(root, name), look_up(name)) << name;
      }
    }
  }
}

}  // namespace
}  // namespace tavrix::test
