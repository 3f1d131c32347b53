// SPDX-License-Identifier: LGPL-3.0-or-later
// The table that a thread has attached: lookups remember things of it and of nothing else.

#include "permissions/map/attached_table.hpp"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <cstring>
#include <thread>

#include "perm_map.h"
#include "tests/support/attached_map.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"

namespace tavrix::test {
namespace {

class TheAttachedTable : public Isolated {
 protected:
  static void publish_map(const Folder& map) { publish(build_image(map)); }
  static Folder tree(const std::string& name) {
    return {.name = "/", .users = {{1, 1}}, .children = {{.name = name, .users = {{2, 2}}}}};
  }
};

TEST_F(TheAttachedTable, IsKnownWithItsSizeAndSegment) {
  const auto image = build_image(tree("aa"));
  publish(image);
  EXPECT_EQ(nullptr, attached_table_at(nullptr));
  void* map = get_perm_map_addr();
  const AttachedTable* table = attached_table_at(map);
  ASSERT_NE(nullptr, table);
  EXPECT_EQ(image.size(), table->size);
  EXPECT_EQ(getpid(), table->identity.maker);
  EXPECT_EQ(nullptr, attached_table_at(static_cast<char*>(map) + 1));
  put_perm_map_addr(map);
}

TEST_F(TheAttachedTable, IsItsThreadsOwn) {
  publish_map(tree("aa"));
  void* map = get_perm_map_addr();
  std::thread([map] { EXPECT_EQ(nullptr, attached_table_at(map)); }).join();
  put_perm_map_addr(map);
}

// After the table is given back, an image at its address is one like any other.
TEST_F(TheAttachedTable, IsForgottenWhenItIsGivenBack) {
  publish_map(tree("aa"));
  void* map = get_perm_map_addr();
  EXPECT_EQ(map, attached_table_at(map)->address);
  EXPECT_EQ(1U, governor_in(map, "bb"));
  put_perm_map_addr(map);
  EXPECT_EQ(nullptr, attached_table_at(map));
  const auto other = build_image(tree("bb"));
  const int segment = shmget(IPC_PRIVATE, other.size(), 0600);
  ASSERT_EQ(map, shmat(segment, map, 0));
  shmctl(segment, IPC_RMID, nullptr);
  std::memcpy(map, other.data(), other.size());
  EXPECT_EQ(2U, governor_in(map, "bb"));
  shmdt(map);
}

// The same while the table is attached.
TEST_F(TheAttachedTable, IsNotAnImageElsewhereWithTheSameHeader) {
  publish_map(tree("aa"));
  auto other = build_image(tree("bb"));
  void* map = get_perm_map_addr();
  EXPECT_EQ(1U, governor_in(map, "bb"));
  EXPECT_EQ(2U, governor_in(map, "aa"));
  EXPECT_EQ(2U, governor_in(other.data(), "bb"));
  EXPECT_EQ(1U, governor_in(other.data(), "aa"));
  put_perm_map_addr(map);
}

// A thread that attaches twice is known by its second attachment until that is given back.
TEST_F(TheAttachedTable, IsTheOneThatWasAttachedLast) {
  publish_map(tree("aa"));
  void* first = get_perm_map_addr();
  void* second = get_perm_map_addr();
  EXPECT_EQ(nullptr, attached_table_at(first));
  put_perm_map_addr(first);
  EXPECT_NE(nullptr, attached_table_at(second));
  put_perm_map_addr(second);
}

TEST_F(TheAttachedTable, CostsOneSystemCallToKnow) {
  publish_map(tree("aa"));
  governor("aa");
  reset_calls();
  governor("aa");
  EXPECT_EQ(1, calls("shmctl"));
  EXPECT_EQ(0, calls("mmap"));
}

}  // namespace
}  // namespace tavrix::test
