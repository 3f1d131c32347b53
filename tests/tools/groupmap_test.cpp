// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl groupmap, and the library as the reader of its files.

#include "tools/groupmap/group_map.hpp"

#include <gtest/gtest.h>
#include <cstdlib>
#include <random>

#include "tavrix_getgrouplist.h"
#include "tests/support/group_map.hpp"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using groupmap::User;

groupmap::GroupMap sample() {
  return {.reserved = {{"tavrix-admins", 9001}},
          .users = {{"anna", {100, 9002}}, {"Ben", {}}, {"carl", {1, 2, 3}}}};
}

std::vector<gid_t> groups_of(const std::string& bytes, const std::string& user) {
  unsigned count = 0;
  testing::internal::CaptureStderr();
  gid_t* list = tavrix_getgrouplist(reinterpret_cast<const mapheader*>(bytes.data()),
                                    static_cast<unsigned>(bytes.size()), user.c_str(), &count);
  testing::internal::GetCapturedStderr();
  std::vector<gid_t> groups(list, list + count);
  std::free(list);
  return groups;
}

std::string told(const std::string& bytes) {
  const auto findings = groupmap::verify(bytes);
  std::string text;
  for (const auto& finding : findings.kept()) text += finding.text + "\n";
  return text;
}

TEST(GroupMapFile, IsReadByTheLibrary) {
  const std::string bytes = groupmap::encode(sample());
  EXPECT_EQ(8192U, bytes.size());
  EXPECT_EQ((std::vector<gid_t>{100, 9002}), groups_of(bytes, "anna"));
  EXPECT_EQ((std::vector<gid_t>{1, 2, 3}), groups_of(bytes, "CARL"));
  EXPECT_EQ(9001U, tavrix_reserved_gid(reinterpret_cast<const mapheader*>(bytes.data()),
                                       static_cast<unsigned>(bytes.size()), "tavrix-admins"));
  EXPECT_EQ("", told(bytes));
}

TEST(GroupMapFile, HoldsManyUsersAndGroups) {
  groupmap::GroupMap map;
  for (uint32_t i = 0; i < 5000; ++i)
    map.users.push_back({"user" + std::to_string(i), {i, i + 1, i + 2}});
  map.users.push_back({"many", {}});
  for (uint32_t gid = 0; gid < 65536; ++gid) map.users.back().gids.push_back(gid);
  const std::string bytes = groupmap::encode(map);
  EXPECT_EQ("", told(bytes));
  EXPECT_EQ((std::vector<gid_t>{4999, 5000, 5001}), groups_of(bytes, "user4999"));
  EXPECT_EQ(65536U, groups_of(bytes, "many").size());
  EXPECT_EQ(map.users.size(), groupmap::decode(bytes)->users.size());
}

TEST(GroupMapFile, FillsItsLastPageNever) {
  for (uint32_t groups = 1900; groups < 2100; ++groups) {
    groupmap::GroupMap map{.users = {{"u", std::vector<uint32_t>(groups, 5)}}};
    const std::string bytes = groupmap::encode(map);
    ASSERT_EQ("", told(bytes)) << groups;
    ASSERT_EQ(groups, groups_of(bytes, "u").size());
  }
}

TEST(GroupMapVerify, FindsEachKindOfDamage) {
  const std::string sound = groupmap::encode(sample());
  const std::size_t users = get32(sound, 8);
  const std::pair<std::pair<std::size_t, uint32_t>, const char*> rows[] = {
      {{0, 9000}, "the table of reserved groups (1 at 9000) ends beyond the file"},
      {{4, 0xFFFFFFFF}, "the table of reserved groups"},
      {{8, 8190}, "the table of users"},
      {{12, 0xFFFFFFFF}, "the table of users"},
      {{16, 8192}, "the name at 8192 ends beyond the file"},
      {{20, 0}, "has gid 0, which readers take for none"},
      {{users, 0xFFFFFFFF}, "the name at 4294967295 ends beyond the file"},
      {{users + 4, 9}, "\"anna\" has 4 bytes, not 9"},
      {{users + 8, 8191}, "the groups of \"anna\" at 8191 end beyond the file"},
      {{users + 8, 101}, "are not aligned"},
      {{users + 12, 3000}, "groups behind the name of \"anna\" end beyond the file"},
      {{users + 16, get32(sound, users)}, "\"anna\" appears twice"},
  };
  for (const auto& [change, finding] : rows) {
    std::string bytes = sound;
    put32(bytes, change.first, change.second);
    EXPECT_TRUE(contains(told(bytes), finding)) << finding << ":\n" << told(bytes);
  }
  EXPECT_TRUE(contains(told(sound.substr(0, 8191)), "8191 bytes"));
  EXPECT_TRUE(contains(told(""), "0 bytes"));
}

