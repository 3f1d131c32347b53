// SPDX-License-Identifier: LGPL-3.0-or-later
// The entries of an ACL in memory, and the list that links them.

#include "permissions/map/ace_list.hpp"

#include <gtest/gtest.h>
#include <cstdlib>
#include <vector>

#include "perm_utils.h"
#include "tavrix_lists.h"

namespace tavrix::test {
namespace {

TEST(AceList, HoldsEachEntryOnceTheNewestFirst) {
  tavrix_acl_t* acl = nullptr;
  ASSERT_EQ(SHM_MEMBE_OK, create_empty_acl(&acl));
  for (const uint32_t id : {1U, 2U, 3U}) add_ace_to_acl(acl, ACE_TYPE_USER, id);
  int entries = 0;
  const tavrix_ace_s* first = nullptr;
  for (const tavrix_ace_s& ace : aces_of(*acl)) {
    if (entries++ == 0) first = &ace;
  }
  EXPECT_EQ(3, entries);
  EXPECT_EQ(reinterpret_cast<const tavrix_ace_s*>(acl->ace_list_head.first_elem), first);
  free_ACL(acl);
  EXPECT_FALSE(aces_of(*acl).begin() != aces_of(*acl).end());
  std::free(acl);
}

TEST(OnewayList, IsLinkedAtItsHead) {
  oneway_list_head_s head{};
  oneway_list_elem_s one{}, two{};
  EXPECT_EQ(TXLIST_ERR_OK, oneway_list_insert_head(&head, &one));
  EXPECT_EQ(TXLIST_ERR_OK, oneway_list_insert_head(&head, &two));
  EXPECT_EQ(&two, head.first_elem);
  EXPECT_EQ(&one, two.next_elem);
  EXPECT_EQ(&two.next_elem, one.ptr2prev);
  EXPECT_EQ(TXLIST_ERR_OK, oneway_list_remove(&two));
  EXPECT_EQ(&head.first_elem, one.ptr2prev);
}

TEST(OnewayList, RefusesWhatItCannotDo) {
  oneway_list_head_s head{};
  oneway_list_elem_s one{};
  oneway_list_elem_s* out = nullptr;
  EXPECT_EQ(TXLIST_ERR_NULL_HEAD, oneway_list_insert_head(nullptr, &one));
  EXPECT_EQ(TXLIST_ERR_NULLELEM, oneway_list_insert_head(&head, nullptr));
  EXPECT_EQ(TXLIST_ERR_NULLELEM, oneway_list_remove(nullptr));
  EXPECT_EQ(TXLIST_ERR_UNITIALIZED_ELEM, oneway_list_remove(&one));
  EXPECT_EQ(TXLIST_ERR_LIST_EMPTY, oneway_list_pop_head(&head, &out));
  EXPECT_EQ(TXLIST_ERR_NULL_HEAD, oneway_list_pop_head(nullptr, &out));
}

}  // namespace
}  // namespace tavrix::test
