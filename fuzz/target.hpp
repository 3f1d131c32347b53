// SPDX-License-Identifier: LGPL-3.0-or-later
// What a fuzz target is, and how an assertion of the library ends one input instead of the program.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace tavrix::fuzz {

extern std::jmp_buf assertion;
extern bool assertion_is_expected;

// Runs the body; an assertion of the library leaves it early. What the body owns leaks then, so
// keep what must be freed outside.
template <typename Body>
void until_assertion(Body body) {
  assertion_is_expected = true;
  if (setjmp(assertion) == 0) body();
  assertion_is_expected = false;
}

// The library's traces go nowhere.
void silence_output();

// The first two differing results of a property are printed, and the program ends.
void require(bool holds, const char* what);

}  // namespace tavrix::fuzz
