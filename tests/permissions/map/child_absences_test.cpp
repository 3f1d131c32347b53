// SPDX-License-Identifier: LGPL-3.0-or-later
// Absences of names: they save the scan of the folders beside a file, and hold for one table only.

#include "permissions/map/child_absences.hpp"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <cstring>
#include <thread>

#include "perm_map.h"
#include "perm_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
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
  static uint32_t governor_on(void* map, const std::string& path) {
    tavrix_acl_t* acl = nullptr;
    EXPECT_EQ(0, get_tavrix_acl(map, path.c_str(), &acl));
    const Governing governing = governing_of(*acl);
    free_ACL(acl);
    std::free(acl);
    return governing.entries.empty() ? 0 : governing.entries.at(0).ace.id;
  }
  // The governing user of a path of the current table, attached as a decision does it.
  static uint32_t governor(const std::string& path) {
    void* map = get_perm_map_addr();
    const uint32_t id = governor_on(map, path);
    put_perm_map_addr(map);
    return id;
  }
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

// The same header, as a second import of the same generation has it, over other names.
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

// The same header again, and siblings that are equal but for case: the first of them rules. Where
// the second one was found before is not where a fresh process looks.
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

// A table that was given back is an image like any other, although its address may come back.
TEST_F(Absences, AndHintsAreOfNoTableThatWasGivenBack) {
  publish_map(tree("aa"));
  void* map = get_perm_map_addr();
  EXPECT_EQ(map, attached_table_at(map)->address);
  EXPECT_EQ(1U, governor_on(map, "bb"));
  put_perm_map_addr(map);
  EXPECT_EQ(nullptr, attached_table_at(map));
  const auto other = build_image(tree("bb"));
  const int segment = shmget(IPC_PRIVATE, other.size(), 0600);
  ASSERT_EQ(map, shmat(segment, map, 0));
  shmctl(segment, IPC_RMID, nullptr);
  std::memcpy(map, other.data(), other.size());
  EXPECT_EQ(2U, governor_on(map, "bb"));
  shmdt(map);
}

// While the table is attached, too.
TEST_F(Absences, AndHintsAreNotOfAnImageElsewhereWithTheSameHeader) {
  publish_map(tree("aa"));
  auto other = build_image(tree("bb"));
  void* map = get_perm_map_addr();
  EXPECT_EQ(1U, governor_on(map, "bb"));
  EXPECT_EQ(2U, governor_on(map, "aa"));
  EXPECT_EQ(2U, governor_on(other.data(), "bb"));
  EXPECT_EQ(1U, governor_on(other.data(), "aa"));
  put_perm_map_addr(map);
}

// A second attachment does not make the first one a stranger's for good.
TEST_F(Absences, KnowTheTableThatWasAttachedLast) {
  publish_map(tree("aa"));
  void* first = get_perm_map_addr();
  void* second = get_perm_map_addr();
  EXPECT_EQ(nullptr, attached_table_at(first));
  put_perm_map_addr(first);
  EXPECT_NE(nullptr, attached_table_at(second));
  put_perm_map_addr(second);
}

TEST_F(Absences, AndHintsCostOneSystemCallForEachTableAttached) {
  publish_map(tree("aa"));
  governor("aa");
  reset_calls();
  governor("aa");
  EXPECT_EQ(1, calls("shmctl"));
  EXPECT_EQ(0, calls("mmap"));
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
  const auto governor_of = [&image](const char* path) {
    tavrix_acl_t* acl = nullptr;
    EXPECT_EQ(0, get_tavrix_acl(image.data(), path, &acl));
    const Governing governing = governing_of(*acl);
    free_ACL(acl);
    std::free(acl);
    return governing.entries.at(0).ace.id;
  };
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
        void* map = get_perm_map_addr();
        tavrix_acl_t* acl = nullptr;
        ASSERT_EQ(0, get_tavrix_acl(map, name.c_str(), &acl));
        EXPECT_EQ(naive_lookup(root, name), governing_of(*acl)) << name;
        free_ACL(acl);
        std::free(acl);
        put_perm_map_addr(map);
      }
    }
  }
}

}  // namespace
}  // namespace tavrix::test
