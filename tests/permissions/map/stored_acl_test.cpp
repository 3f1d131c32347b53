// SPDX-License-Identifier: LGPL-3.0-or-later
// The stored form of an ACL, written where it belongs.

#include "permissions/map/stored_acl.hpp"

#include <gtest/gtest.h>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "perm_utils.h"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class StoredAcl : public testing::Test {
 protected:
  StoredAcl() {
    create_empty_acl(&acl_);
    add_ace_to_acl(acl_, ACE_TYPE_USER, 7);
    add_ace_mask(acl_, ACE_TYPE_USER, 7, 3);
    add_ace_to_acl(acl_, ACE_TYPE_GROUP, 4000000000U);
    add_ace_mask(acl_, ACE_TYPE_GROUP, 4000000000U, 0x10007);
  }
  ~StoredAcl() override {
    free_tavrix_acl(acl_);
    std::free(acl_);
  }
  tavrix_acl_t* acl_ = nullptr;
};

TEST_F(StoredAcl, IsThatOfTheConversionAtAnyAddress) {
  beacl_s* converted = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(SHM_MEMBE_OK, ACL_2_membuf(acl_, &converted, &size));
  EXPECT_EQ(8U + 2 * 12, size);
  EXPECT_EQ(size, stored_size_of(*acl_));
  for (std::size_t at = 0; at < 8; ++at) {
    std::vector<std::byte> place(at + size + 1, std::byte{0xAA});
    write_stored_acl(*acl_, place.data() + at);
    EXPECT_EQ(0, std::memcmp(converted, place.data() + at, size)) << at;
    EXPECT_EQ(std::byte{0xAA}, place[at + size]);
    EXPECT_TRUE(at == 0 || place[at - 1] == std::byte{0xAA}) << at;
  }
  std::free(converted);
}

TEST_F(StoredAcl, EndsTheProcessForWhatHasNone) {
  std::byte place[64];
  EXPECT_TRUE(in_child([&] {
                acl_->num_aces = 1;
                write_stored_acl(*acl_, place);
              }).aborted_with("index < acl->num_aces"));
  EXPECT_TRUE(in_child([&] {
                acl_->version = 1;
                write_stored_acl(*acl_, place);
              }).aborted_with("acl->version == TAVRIX_ACL_VERSION"));
  EXPECT_TRUE(in_child([&] {
                add_ace_to_acl(acl_, ACE_TYPE_ALL, 1);
                write_stored_acl(*acl_, place);
              }).aborted_with("0"));
}

}  // namespace
}  // namespace tavrix::test
