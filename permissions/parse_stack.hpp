// The explicit stack on which the two passes of an import keep their place in a document.
#pragma once

#include "mkperms_shm.h"
#include "tavrix_stack.h"

namespace tavrix {

// The summary of the running data pass: the JSON parser's callbacks reach it only through here.
extern memsummary_s* memsummary;

[[nodiscard]] inline jsonstack* top_of(const tavrix_stack_head_s& stack) noexcept {
  return reinterpret_cast<jsonstack*>(stack.sthead.first_elem);
}

// The element becomes the stack's.
[[nodiscard]] e_txlist_err push(tavrix_stack_head_s& stack, jsonstack* elem) noexcept;

// The element becomes the caller's; null from an empty stack.
[[nodiscard]] jsonstack* pop(tavrix_stack_head_s& stack) noexcept;

// Frees what a cancelled parse left, the ACL under construction included.
void empty_stack(tavrix_stack_head_s& stack) noexcept;

}  // namespace tavrix
