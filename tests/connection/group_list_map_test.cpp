// SPDX-License-Identifier: LGPL-3.0-or-later
// The group list map file: mapping, reserved groups, users' lists.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <cstdlib>
#include <cstring>
#include <random>

#include "tavrix_getgrouplist.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/group_map.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class GroupListMap : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    use({.reserved = {{"tavrix-powerusers", 9002}, {"tavrix-admins", 9001}},
         .users = {{"anna", {100, 9002}}, {"Ben", {}}, {"anna", {1}}, {"carl", {5, 6, 7}}}});
  }
  void use(const GroupMap& map) { bytes_ = group_map_bytes(map); }
  const mapheader* map() const { return reinterpret_cast<const mapheader*>(bytes_.data()); }
  unsigned size() const { return static_cast<unsigned>(bytes_.size()); }

  // The result of a lookup, and the text that it prints.
  struct Answer {
    bool found = false;
    std::vector<gid_t> gids;
    std::string printed;
  };
  Answer groups_of(const std::string& user) {
    Answer answer;
    unsigned count = 77;
    testing::internal::CaptureStderr();
    gid_t* list = tavrix_getgrouplist(map(), size(), user.c_str(), &count);
    answer.printed = testing::internal::GetCapturedStderr();
    answer.found = list != nullptr;
    if (list != nullptr) answer.gids.assign(list, list + count);
    EXPECT_TRUE(list != nullptr || count == 0);
    std::free(list);
    return answer;
  }
  std::pair<gid_t, std::string> reserved(const std::string& name) {
    testing::internal::CaptureStderr();
    const gid_t gid = tavrix_reserved_gid(map(), size(), name.c_str());
    return {gid, testing::internal::GetCapturedStderr()};
  }
  static std::size_t user_at(std::size_t index) { return 16 + 8 * 2 + 16 * index; }

  std::string bytes_;
};

using Gids = std::vector<gid_t>;

TEST_F(GroupListMap, FindsTheGroupsOfAUser) {
  EXPECT_EQ((Gids{100, 9002}), groups_of("anna").gids);
  EXPECT_EQ((Gids{5, 6, 7}), groups_of("carl").gids);
}

TEST_F(GroupListMap, IgnoresTheCaseAndTakesTheFirst) {
  EXPECT_EQ((Gids{100, 9002}), groups_of("ANNA").gids);
  EXPECT_TRUE(groups_of("ben").found);
}

TEST_F(GroupListMap, GivesAnEmptyListForAUserWithoutGroups) {
  const Answer answer = groups_of("Ben");
  EXPECT_TRUE(answer.found);
  EXPECT_TRUE(answer.gids.empty());
}

TEST_F(GroupListMap, FindsNobodyElse) {
  EXPECT_FALSE(groups_of("dora").found);
  EXPECT_FALSE(groups_of("").found);
  EXPECT_FALSE(groups_of("ann").found);
  EXPECT_FALSE(groups_of("annaa").found);
}

TEST_F(GroupListMap, PrintsWhatItFound) {
  const std::string text = groups_of("anna").printed;
  EXPECT_TRUE(text.starts_with("New gid list begins for user anna = 0x")) << text;
  EXPECT_TRUE(text.ends_with("\ngid[0] = 100\tgid[1] = 9002\t\nEnd of Gid List\n")) << text;
}

TEST_F(GroupListMap, HoldsManyGroups) {
  GroupMap many{.users = {{"many", {}}}};
  for (uint32_t gid = 0; gid < 65536; ++gid) many.users[0].gids.push_back(gid);
  use(many);
  EXPECT_EQ(65536U, groups_of("many").gids.size());
  EXPECT_EQ(65535U, groups_of("many").gids.back());
}

TEST_F(GroupListMap, FindsReservedGroups) {
  EXPECT_EQ(9001U, reserved("tavrix-admins").first);
  EXPECT_EQ(9002U, reserved("TAVRIX-PowerUsers").first);
  EXPECT_EQ(0U, reserved("others").first);
  use({});
  EXPECT_EQ(0U, reserved("tavrix-admins").first);
}

