// SPDX-License-Identifier: LGPL-3.0-or-later
// The line for each name that the loader prints.

#include "permissions/map/name_traces.hpp"

#include <gtest/gtest.h>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "tests/support/fail_call.hpp"

namespace tavrix::test {
namespace {

std::string printed(const std::function<void()>& print) {
  testing::internal::CaptureStdout();
  print();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST(NameTraces, AreTheLinesThatScriptsRead) {
  EXPECT_EQ("--------> Name docs hahsval 4294967295 \n",
            printed([] { print_name_trace("docs", 4, UINT32_MAX); }));
  EXPECT_EQ("--------> Name do hahsval 0 \n", printed([] { print_name_trace("docs", 2, 0); }));
  EXPECT_EQ("--------> Name do hahsval 0 \n", printed([] { print_name_trace("do\0cs", 5, 0); }));
}

TEST(NameTraces, AreTheSameCollected) {
  std::string wanted;
  const auto print_all = [] {
    for (uint32_t i = 0; i < 5000; ++i) print_name_trace("name", 4, i);
  };
  for (uint32_t i = 0; i < 5000; ++i) {
    wanted += "--------> Name name hahsval " + std::to_string(i) + " \n";
  }
  EXPECT_EQ(wanted, printed(print_all));
  EXPECT_EQ(wanted, printed([&] {
              const NameTraces collected;
              print_all();
            }));
}

// A line that does not fit the buffer is printed after the lines that wait in it.
TEST(NameTraces, KeepTheirOrderAroundALongName) {
  const std::string longest(70'000, 'x');
  EXPECT_EQ("--------> Name a hahsval 1 \n--------> Name " + longest +
                " hahsval 2 \n--------> Name b hahsval 3 \n",
            printed([&] {
              const NameTraces collected;
              print_name_trace("a", 1, 1);
              print_name_trace(longest.c_str(), 70'000, 2);
              print_name_trace("b", 1, 3);
            }));
}

}  // namespace
}  // namespace tavrix::test
