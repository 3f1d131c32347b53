// SPDX-License-Identifier: LGPL-3.0-or-later
#include "permissions/import/parse_stack.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_utils.h"
#include "read_perms.h"

namespace tavrix {

memsummary_s* memsummary = nullptr;

ElementArray element_array{};

void empty_stack(tavrix_stack_head_s& stack) noexcept {
  while (jsonstack* elem = pop(stack)) {
    // Only this element owns the ACL; those above it hold copies of the pointer.
    if (elem->state == PERMDATA_STATE_STUSERMAP && elem->stetype == STELEM_TYPE_ACLELEM) {
      auto* acl = static_cast<tavrix_acl_t*>(elem->data);
      free_tavrix_acl(acl);
      std::free(acl);
    }
    give_back(elem);
  }
}

}  // namespace tavrix

int create_stackelem(int state, jsonstack** stelem) {
  TAVRIX_REQUIRE(stelem != nullptr && *stelem == nullptr, "*stelem == NULL");
  // The caller may free it.
  auto* elem = tavrix::malloc_zeroed<jsonstack>();
  if (elem == nullptr) {
    TAVRIX_LOG(0, "No memory %s", strerror(errno));
    return 1;
  }
  elem->state = state;
  elem->stetype = STELEM_TYPE_INVALID;
  *stelem = elem;
  return 0;
}

membe_shm_err push_stackelem_wstatedata(memsummary_s* msum, int state, uint32_t offset, void* data,
                                        stelem_type type) {
  TAVRIX_REQUIRE(msum != nullptr, "memsummary != NULL");
  jsonstack* elem = nullptr;
  const int err = create_stackelem(state, &elem);
  TAVRIX_REQUIRE(err == 0, "err == 0");
  elem->jsonoffset = offset;
  elem->data = data;
  elem->stetype = type;
  if (tavrix::push(msum->sth, elem) != TXLIST_ERR_OK) {
    TAVRIX_LOG(0, "List error ");
    tavrix::give_back(elem);
    return SHM_MEMBE_ERR_LISTERR;
  }
  return SHM_MEMBE_OK;
}

int get_cur_state(tavrix_stack_head_s* stack) {
  const jsonstack* top = tavrix::top_of(*stack);
  TAVRIX_REQUIRE(top != nullptr, "stelem != NULL");
  return top->state;
}

int get_cur_statewdata(tavrix_stack_head_s* stack, uint32_t* offset, void** data,
                       stelem_type* type) {
  TAVRIX_REQUIRE(*offset == 0, "*offset == 0");
  TAVRIX_REQUIRE(*data == nullptr, "*data == NULL");
  TAVRIX_REQUIRE(*type == 0, "*type == 0");
  jsonstack* top = tavrix::pop(*stack);
  TAVRIX_REQUIRE(top != nullptr, "stelem != NULL");
  const int state = top->state;
  *offset = top->jsonoffset;
  *data = top->data;
  *type = top->stetype;
  if (tavrix::push(*stack, top) != TXLIST_ERR_OK) {
    TAVRIX_LOG(0, "Could not push element to stack curstate %d", state);
    tavrix::give_back(top);
    return PERMDATA_STATE_INVAL;
  }
  return state;
}

membe_shm_err pop_if_state(int state) {
  TAVRIX_REQUIRE(tavrix::memsummary != nullptr, "memsummary != NULL");
  tavrix_stack_head_s& stack = tavrix::memsummary->sth;
  const jsonstack* top = tavrix::top_of(stack);
  if (top == nullptr) {
    TAVRIX_LOG(0, "%s(%d): Cannot pop elem Err %d", __func__, __LINE__,
               static_cast<int>(TXLIST_ERR_LIST_EMPTY));
    return SHM_MEMBE_ERR_LISTERR;
  }
  if (top->state != state) {
    TAVRIX_LOG(8, "state mismatch asked %d given %d", state, top->state);
    return SHM_MEMBE_ERR_STATE_MISMATCH;
  }
  tavrix::give_back(tavrix::pop(stack));
  return SHM_MEMBE_OK;
}