// --- damage --------------------------------------------------------------------------------------

TEST_F(GroupListMap, ThatIsShortHasNobody) {
  bytes_.resize(8191);
  EXPECT_EQ("map too short, bail\n", groups_of("anna").printed);
  EXPECT_EQ("map too short, bail\n", reserved("tavrix-admins").second);
}

TEST_F(GroupListMap, WhoseReservedTableLeavesItHasNoGroups) {
  const std::string message = "reserved group table beyond map, bail\n";
  put32(bytes_, 0, size() + 1);
  EXPECT_EQ(message, reserved("tavrix-admins").second);
  put32(bytes_, 0, 16);
  put32(bytes_, 4, 0x20000002);  // times eight fits 32 bits, but not the map
  EXPECT_EQ(message, reserved("tavrix-admins").second);
}

TEST_F(GroupListMap, WhoseReservedNameLeavesItHasNoGroupsBehindIt) {
  put32(bytes_, 16 + 8, size());
  EXPECT_EQ(9002U, reserved("tavrix-powerusers").first);
  EXPECT_EQ("reserved group item 1 beyond map, bail\n", reserved("tavrix-admins").second);
}

TEST_F(GroupListMap, WhoseUserNameLeavesItHasNobodyBehindIt) {
  put32(bytes_, user_at(1), size());
  EXPECT_TRUE(groups_of("anna").found);
  EXPECT_EQ("user item 1 name beyond map, bail\n", groups_of("carl").printed);
  put32(bytes_, user_at(1), size() - 10);
  put32(bytes_, user_at(1) + 4, 10);
  EXPECT_EQ("user item 1 name beyond map, bail\n", groups_of("carl").printed);
}

// The length check adds the list's size to the place of the name; writers lay lists out that way.
TEST_F(GroupListMap, MeasuresAListFromTheName) {
  put32(bytes_, user_at(1) + 12, size() / 4);
  EXPECT_EQ("group item 1 name beyond map, bail\n", groups_of("carl").printed);
}

// Only the place of the name is checked: a list may lie behind the map, and is copied as long as
// that memory exists.
TEST_F(GroupListMap, CopiesAListThatLiesBehindIt) {
  bytes_ += std::string(65536, '\0');
  put32(bytes_, 8192 + 5000, 77);
  put32(bytes_, user_at(3) + 8, 8192 + 5000);
  unsigned count = 0;
  testing::internal::CaptureStderr();
  gid_t* list = tavrix_getgrouplist(map(), 8192, "carl", &count);
  testing::internal::GetCapturedStderr();
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(3U, count);
  EXPECT_EQ(77U, list[0]);
  std::free(list);
}

