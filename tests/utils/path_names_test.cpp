// SPDX-License-Identifier: LGPL-3.0-or-later
// Lexical path names.

#include <gtest/gtest.h>
#include <cerrno>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kNone = "(null)";

std::string normalized(const std::string& path) {
  errno = 0;
  const CString result(normalize_path(path.c_str()));
  return result == nullptr ? kNone : result.get();
}

std::string parent_of(const std::string& path) {
  const CString result(parent_dir_from_path(path.c_str()));
  return result == nullptr ? kNone : result.get();
}

std::string taken(char* text) {
  const CString owner(text);
  return text == nullptr ? kNone : text;
}

struct Row {
  const char* path;
  const char* expected;
};

TEST(NormalizePath, AnswersEveryRow) {
  const Row rows[] = {
      {"/a//b/./c/", "/a/b/c"},
      {"/a/b/../c", "/a/c"},
      {"/..", "/"},
      {"a/..", ""},
      {"./a", "a"},
      {".", "."},
      {"", ""},
      {"/", "/"},
      {"//", "/"},
      {"///a", "/a"},
      {"a", "a"},
      {"a/", "a"},
      {"a//b", "a/b"},
      {"/.", "/"},
      {"/./", "/"},
      {"/../..", "/"},
      {"/a/../..", "/"},
      {"/a/../../b", "/b"},
      {"./.", "."},
      {"./", "."},
      {"././a", "a"},
      {"a/.", "a"},
      {"a/./b", "a/b"},
      {"...", "..."},
      {".x", ".x"},
      {"..x", "..x"},
      {"/a/..x/..", "/a"},
      {"a/../b", "b"},
      {"a/../.", "."},
      {"./a/..", "."},
      {"a/b/..", "a"},
      {"a/../b/../c", "c"},
      {"/a/...", "/a/..."},
      {"./a/../b", "b"},
      {" / ", " / "},
      {"a/b/../../c", "c"},
  };
  for (const Row& row : rows) EXPECT_EQ(row.expected, normalized(row.path)) << row.path;
}

TEST(NormalizePath, FailsWhenARelativePathClimbsAboveItsStart) {
  for (const char* path :
       {"..", "../x", "./..", "a/../..", "a/../../b", "./a/../..", "../..", "..//", "././.."}) {
    EXPECT_EQ(kNone, normalized(path)) << path;
    EXPECT_EQ(ENOENT, errno) << path;
  }
}

TEST(NormalizePath, OfNullIsNull) { EXPECT_EQ(nullptr, normalize_path(nullptr)); }

TEST(NormalizePath, WithoutMemoryFails) {
  fail_call("malloc", ENOMEM);
  errno = 0;
  EXPECT_EQ(nullptr, normalize_path("/a"));
  EXPECT_EQ(ENOMEM, errno);
}

TEST(NormalizePath, AllocatesNothingButItsResult) {
  const long before = allocations();
  const long live = live_allocations();
  std::free(normalize_path("/a/./b/../c"));
  EXPECT_EQ(1, allocations() - before);
  EXPECT_EQ(nullptr, normalize_path("../x"));
  EXPECT_EQ(live, live_allocations());
}

TEST(NormalizePath, TakesLongPathsAndAnyBytes) {
  const std::string component(1000, 'x');
  std::string path;
  for (int i = 0; i < 100; ++i) path += "/" + component;
  EXPECT_EQ(path, normalized(path));
  EXPECT_EQ("/\xff\xfe", normalized("//\xff\xfe/"));
}

// The rules as the documents state them, over the list of components that were written.
std::string model(const std::string& path) {
  const bool absolute = !path.empty() && path[0] == '/';
  std::string out = absolute ? "/" : "";
  std::istringstream in(path);
  for (std::string part; std::getline(in, part, '/');) {
    if (part.empty() || (part == "." && !out.empty())) continue;
    if (part == "..") {
      if (out.empty() || out == ".") return kNone;
      const auto slash = out.rfind('/');
      if (slash == std::string::npos) {
        out.clear();
      } else {
        out = slash == 0 && absolute ? "/" : out.substr(0, slash);
      }
      continue;
    }
    if (!out.empty() && out != "/") out += '/';
    out += part;
  }
  return out.substr(0, 2) == "./" ? out.substr(2) : out;
}

TEST(NormalizePath, IsItsModelOnRandomPaths) {
  std::mt19937 random(20261121);
  const std::vector<std::string> parts = {"/", "/", ".", "..", "a", "bc", "...", "\xc3\xa9"};
  for (int round = 0; round < 200000; ++round) {
    std::string path;
    for (auto left = random() % 12; left > 0; --left) path += parts[random() % parts.size()];
    ASSERT_EQ(model(path), normalized(path)) << path;
  }
}

TEST(ParentDir, AnswersEveryRow) {
  const Row rows[] = {
      {"/a", "/"},        {"/a/b/", "/a"}, {"a//b", "a"},  {"a", ""},          {"", ""},
      {"/", "/"},         {"///", "/"},    {"a/", ""},     {"a///", ""},       {"//a", "/"},
      {"/a/b", "/a"},     {"a/b", "a"},    {"a/b//", "a"}, {"/a//b///", "/a"}, {"///a", "/"},
      {"/a/b/c", "/a/b"}, {".", ""},       {"./x", "."},   {"..", ""},
  };
  for (const Row& row : rows) EXPECT_EQ(row.expected, parent_of(row.path)) << row.path;
}

TEST(ParentDir, OfNullIsNull) { EXPECT_EQ(nullptr, parent_dir_from_path(nullptr)); }

TEST(ParentDir, WithoutMemoryIsNull) {
  for (const char* path : {"", "/", "a", "/a/b"}) {
    fail_call("malloc", ENOMEM);
    EXPECT_EQ(nullptr, parent_dir_from_path(path)) << path;
  }
}

TEST(FullPath, IsBothWithASlash) {
  EXPECT_EQ("/tavrix/a/b", taken(get_full_path("/tavrix", "a/b")));
  EXPECT_EQ("/tavrix//a", taken(get_full_path("/tavrix", "/a")));
  EXPECT_EQ("//", taken(get_full_path("/", "")));
}

TEST(FullPath, NeedsBoth) {
  EXPECT_EQ(0, level_of("dirname (NULL) or basename (a) is NULL\n",
                        [] { EXPECT_EQ(nullptr, get_full_path(nullptr, "a")); }));
  EXPECT_EQ(0, level_of("dirname (a) or basename (NULL) is NULL\n",
                        [] { EXPECT_EQ(nullptr, get_full_path("a", nullptr)); }));
  const auto attempt = [] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(nullptr, get_full_path("a", "b"));
  };
  EXPECT_EQ(0, level_of("calloc failed. errno = 12(Cannot allocate memory)\n", attempt));
}

TEST(ChildFromPath, IsTheLastComponent) {
  const std::pair<const char*, const char*> rows[] = {
      {"a/b/c", "c"},  {"/a/b/", "b"}, {"a", "a"},   {"a/b", "b"},    {"/a", "a"},
      {"a/b///", "b"}, {"", ""},       {"ab/", "b"}, {"abc//", "bc"},
  };
  for (const auto& [path, child] : rows) EXPECT_EQ(child, taken(child_from_path(path))) << path;
  EXPECT_EQ(nullptr, child_from_path(nullptr));
}

TEST(ChildFromPath, TakesOddPaths) {
  for (const char* path : {"/", "//", "///", "a/", "/a/"}) std::free(child_from_path(path));
}

}  // namespace
}  // namespace tavrix::test
