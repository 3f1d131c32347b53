// SPDX-License-Identifier: LGPL-3.0-or-later
// Counts in sentences.

#include "tools/text/counted.hpp"

#include <gtest/gtest.h>

namespace tavrix::test {
namespace {

using text::counted;

TEST(Counted, HasTheSingularForOneOnly) {
  EXPECT_EQ("0 folders", counted(0, "folder"));
  EXPECT_EQ("1 folder", counted(1, "folder"));
  EXPECT_EQ("2 folders", counted(2, "folder"));
  EXPECT_EQ("18446744073709551615 bytes", counted(UINT64_MAX, "byte"));
}

TEST(Counted, KnowsTheEndingsOfWords) {
  EXPECT_EQ("1 entry", counted(1, "entry"));
  EXPECT_EQ("2 entries", counted(2, "entry"));
  EXPECT_EQ("2 days", counted(2, "day"));
  EXPECT_EQ("2 server processes", counted(2, "server process"));
  EXPECT_EQ("2 children", counted(2, "child"));
  EXPECT_EQ("1 child", counted(1, "child"));
}

TEST(Counted, FindsTheFormOfAVerb) {
  EXPECT_STREQ("waits", text::verb(1, "waits", "wait"));
  EXPECT_STREQ("wait", text::verb(0, "waits", "wait"));
  EXPECT_STREQ("wait", text::verb(7U, "waits", "wait"));
}

}  // namespace
}  // namespace tavrix::test
