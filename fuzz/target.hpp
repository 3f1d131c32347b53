// SPDX-License-Identifier: LGPL-3.0-or-later
// The parts that fuzz targets share. An assertion of the library ends one input, not the program.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace tavrix::fuzz {

extern std::jmp_buf assertion;
extern bool assertion_is_expected;

// Runs the body; an assertion of the library leaves it early and without destructors. Own whatever
// must be freed outside the body.
template <typename Body>
void until_assertion(Body body) {
  assertion_is_expected = true;
  if (setjmp(assertion) == 0) body();
  assertion_is_expected = false;
}

// Sends standard output to /dev/null: the library prints traces there.
void silence_output();

// A property of the code under test. When it does not hold, its name is printed and the program
// aborts; the fuzzer keeps the input.
void require(bool holds, const char* what);

}  // namespace tavrix::fuzz
