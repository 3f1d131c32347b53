// SPDX-License-Identifier: LGPL-3.0-or-later
// Names that differ.

#include <gtest/gtest.h>
#include <cstring>
#include <string>

#include "eventstore.h"

namespace tavrix::test {
namespace {

TEST(RandomString, HasItsAlphabet) {
  char text[2000];
  EXPECT_EQ(text, rand_string(text, sizeof text));
  EXPECT_EQ(sizeof text - 1, std::strlen(text));
  EXPECT_EQ(std::string::npos,
            std::string(text).find_first_not_of(
                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+;"));
  EXPECT_NE(nullptr, std::strchr(text, ';'));
  char one = 'x';
  rand_string(&one, 1);
  EXPECT_EQ('\0', one);
  one = 'x';
  rand_string(&one, 0);
  EXPECT_EQ('x', one);
}

}  // namespace
}  // namespace tavrix::test
