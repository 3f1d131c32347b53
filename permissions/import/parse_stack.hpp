// SPDX-License-Identifier: LGPL-3.0-or-later
// The explicit stack on which the two passes of an import keep their place in a document.
#pragma once

#include <cstdlib>
#include <memory>

#include "mkperms_shm.h"
#include "tavrix_stack.h"

namespace tavrix {

// The summary of the running data pass: the JSON parser's callbacks reach it only through here.
extern memsummary_s* memsummary;

[[nodiscard]] inline jsonstack* top_of(const tavrix_stack_head_s& stack) noexcept {
  return reinterpret_cast<jsonstack*>(stack.sthead.first_elem);
}

// Elements come and go by the dozen for every folder, so the last ones given back are kept for the
// next to come. Each is a block of its own: free() takes one too.
constexpr unsigned kMostKept = 32;  // more than an open ACL has states
struct KeptElements {
  jsonstack* blocks[kMostKept];
  unsigned count;
};
extern KeptElements kept_elements;

// Fields are the caller's to fill; null when out of memory.
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

// The element becomes the stack's.
[[nodiscard]] inline e_txlist_err push(tavrix_stack_head_s& stack, jsonstack* elem) noexcept {
  const e_txlist_err err = oneway_list_insert_head(&stack.sthead, &elem->list);
  if (err == TXLIST_ERR_OK) stack.totalelems += 1;
  return err;
}

// The element becomes the caller's; null from an empty stack.
[[nodiscard]] inline jsonstack* pop(tavrix_stack_head_s& stack) noexcept {
  oneway_list_elem_s* elem = nullptr;
  if (oneway_list_pop_head(&stack.sthead, &elem) != TXLIST_ERR_OK) return nullptr;
  stack.totalelems -= 1;
  return reinterpret_cast<jsonstack*>(elem);
}

// Frees what a cancelled parse left, the ACL under construction included.
void empty_stack(tavrix_stack_head_s& stack) noexcept;

}  // namespace tavrix
