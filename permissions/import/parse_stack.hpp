// SPDX-License-Identifier: LGPL-3.0-or-later
// The stack on which both passes of an import keep their place in a document.
#pragma once

#include <cstddef>
#include <cstdint>
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

// Each folder needs dozens of elements for a moment, so those of the data pass come from an array.
// It serves one stack, and its elements go back in reverse order. When the array is full, elements
// are heap blocks, as are those that create_stackelem() makes.
constexpr std::size_t kArrayElements = 1024;  // a document of about 250 levels
struct ElementArray {
  jsonstack elements[kArrayElements];
  std::size_t used;

  [[nodiscard]] bool holds(const jsonstack* elem) const noexcept {
    return reinterpret_cast<std::uintptr_t>(elem) - reinterpret_cast<std::uintptr_t>(elements) <
           sizeof elements;
  }
};
extern ElementArray element_array;

// An element with unset fields; null when out of memory.
[[nodiscard]] inline jsonstack* new_element() noexcept {
  if (__builtin_expect(element_array.used < kArrayElements, 1)) {
    return &element_array.elements[element_array.used++];
  }
  return static_cast<jsonstack*>(std::malloc(sizeof(jsonstack)));
}

inline void give_back(jsonstack* elem) noexcept {
  if (__builtin_expect(element_array.holds(elem), 1)) {
    element_array.used = static_cast<std::size_t>(elem - element_array.elements);
  } else {
    std::free(elem);
  }
}

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

// The caller owns the element; null for an empty stack. Its links keep their values.
[[nodiscard]] inline jsonstack* pop(tavrix_stack_head_s& stack) noexcept {
  jsonstack* top = top_of(stack);
  if (top == nullptr) return nullptr;
  oneway_list_elem_s* below = top->list.next_elem;
  stack.sthead.first_elem = below;
  if (below != nullptr) below->ptr2prev = &stack.sthead.first_elem;
  stack.totalelems -= 1;
  return top;
}

// Frees the elements that a cancelled parse left, and the ACL under construction.
void empty_stack(tavrix_stack_head_s& stack) noexcept;

}  // namespace tavrix
