// SPDX-License-Identifier: LGPL-3.0-or-later
// The file of the names that may always be deleted.

#include <gtest/gtest.h>
#include <cerrno>
#include <cstring>
#include <string>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

class PatternFile : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    set_debug_level(0);
    name_file("/scratch/patterns");
  }
  static void name_file(const std::string& path) {
    std::strcpy(global_params[PARAM_REGEX_FILE_NAME].value.strval, path.c_str());
  }
  static void load(const std::string& text) {
    write_file("/scratch/patterns", text);
    read_and_compile_patterns();
  }
};

TEST_F(PatternFile, HoldsAPatternALine) {
  load("^a\\.tmp$\n\\.bak$\n");
  EXPECT_EQ(2, g_tavrix_pattern_buf.num_elems);
  EXPECT_STREQ("^a\\.tmp$", g_tavrix_pattern_buf.elems[0].pattern);
  EXPECT_EQ(1, is_deletable_file("A.TMP"));
  EXPECT_EQ(1, is_deletable_file("x.bak"));
  EXPECT_EQ(0, is_deletable_file("x.txt"));
}

TEST_F(PatternFile, TellsWhatItDoes) {
  write_file("/scratch/patterns", "one\n");
  EXPECT_EQ(2, level_of("read pattern one\n", [] { read_and_compile_patterns(); }));
  EXPECT_EQ(10, level_of("Checking for deletable file\n", [] { is_deletable_file("x"); }));
  EXPECT_TRUE(level_of("Found deletable file one\n", [] { is_deletable_file("one"); }) <= 10);
}

TEST_F(PatternFile, LosesTheLastByteOfALineWithoutAnEnd) {
  load("abc\nxyz");
  EXPECT_STREQ("xy", g_tavrix_pattern_buf.elems[1].pattern);
}

TEST_F(PatternFile, SkipsWhatDoesNotCompile) {
  load("a\n(\nb\n");
  EXPECT_EQ(2, g_tavrix_pattern_buf.num_elems);
  EXPECT_STREQ("b", g_tavrix_pattern_buf.elems[1].pattern);
}

// An operator's mistake that lets everything be deleted; tools warn of it.
TEST_F(PatternFile, WithAnEmptyLineMatchesEverything) {
  load("a\n\n");
  EXPECT_EQ(1, is_deletable_file("precious"));
}

TEST_F(PatternFile, CountsLinesBeyondItsRoomAndUsesNoneOfThem) {
  std::string text;
  for (int i = 0; i < 300; ++i) text += "^p" + std::to_string(i) + "$\n";
  load(text);
  EXPECT_EQ(300, g_tavrix_pattern_buf.num_elems);
  EXPECT_EQ(1, is_deletable_file("p255"));
  EXPECT_EQ(0, is_deletable_file("p256"));
}

TEST_F(PatternFile, TakesLongLines) {
  const std::string name(5000, 'x');
  load("^" + name + "$\n");
  EXPECT_EQ(1, is_deletable_file(name.c_str()));
}

TEST_F(PatternFile, IsReadAnew) {
  load("a\nb\nc\n");
  load("d\n");
  EXPECT_EQ(1, g_tavrix_pattern_buf.num_elems);
  EXPECT_EQ(0, is_deletable_file("a"));
}

TEST_F(PatternFile, ThatIsMissingIsTold) {
  EXPECT_EQ(0, level_of("regular expression file does not exist\n",
                        [] { EXPECT_EQ(-1, read_and_compile_patterns()); }));
  name_file("");
  EXPECT_EQ(
      0, level_of("no regex file specified\n", [] { EXPECT_EQ(-1, read_and_compile_patterns()); }));
  name_file("/scratch/patterns");
  write_file("/scratch/patterns", "a\n");
  fail_call("fopen", EACCES);
  EXPECT_EQ(-1, read_and_compile_patterns());
  EXPECT_TRUE(logged("cannot open regular expression file\n"));
}

}  // namespace
}  // namespace tavrix::test
