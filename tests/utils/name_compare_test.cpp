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

// Rows on which all comparisons agree.
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
  // The traced member sorts it first even when the other name ends there too.
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

// --- Samba's comparison -------------------------------------------------------------------------

class SambaComparison : public Isolated {};

TEST_F(SambaComparison, KnowsTheCaseOfExtendedLetters) {
  give_samba_library_its_name();
  EXPECT_EQ(0, strcasecmp_m_wrapper(kLowerE, kUpperE));
  EXPECT_NE(0, strcasecmp_m_wrapper(kLowerE, "caf\xc3\xaa"));
  EXPECT_NE(0, strcasecmp_m_wrapper(kLowerE, "caf\xc3\xa9s"));
  EXPECT_NE(0, strcasecmp_m_wrapper("\xc3\xa9\xc3\xa9", "\xc3\xa9"));
}

TEST_F(SambaComparison, OfTheBoundedFormLooksAtTheStartOnly) {
  give_samba_library_its_name();
  EXPECT_EQ(0, strncasecmp_m_wrapper("\xc3\xa9yz", "\xc3\x89yq", 2));
  EXPECT_NE(0, strncasecmp_m_wrapper("\xc3\xa9yz", "\xc3\x89yq", 3));
}

TEST_F(SambaComparison, LoadsTheLibraryOnceAndItsRoutineEachTime) {
  give_samba_library_its_name();
  reset_calls();
  init_samba_lib_handle();
  strcasecmp_m_wrapper("a", "a");
  strncasecmp_m_wrapper("a", "a", 1);
  EXPECT_EQ(1, calls("dlopen"));
  EXPECT_EQ(2, calls("dlsym"));
}

// Ends the child as the library would, with its log on standard error.
Outcome log_of(const std::function<void()>& body) {
  return in_child([&] {
    std::atexit([] {
      for (const std::string& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
    });
    body();
  });
}

TEST_F(SambaComparison, WithoutTheLibraryEndsTheProcess) {
  hide_samba_library();
  const Outcome outcome = in_child([] {
    std::atexit([] { std::fprintf(stderr, "<%s>", messages().at(0).c_str()); });
    strcasecmp_m_wrapper("a", "a");
  });
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_NE(std::string::npos, outcome.err.find("<Failed to open samba common lib: "))
      << outcome.err;
  EXPECT_NE(std::string::npos, outcome.err.find("libsamdb-common.so.0: cannot open"))
      << outcome.err;
}

TEST_F(SambaComparison, WithoutItsRoutineEndsTheProcess) {
  hide_samba_library();
  // Some library that has no such routine, under the name of the one that should have it.
  ASSERT_EQ(0, symlink("/lib/x86_64-linux-gnu/libyajl.so.2",
                       "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common.so.0"));
  const Outcome two = log_of([] { strcasecmp_m_wrapper("a", "a"); });
  EXPECT_EQ(1, two.exit_code);
  EXPECT_NE(std::string::npos, two.err.find("<Failed to find samba strcasecmp_m pointer : "))
      << two.err;
  const Outcome three = log_of([] { strncasecmp_m_wrapper("a", "a", 1); });
  EXPECT_EQ(1, three.exit_code);
  EXPECT_NE(std::string::npos, three.err.find("<Failed to find samba strncasecmp_m pointer : "))
      << three.err;
}

}  // namespace
}  // namespace tavrix::test
