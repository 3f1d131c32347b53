// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders that no client may delete.

#include <gtest/gtest.h>

#include "tavrix_vfs_utils.h"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

TEST(IsDeleteable, ProtectsPrivateAndItsChildren) {
  EXPECT_EQ(0, is_deleteable("Private"));
  EXPECT_EQ(0, is_deleteable("Private/Docs"));
  EXPECT_EQ(1, is_deleteable("Private/Docs/a.txt"));
  EXPECT_EQ(1, is_deleteable("private/Docs"));
  EXPECT_EQ(1, is_deleteable("Public"));
  EXPECT_EQ(1, is_deleteable("Private/"));
  EXPECT_EQ(0, is_deleteable("Private/x"));
  EXPECT_EQ(1, is_deleteable("Privates"));
  EXPECT_EQ(1, is_deleteable(""));
  EXPECT_EQ(1, is_deleteable(nullptr));
  EXPECT_LE(level_of("is_deleteable:  path_to_delete=Private/x not allowed\n",
                     [] { is_deleteable("Private/x"); }),
            10);
}

}  // namespace
}  // namespace tavrix::test
