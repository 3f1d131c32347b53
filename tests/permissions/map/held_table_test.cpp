// SPDX-License-Identifier: LGPL-3.0-or-later
// The table that a thread holds beyond one decision.

#include "permissions/map/held_table.hpp"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <cerrno>

#include "perm_map.h"
#include "permissions/map/tables.hpp"
#include "tests/support/attached_map.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class AHeldTable : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    show_second(1000);
    publish(build_image(tree("aa")));
  }
  static Folder tree(const std::string& name) {
    return {.name = "/", .users = {{1, 1}}, .children = {{.name = name, .users = {{2, 2}}}}};
  }
  static int current_key() {
    return get_current_perm_table_index() == 0 ? TAVRIX_PERM_TABLE0_KEY : TAVRIX_PERM_TABLE1_KEY;
  }

  HeldTable held_;
};

TEST_F(AHeldTable, IsNoneAtFirst) {
  EXPECT_FALSE(held_.is_holding());
  EXPECT_EQ(nullptr, held_.current());
}

TEST_F(AHeldTable, IsHeldInASessionAndInAScope) {
  void* table = held_.attach();
  held_.give_back(table);
  EXPECT_FALSE(held_.is_holding());
  EXPECT_EQ(0, attach_count(current_key()));

  held_.keep();
  table = held_.attach();
  held_.give_back(table);
  EXPECT_EQ(table, held_.current());
  EXPECT_EQ(1, attach_count(current_key()));
  held_.keep_no_longer();
  EXPECT_EQ(0, attach_count(current_key()));

  held_.begin_scope();
  table = held_.attach();
  held_.give_back(table);
  EXPECT_EQ(table, held_.current());
  held_.end_scope();
  EXPECT_EQ(0, attach_count(current_key()));
}

// Lookups know its size and its segment, as of any table of the thread.
TEST_F(AHeldTable, IsKnownToLookups) {
  held_.keep();
  void* table = held_.attach();
  ASSERT_NE(nullptr, attached_table_at(table));
  void* other = get_perm_map_addr();
  EXPECT_NE(nullptr, attached_table_at(table));
  EXPECT_NE(nullptr, attached_table_at(other));
  put_perm_map_addr(other);
  EXPECT_NE(nullptr, attached_table_at(table));
  held_.drop();
  EXPECT_EQ(nullptr, attached_table_at(table));
}

TEST_F(AHeldTable, IsDroppedWhenAnotherIsCurrent) {
  held_.keep();
  static_cast<void>(held_.attach());
  publish(build_image(tree("bb")));
  EXPECT_EQ(nullptr, held_.current());
  EXPECT_FALSE(held_.is_holding());
}

// The table was removed and its key is free: no look-up gives its id any more.
TEST_F(AHeldTable, IsDroppedWhenItIsRemoved) {
  held_.keep();
  static_cast<void>(held_.attach());
  shmctl(shmget(current_key(), 0, 0), IPC_RMID, nullptr);
  EXPECT_EQ(nullptr, held_.current());
}

// Another segment under the same key, as after two swaps, is another table.
TEST_F(AHeldTable, IsToldApartByItsSegment) {
  held_.keep();
  static_cast<void>(held_.attach());
  const int key = current_key();
  shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
  ASSERT_NE(-1, shmget(key, 4096, IPC_CREAT | IPC_EXCL));
  EXPECT_EQ(nullptr, held_.current());
}

TEST_F(AHeldTable, IsLookedAtOnceInAScope) {
  held_.keep();
  static_cast<void>(held_.attach());
  held_.begin_scope();
  reset_calls();
  EXPECT_NE(nullptr, held_.current());
  EXPECT_NE(nullptr, held_.current());
  EXPECT_EQ(1, calls("semctl"));
  held_.end_scope();
  EXPECT_NE(nullptr, held_.current());
  EXPECT_EQ(2, calls("semctl"));
  held_.begin_scope();
  EXPECT_NE(nullptr, held_.current());
  EXPECT_EQ(3, calls("semctl"));
  held_.end_scope();
  held_.drop();
}

TEST_F(AHeldTable, IsAttachedAnewInEachSecond) {
  held_.keep();
  static_cast<void>(held_.attach());
  show_second(1001);
  EXPECT_EQ(nullptr, held_.current());
  EXPECT_EQ(0, attach_count(current_key()));
}

TEST_F(AHeldTable, KeepsErrnoWhenItIsDropped) {
  held_.keep();
  static_cast<void>(held_.attach());
  fail_call("shmdt", EINVAL);
  errno = EDOM;
  held_.drop();
  EXPECT_EQ(EDOM, errno);
}

TEST_F(AHeldTable, EndsWithNoScopeTooMany) {
  held_.end_scope();
  held_.begin_scope();
  static_cast<void>(held_.attach());
  EXPECT_TRUE(held_.is_holding());
  held_.end_scope();
  EXPECT_FALSE(held_.is_holding());
}

// --- the short looks
// ------------------------------------------------------------------------------

TEST_F(AHeldTable, TheSetSaysWhichTableIsCurrent) {
  static_cast<void>(get_current_perm_table_index());
  const int before = index_in_set(set_of_tables());
  EXPECT_EQ(get_current_perm_table_index(), before);
  publish(build_image(tree("bb")));
  EXPECT_EQ(1 - before, index_in_set(set_of_tables()));
}

TEST_F(AHeldTable, ARemovedSetSaysNothing) {
  static_cast<void>(get_current_perm_table_index());
  destroy_perm_map();
  EXPECT_EQ(-1, index_in_set(set_of_tables()));
}

TEST_F(AHeldTable, TheShortLooksNeedNoPrivilege) {
  static_cast<void>(get_current_perm_table_index());
  const int index = index_in_set(set_of_tables());
  const int segment = segment_of_table(index);
  const Outcome child = in_child([&] {
    ASSERT_EQ(0, setresuid(1005, 1005, 1005));
    EXPECT_EQ(index, index_in_set(set_of_tables()));
    EXPECT_EQ(segment, segment_of_table(index));
    EXPECT_EQ(-1, segment_of_table(1 - index));
  });
  EXPECT_TRUE(child.ok()) << child.out << child.err;
}

}  // namespace
}  // namespace tavrix::test
