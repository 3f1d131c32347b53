// SPDX-License-Identifier: LGPL-3.0-or-later
// The parse stack as other programs may use it.

#include "permissions/import/parse_stack.hpp"

#include <gtest/gtest.h>
#include <cerrno>
#include <cstdlib>

#include "read_perms.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class ParseStack : public testing::Test {
 protected:
  ParseStack() { memsummary = &summary_; }
  ~ParseStack() override { empty_stack(summary_.sth); }
  memsummary_s summary_{};
};

TEST_F(ParseStack, MakesEmptyElements) {
  jsonstack* elem = nullptr;
  EXPECT_EQ(0, create_stackelem(5, &elem));
  EXPECT_EQ(5, elem->state);
  EXPECT_EQ(STELEM_TYPE_INVALID, elem->stetype);
  EXPECT_EQ(0U, elem->jsonoffset);
  EXPECT_EQ(nullptr, elem->data);
  EXPECT_TRUE(in_child([&] { create_stackelem(5, &elem); }).aborted_with("*stelem == NULL"));
  std::free(elem);
}

TEST_F(ParseStack, TakesElementsFromTheArrayAndThenFromTheHeap) {
  const long blocks = live_allocations();
  for (std::size_t i = 0; i < kArrayElements + 2; ++i) {
    jsonstack* elem = new_element();
    ASSERT_NE(nullptr, elem);
    EXPECT_EQ(i < kArrayElements, element_array.holds(elem));
    elem->state = static_cast<int>(i);
    elem->stetype = STELEM_TYPE_FSELEM;
    ASSERT_EQ(TXLIST_ERR_OK, push(summary_.sth, elem));
  }
  EXPECT_EQ(blocks + 2, live_allocations());
  EXPECT_EQ(kArrayElements + 2, summary_.sth.totalelems);
  for (std::size_t i = kArrayElements + 2; i-- > 0;) {
    EXPECT_EQ(static_cast<int>(i), get_cur_state(&summary_.sth));
    ASSERT_EQ(SHM_MEMBE_OK, pop_if_state(static_cast<int>(i)));
  }
  EXPECT_EQ(0U, element_array.used);
  EXPECT_EQ(blocks, live_allocations());
}

// Elements of other programs may lie between those of the data pass.
TEST_F(ParseStack, TakesBackElementsOfBothKinds) {
  jsonstack* elem = new_element();
  *elem = {};
  ASSERT_EQ(TXLIST_ERR_OK, push(summary_.sth, elem));
  push_stackelem_wstatedata(&summary_, 1, 0, nullptr, STELEM_TYPE_INVALID);
  elem = new_element();
  *elem = {};
  ASSERT_EQ(TXLIST_ERR_OK, push(summary_.sth, elem));
  EXPECT_EQ(2U, element_array.used);
  const long blocks = live_allocations();
  empty_stack(summary_.sth);
  EXPECT_EQ(0U, element_array.used);
  EXPECT_EQ(blocks - 1, live_allocations());
  EXPECT_EQ(nullptr, summary_.sth.sthead.first_elem);
}

TEST_F(ParseStack, HasNoElementWithoutMemoryBehindTheArray) {
  element_array.used = kArrayElements;
  fail_call("malloc", ENOMEM);
  EXPECT_EQ(nullptr, new_element());
  element_array.used = 0;
}

TEST_F(ParseStack, TellsMissingMemory) {
  fail_call("malloc", ENOMEM, 1, 100);
  EXPECT_EQ(0, level_of("No memory Cannot allocate memory", [] {
              jsonstack* elem = nullptr;
              EXPECT_EQ(1, create_stackelem(5, &elem));
            }));
  EXPECT_TRUE(in_child([this] {
                push_stackelem_wstatedata(&summary_, 1, 0, nullptr, STELEM_TYPE_INVALID);
              }).aborted_with("err == 0"));
}

TEST_F(ParseStack, GivesItsTopAndKeepsIt) {
  int mark = 0;
  EXPECT_EQ(SHM_MEMBE_OK, push_stackelem_wstatedata(&summary_, 1, 24, &mark, STELEM_TYPE_FSELEM));
  EXPECT_EQ(SHM_MEMBE_OK, push_stackelem_wstatedata(&summary_, 2, 48, &mark, STELEM_TYPE_LISTELEM));
  EXPECT_EQ(2, get_cur_state(&summary_.sth));
  uint32_t offset = 0;
  void* data = nullptr;
  stelem_type type = STELEM_TYPE_FSELEM;
  EXPECT_EQ(2, get_cur_statewdata(&summary_.sth, &offset, &data, &type));
  EXPECT_EQ(48U, offset);
  EXPECT_EQ(&mark, data);
  EXPECT_EQ(STELEM_TYPE_LISTELEM, type);
  EXPECT_EQ(2U, summary_.sth.totalelems);
}

TEST_F(ParseStack, PopsOnlyTheAskedState) {
  push_stackelem_wstatedata(&summary_, 1, 0, nullptr, STELEM_TYPE_INVALID);
  EXPECT_EQ(8, level_of("state mismatch asked 2 given 1",
                        [] { EXPECT_EQ(SHM_MEMBE_ERR_STATE_MISMATCH, pop_if_state(2)); }));
  EXPECT_EQ(1U, summary_.sth.totalelems);
  EXPECT_EQ(SHM_MEMBE_OK, pop_if_state(1));
  EXPECT_EQ(0U, summary_.sth.totalelems);
  clear_log();
  EXPECT_EQ(SHM_MEMBE_ERR_LISTERR, pop_if_state(1));
  ASSERT_EQ(1U, messages().size());
  EXPECT_TRUE(messages()[0].starts_with("pop_if_state(")) << messages()[0];
  EXPECT_TRUE(messages()[0].ends_with("): Cannot pop elem Err 1")) << messages()[0];
}

TEST_F(ParseStack, AbortsOnMisuse) {
  uint32_t offset = 0;
  void* data = nullptr;
  stelem_type type = STELEM_TYPE_FSELEM;
  EXPECT_TRUE(in_child([&] { get_cur_state(&summary_.sth); }).aborted_with("stelem != NULL"));
  EXPECT_TRUE(in_child([&] {
                get_cur_statewdata(&summary_.sth, &offset, &data, &type);
              }).aborted_with("stelem != NULL"));
  EXPECT_TRUE(in_child([&] {
                offset = 1;
                get_cur_statewdata(&summary_.sth, &offset, &data, &type);
              }).aborted_with("*offset == 0"));
  EXPECT_TRUE(in_child([&] {
                data = &offset;
                get_cur_statewdata(&summary_.sth, &offset, &data, &type);
              }).aborted_with("*data == NULL"));
  EXPECT_TRUE(in_child([&] {
                type = STELEM_TYPE_INVALID;
                get_cur_statewdata(&summary_.sth, &offset, &data, &type);
              }).aborted_with("*type == 0"));
  EXPECT_TRUE(in_child([] {
                push_stackelem_wstatedata(nullptr, 1, 0, nullptr, STELEM_TYPE_INVALID);
              }).aborted_with("memsummary != NULL"));
}

}  // namespace
}  // namespace tavrix::test
