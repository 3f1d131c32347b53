// SPDX-License-Identifier: LGPL-3.0-or-later
// Names of dump files, and the write of their bytes.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

TEST(DumpName, ReplacesAMissingFolder) {
  const CString name([] {
    char* made = nullptr;
    EXPECT_EQ(0, level_of("prefix is NULL", [&] {
                std::free(made);
                made = get_dumpfname(nullptr);
              }));
    return made;
  }());
  EXPECT_TRUE(std::string(name.get()).starts_with("unk/pending_"));
}

TEST(DumpName, IsCutAtItsRoom) {
  const CString name(get_dumpfname(std::string(300, 'd').c_str()));
  EXPECT_EQ(std::string(255, 'd'), name.get());
}

TEST(DumpName, WithoutMemoryIsNone) {
  const auto attempt = [] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(nullptr, get_dumpfname("/x"));
  };
  EXPECT_EQ(
      0, level_of("failed to calloc for dumpfname, errno = 12 (Cannot allocate memory)", attempt));
}

TEST(WriteAll, WritesNothingAndEverything) {
  EXPECT_EQ(0, write_all(-1, "x", 0));
  const auto attempt = [] { EXPECT_EQ(-1, write_all(-1, "xyz", 3)); };
  EXPECT_EQ(
      0,
      level_of("Failed to write to fd. nwritten=-1, nleft=3, size=3, errno=9(Bad file descriptor)",
               attempt));
}

}  // namespace
}  // namespace tavrix::test
