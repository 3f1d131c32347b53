// SPDX-License-Identifier: LGPL-3.0-or-later
// The family of ASCII comparisons, place by place and member by member.

#include <gtest/gtest.h>
#include <cctype>
#include <functional>
#include <string>
#include <vector>

#include "tavrix_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kLowerE = "caf\xc3\xa9";
constexpr const char* kUpperE = "caf\xc3\x89";

struct Row {
  std::string a, b;
  int expected;
};

// The rows on which all members agree.
const Row kRows[] = {
    {"abc", "abc", 0},      {"abc", "ABC", 0},       {"aBc", "AbC", 0},
    {"abc", "abd", -1},     {"abd", "abc", 1},       {"abc", "ABD", -1},
    {"abcd", "abc", 1},     {"abc", "abcd", -1},     {"a_", "aB", 1},
    {"a[", "az", 1},        {kLowerE, kUpperE, 2},   {kLowerE, kLowerE, 2},
    {"caf\xc3", "cafe", 1}, {"cafe", "caf\xc3", -1}, {"\x80x", "\xffy", 2},
    {"x\x80", "y\x80", -1}, {"a\x7f", "a\x7f", 0},   {"a1\xc3\xa9", "a2\xc3\xa9", -1},
    {"\xc3", "", 1},        {"", "\xc3", -1},
};

TEST(NameComparison, WholeMemberAnswersEveryRow) {
  for (const Row& row : kRows) {
    EXPECT_EQ(row.expected, __tavrix_strcasecmp(row.a.c_str(), row.b.c_str()))
        << row.a << " " << row.b;
  }
}

TEST(NameComparison, BoundedMembersAnswerEveryRow) {
  for (const Row& row : kRows) {
    const auto n = std::max(row.a.size(), row.b.size()) + 1;
    EXPECT_EQ(row.expected, tavrix_strncasecmp(row.a.c_str(), row.b.c_str(), static_cast<int>(n)))
        << row.a << " " << row.b;
    const int traced = __tavrix_strncasecmp(row.a.c_str(), row.b.c_str(), n);
    EXPECT_EQ(row.expected == 0 ? -1 : row.expected, traced) << row.a << " " << row.b;
  }
}

TEST(NameComparison, MemberThatSkipsAByteAnswersTheRowsBehindAMark) {
  for (const Row& row : kRows) {
    EXPECT_EQ(row.expected, tavrix_strcasecmp(("X" + row.a).c_str(), ("Y" + row.b).c_str()))
        << row.a << " " << row.b;
  }
}

TEST(NameComparison, EveryPairOfBytesIsComparedByItsFoldedValue) {
  for (int x = 1; x < 256; ++x) {
    for (int y = 1; y < 256; ++y) {
      const char a[] = {static_cast<char>(x), 0};
      const char b[] = {static_cast<char>(y), 0};
      int expected = 0;
      if (x >= 128 || y >= 128) {
        expected = x < 128 ? -1 : (y >= 128 ? 2 : 1);
      } else if (std::toupper(x) != std::toupper(y)) {
        expected = std::toupper(x) > std::toupper(y) ? 1 : -1;
      }
      ASSERT_EQ(expected, __tavrix_strcasecmp(a, b)) << x << " " << y;
      ASSERT_EQ(expected, tavrix_strncasecmp(a, b, 1)) << x << " " << y;
      ASSERT_EQ(expected, __tavrix_strncasecmp(a, b, 1)) << x << " " << y;
    }
  }
}

TEST(BoundedComparison, StopsAfterTheBound) {
  EXPECT_EQ(0, tavrix_strncasecmp("abcX", "ABCY", 3));
  EXPECT_EQ(0, __tavrix_strncasecmp("abcX", "ABCY", 3));
  EXPECT_EQ(0, tavrix_strncasecmp("abc", "abc\xc3", 3));
}

TEST(BoundedComparison, ReadsNothingBehindTheBound) {
  const std::vector<char> a{'a', 'b'};
  const std::vector<char> b{'A', 'B'};
  EXPECT_EQ(0, tavrix_strncasecmp(a.data(), b.data(), 2));
  EXPECT_EQ(0, __tavrix_strncasecmp(a.data(), b.data(), 2));
}

TEST(BoundedComparison, OfNothingIsEqual) {
  EXPECT_EQ(0, tavrix_strncasecmp("a", "b", 0));
  EXPECT_EQ(0, tavrix_strncasecmp("a", "b", -5));
  EXPECT_EQ(0, __tavrix_strncasecmp("a", "b", 0));
}

TEST(BoundedComparison, DiffersWhereTheFirstNameEnds) {
  EXPECT_EQ(0, tavrix_strncasecmp("ab", "AB", 3));
  EXPECT_EQ(-1, tavrix_strncasecmp("ab", "abc", 3));
  // The traced member sorts it first even where the other name ends too.
  EXPECT_EQ(-1, __tavrix_strncasecmp("ab", "AB", 3));
  EXPECT_EQ(-1, __tavrix_strncasecmp("ab", "abc", 3));
  EXPECT_EQ(1, __tavrix_strncasecmp("abc", "ab", 3));
}

TEST(ComparisonThatSkipsAByte, IsKeptForItsCallers) {
  EXPECT_EQ(0, tavrix_strcasecmp("Xa", "Ya"));
  EXPECT_EQ(0, tavrix_strcasecmp("Xa", nullptr));
  EXPECT_EQ(0, tavrix_strcasecmp("X", "Y"));
  EXPECT_EQ(1, tavrix_strcasecmp("Xa", ""));
}

TEST(ComparisonTrace, OfTheBoundedMember) {
  const auto compare = [](const char* a, const char* b, size_t n) {
    return [=] { __tavrix_strncasecmp(a, b, n); };
  };
  EXPECT_EQ(4, level_of("end of input length, match, char #3", compare("abc", "ABC", 3)));
  EXPECT_EQ(4, level_of("Extended character detected", compare(kLowerE, kUpperE, 5)));
  EXPECT_EQ(4, level_of("+ Mismatched p1 b p2 A", compare("b", "A", 1)));
  EXPECT_EQ(4, level_of("- Mismatched p1 a p2 B", compare("a", "B", 1)));
}

TEST(ComparisonTrace, OfTheWholeMemberIsMisspelled) {
  const auto compare = [](const char* a, const char* b) {
    return [=] { __tavrix_strcasecmp(a, b); };
  };
  EXPECT_EQ(4, level_of("Matched", compare("abc", "ABC")));
  EXPECT_EQ(4, level_of("Extended character detected", compare(kLowerE, kUpperE)));
  EXPECT_EQ(4, level_of("+ Misatched p1 b p2 A", compare("b", "A")));
  EXPECT_EQ(4, level_of("- Misatched p1 a p2 B", compare("a", "B")));
}

TEST(ComparisonTrace, OfTheOthersIsSilent) {
  set_debug_level(12);
  clear_log();
  tavrix_strncasecmp("a", "b", 1);
  tavrix_strcasecmp("Xa", "Xb");
  EXPECT_TRUE(messages().empty());
}

}  // namespace
}  // namespace tavrix::test