TEST_F(GroupListMap, FindsNobodyWhoseListIsNowhere) {
  put32(bytes_, user_at(3) + 8, 0xFFFFF000);
  const Outcome outcome = in_child([this] {
    // The map stands alone in its part of the address space: nothing is mapped far behind it.
    auto* alone = static_cast<char*>(mmap(nullptr, std::size_t{8} << 30, PROT_NONE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_EQ(0, mprotect(alone, 8192, PROT_READ | PROT_WRITE));
    std::memcpy(alone, bytes_.data(), 8192);
    unsigned count = 7;
    EXPECT_EQ(nullptr,
              tavrix_getgrouplist(reinterpret_cast<mapheader*>(alone), 8192, "carl", &count));
    EXPECT_EQ(0U, count);
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
}

TEST_F(GroupListMap, WhoseUserTableLeavesItHasNobody) {
  put32(bytes_, 8, size() - 8);
  EXPECT_FALSE(groups_of("anna").found);
  put32(bytes_, 8, 0xFFFFFFF0);
  EXPECT_FALSE(groups_of("anna").found);
  put32(bytes_, 8, 32);
  put32(bytes_, 12, 0xFFFFFFFF);
  EXPECT_FALSE(groups_of("nobody at all").found);
}

TEST_F(GroupListMap, SurvivesAnyBytes) {
  std::mt19937 random(3);
  const std::string sound = bytes_;
  for (int round = 0; round < 5000; ++round) {
    bytes_ = sound;
    for (int change = 0; change < 4; ++change) {
      put32(bytes_, random() % 40 * 4,
            static_cast<uint32_t>(random() % 3 == 0 ? random() : random() % 9000));
    }
    // A list as long as the whole map is legal but slow to copy.
    for (std::size_t user = 0; user < 4; ++user) {
      if (get32(bytes_, user_at(user) + 12) > 100) put32(bytes_, user_at(user) + 12, 100);
    }
    groups_of("carl");
    reserved("tavrix-admins");
  }
}

TEST_F(GroupListMap, WithoutMemoryHasNobody) {
  fail_call("calloc", ENOMEM);
  EXPECT_FALSE(groups_of("carl").found);
}

// --- mapping the file ----------------------------------------------------------------------------

class MapFile : public GroupListMap {
 protected:
  std::pair<void*, std::string> map_file(std::size_t size) {
    write_file("/scratch/map", std::string(size, 'x'));
    return map_path("/scratch/map");
  }
  std::pair<void*, std::string> map_path(const char* path) {
    length_ = 77;
    testing::internal::CaptureStderr();
    void* mapped = tavrix_mapfile(path, &length_);
    return {mapped, testing::internal::GetCapturedStderr()};
  }
  unsigned length_ = 0;
};

TEST_F(MapFile, TakesWholePagesFromTwoOn) {
  EXPECT_EQ("File too short\n", map_file(8191).second);
  EXPECT_EQ(77U, length_);
  EXPECT_EQ("File not aligned\n", map_file(8193).second);
  EXPECT_EQ("File too short\n", map_file(0).second);
  const auto [mapped, text] = map_file(8192);
  ASSERT_NE(nullptr, mapped);
  EXPECT_EQ(8192U, length_);
  EXPECT_EQ('x', static_cast<char*>(mapped)[8191]);
  EXPECT_EQ("", text);
  tavrix_unmap(mapped, length_);
}

TEST_F(MapFile, IsSilentAboutAMissingFile) {
  EXPECT_EQ((std::pair<void*, std::string>{nullptr, ""}), map_path("/none"));
}

TEST_F(MapFile, TellsAFileThatCannotBeOpened) {
  write_file("/scratch/map", std::string(8192, 'x'));
  fail_call("open", EACCES);
  EXPECT_EQ("Failed to open /scratch/map: Permission denied", map_path("/scratch/map").second);
  EXPECT_EQ(77U, length_);
}

TEST_F(MapFile, GivesAllOnesWhenItCannotBeMapped) {
  const Outcome outcome = in_child([] {
    write_file("/scratch/map", std::string(8192, 'x'));
    struct rlimit all {};
    getrlimit(RLIMIT_AS, &all);
    const struct rlimit none { 0, all.rlim_max };
    unsigned length = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &none));
    void* mapped = tavrix_mapfile("/scratch/map", &length);
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &all));
    EXPECT_EQ(MAP_FAILED, mapped);
    EXPECT_EQ(8192U, length);
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
}

TEST_F(MapFile, KeepsNoDescriptor) {
  const int before = dup(0);
  close(before);
  void* mapped = map_file(8192).first;
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
  tavrix_unmap(mapped, length_);
}

TEST_F(MapFile, TellsAMappingThatCannotGo) {
  testing::internal::CaptureStderr();
  tavrix_unmap(reinterpret_cast<void*>(1), 4096);
  EXPECT_EQ("unmapping group map Invalid argument", testing::internal::GetCapturedStderr());
}

TEST(DebugPrintf, PrintsToStandardError) {
  testing::internal::CaptureStderr();
  debug_printf("a %d %s", 5, "b");
  EXPECT_EQ("a 5 b", testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace tavrix::test
