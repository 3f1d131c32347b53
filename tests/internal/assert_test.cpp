// SPDX-License-Identifier: LGPL-3.0-or-later
// Assertions that are part of the contract.

#define NDEBUG  // no build may lose them
#include "internal/assert.hpp"

#include <gtest/gtest.h>
#include <string>

#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

void require(bool good) { TAVRIX_REQUIRE(good, "the text that operators know"); }

TEST(Require, EndsTheProcessWithItsTextAndPlace) {
  const Outcome outcome = in_child([] { require(false); });
  EXPECT_TRUE(outcome.aborted_with("the text that operators know")) << outcome.err;
  EXPECT_NE(std::string::npos, outcome.err.find("tests/internal/assert_test.cpp:")) << outcome.err;
  EXPECT_NE(std::string::npos, outcome.err.find("require")) << outcome.err;
}

TEST(Require, LooksOnceAtItsCondition) {
  int looks = 0;
  TAVRIX_REQUIRE(++looks > 0, "a look");
  EXPECT_EQ(1, looks);
}

}  // namespace
}  // namespace tavrix::test
