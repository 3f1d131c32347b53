// SPDX-License-Identifier: LGPL-3.0-or-later
// Assertions that are part of the contract: they are active in every build and print a fixed text.
#pragma once

// The C library's own reporter: "program: file:line: function: Assertion `text' failed.", then
// abort. assert.h declares it only while NDEBUG is unset, and no build may lose an assertion.
extern "C" void __assert_fail(const char* text, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((noreturn));

// Programs and operators recognise these aborts by the text, so it does not follow the code.
#define TAVRIX_REQUIRE(condition, text)              \
  (__builtin_expect(static_cast<bool>(condition), 1) \
       ? static_cast<void>(0)                        \
       : ::__assert_fail(text, __FILE__, __LINE__, __func__))
