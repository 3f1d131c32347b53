// Absences of names: they save the scan of the folders beside a file, and hold for one table only.

#include "permissions/child_absences.hpp"

#include <gtest/gtest.h>

#include "perm_map.h"
#include "perm_utils.h"
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
  // The governing user of a path of the current table, attached as a decision does it.
  static uint32_t governor(const std::string& path) {
    void* map = get_perm_map_addr();
    tavrix_acl_t* acl = nullptr;
    EXPECT_EQ(0, get_tavrix_acl(map, path.c_str(), &acl));
    const Governing governing = governing_of(*acl);
    free_ACL(acl);
    std::free(acl);
    put_perm_map_addr(map);
    return governing.entries.empty() ? 0 : governing.entries.at(0).ace.id;
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
