// SPDX-License-Identifier: LGPL-3.0-or-later
// Assertions that are part of the contract: active in every build, with a condition text of ours.
#pragma once

// The C library's own reporter: "program: file:line: function: Assertion `text' failed.", then
// abort. assert.h declares it only while NDEBUG is unset, and no build may lose an assertion.
extern "C" void __assert_fail(const char* text, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((noreturn));

// Other programs and operators know these aborts by their text, so it is given apart from the code.
#define TAVRIX_REQUIRE(condition, text)              \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : ::__assert_fail(text, __FILE__, __LINE__, __func__))
