// SPDX-License-Identifier: LGPL-3.0-or-later
// The stack on which both passes of an import keep their place in a document.
#pragma once

#include <cstdlib>
#include <memory>

#include "mkperms_shm.h"
#include "tavrix_stack.h"

namespace tavrix {

// The summary of the running data pass. The JSON parser's callbacks have no other way to it.
extern memsummary_s* memsummary;

[[nodiscard]] inline jsonstack* top_of(const tavrix_stack_head_s& stack) noexcept {
  return reinterpret_cast<jsonstack*>(stack.sthead.first_elem);
}

// Each folder needs dozens of elements for a moment, so the last ones that were given back are kept
// for the next folder. Each element is a block of its own and may also be freed.
constexpr unsigned kMostKept = 32;  // more than the states of an open ACL
struct KeptElements {
  jsonstack* blocks[kMostKept];
  unsigned count;
};
extern KeptElements kept_elements;

// An element with unset fields; null when out of memory.
[[nodiscard]] inline jsonstack* new_element() noexcept {
  if (__builtin_expect(kept_elements.count > 0, 1)) {
    return kept_elements.blocks[--kept_elements.count];
  }
  return static_cast<jsonstack*>(std::malloc(sizeof(jsonstack)));
}

inline void give_back(jsonstack* elem) noexcept {
  if (__builtin_expect(elem != nullptr && kept_elements.count < kMostKept, 1)) {
    kept_elements.blocks[kept_elements.count++] = elem;
  } else {
    std::free(elem);
  }
}

void free_kept_elements() noexcept;

struct GiveBack {
  void operator()(jsonstack* elem) const noexcept { give_back(elem); }
};
using Element = std::unique_ptr<jsonstack, GiveBack>;

// On success the stack owns the element.
[[nodiscard]] inline e_txlist_err push(tavrix_stack_head_s& stack, jsonstack* elem) noexcept {
  const e_txlist_err err = oneway_list_insert_head(&stack.sthead, &elem->list);
  if (err == TXLIST_ERR_OK) stack.totalelems += 1;
  return err;
}

// The caller owns the element; null for an empty stack.
[[nodiscard]] inline jsonstack* pop(tavrix_stack_head_s& stack) noexcept {
  oneway_list_elem_s* elem = nullptr;
  if (oneway_list_pop_head(&stack.sthead, &elem) != TXLIST_ERR_OK) return nullptr;
  stack.totalelems -= 1;
  return reinterpret_cast<jsonstack*>(elem);
}

// Frees the elements that a cancelled parse left, and the ACL under construction.
void empty_stack(tavrix_stack_head_s& stack) noexcept;

}  // namespace tavrix