TEST(GroupMapVerify, TakesAnyBytes) {
  std::mt19937 random(4);
  const std::string sound = groupmap::encode(sample());
  for (int round = 0; round < 5000; ++round) {
    std::string bytes = sound;
    for (int change = 0; change < 3; ++change) {
      put32(bytes, random() % 60 * 2,
            static_cast<uint32_t>(random() % 2 == 0 ? random() : random() % 8300));
    }
    static_cast<void>(groupmap::decode(bytes));
  }
}

class GroupMapCommand : public Operator {
 protected:
  static Outcome build(const std::string& json) {
    write_file("/scratch/groups.json", json);
    return ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/scratch/map"});
  }
};

TEST_F(GroupMapCommand, BuildsFromJson) {
  const Outcome outcome =
      build(R"({"reserved": {"tavrix-admins": 9001}, "users": {"anna": [1, 2]}})");
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ((std::vector<gid_t>{1, 2}), groups_of(read_file("/scratch/map"), "anna"));
  EXPECT_EQ((std::vector<std::string>{"groups.json", "map", "map.sha256"}), list("/scratch"));
}

TEST_F(GroupMapCommand, BuildsFromTheMachine) {
  EXPECT_EQ(0, ctl({"groupmap", "build", "--from-system", "-o", "/scratch/map"}).exit_code);
  EXPECT_EQ((std::vector<gid_t>{0}), groups_of(read_file("/scratch/map"), "root"));
}

TEST_F(GroupMapCommand, RefusesBadInput) {
  for (const char* text :
       {"", "[1]", R"({"users": {"a": "x"}})", R"({"users": {"a": [-1, "b"]}})"}) {
    EXPECT_EQ(2, build(text).exit_code) << text;
    EXPECT_FALSE(exists("/scratch/map"));
  }
  EXPECT_EQ(2, ctl({"groupmap", "build", "-o", "/scratch/map"}).exit_code);
  EXPECT_EQ(2, ctl({"groupmap", "build", "/none", "-o", "/scratch/map"}).exit_code);
  EXPECT_EQ(2, ctl({"groupmap", "build", "--from-system", "-o", "/none/map"}).exit_code);
}

TEST_F(GroupMapCommand, ShowsUsers) {
  build(R"({"users": {"anna": [1, 2], "ben": []}})");
  EXPECT_EQ("anna: 1 2\n", ctl({"groupmap", "show", "ANNA", "--file", "/scratch/map"}).out);
  EXPECT_EQ(1, ctl({"groupmap", "show", "dora", "--file", "/scratch/map"}).exit_code);
  EXPECT_EQ(2U, json({"groupmap", "show", "--file", "/scratch/map"})["users"].size());
}

TEST_F(GroupMapCommand, VerifiesFiles) {
  build(R"({"users": {"anna": [1, 2]}})");
  EXPECT_EQ(0, ctl({"groupmap", "verify", "/scratch/map"}).exit_code);
  write_file("/scratch/map", "short");
  EXPECT_EQ(1, ctl({"groupmap", "verify", "/scratch/map"}).exit_code);
  EXPECT_EQ(2, ctl({"groupmap", "show", "--file", "/scratch/map"}).exit_code);
  EXPECT_EQ(2, ctl({"groupmap", "verify", "/none"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
