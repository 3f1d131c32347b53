// SPDX-License-Identifier: LGPL-3.0-or-later
// The user whose changes are not recorded.

#include <gtest/gtest.h>

#include "tavrix_vfs_utils.h"

namespace tavrix::test {
namespace {

TEST(ReservedUser, IsKept) {
  set_reserved_user_uid(77);
  EXPECT_EQ(77U, reserved_user_uid);
}

}  // namespace
}  // namespace tavrix::test
