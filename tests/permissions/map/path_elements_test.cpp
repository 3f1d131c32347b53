// SPDX-License-Identifier: LGPL-3.0-or-later
// Paths split into names, and the hash of a name.

#include <gtest/gtest.h>
#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "perm_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

struct Part {
  uint32_t index;
  std::string name;
  bool operator==(const Part&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Part& part) {
  return out << part.index << ":" << part.name;
}

std::vector<Part> split(const std::string& path) {
  path_array* array = nullptr;
  get_path_elem_smb4(path.c_str(), static_cast<uint32_t>(path.size() + 1), &array);
  std::vector<Part> parts;
  for (uint32_t i = 0; i < array->num_elems; ++i) {
    const path_elems& elem = *array->elems[i];
    parts.push_back({elem.index, elem.name_elem});
    EXPECT_EQ(elem.len, std::strlen(elem.name_elem));
    EXPECT_EQ(process_namecomponent_4hash(elem.name_elem, elem.len), elem.hashval);
  }
  cleanup_path_array_smb4(&array);
  EXPECT_EQ(nullptr, array);
  return parts;
}

using Parts = std::vector<Part>;

TEST(PathElements, AreTheNamesBetweenSlashes) {
  EXPECT_EQ((Parts{{0, "/"}, {1, "Shared"}, {2, "a"}, {3, "b"}}), split("/Shared/a//b/"));
  EXPECT_EQ((Parts{{0, "Shared"}, {1, "a"}}), split("Shared/a"));
  EXPECT_EQ((Parts{{0, "/"}}), split("/"));
  EXPECT_EQ((Parts{{0, "/"}}), split("///"));
  EXPECT_EQ((Parts{{0, "/"}, {1, "x"}}), split("///x///"));
  EXPECT_EQ((Parts{{0, "x"}}), split("x"));
  EXPECT_EQ(Parts{}, split(""));
}

TEST(PathElements, EndBeforeNulBytes) {
  const char path[] = "a/b/\0\0";
  path_array* array = nullptr;
  get_path_elem_smb4(path, sizeof path, &array);
  EXPECT_EQ(2U, array->num_elems);
  cleanup_path_array_smb4(&array);
}

TEST(PathElements, HaveRoomForTheWholePathEach) {
  const char path[] = "abc/de";
  path_array* array = nullptr;
  get_path_elem_smb4(path, sizeof path, &array);
  for (uint32_t i = 0; i < array->num_elems; ++i) std::memset(array->elems[i]->name_elem, 'x', 6);
  cleanup_path_array_smb4(&array);
}

TEST(PathElements, NeedTheirArguments) {
  path_array* array = nullptr;
  get_path_elem_smb4(nullptr, 1, &array);
  get_path_elem_smb4("a", 0, &array);
  EXPECT_EQ(nullptr, array);
  get_path_elem_smb4("a", 2, nullptr);
}

TEST(PathElements, WithoutMemoryAreNoneAndLeaveNothing) {
  for (const char* call : {"malloc", "calloc", "realloc"}) {
    for (int nth = 1; nth < 12; ++nth) {
      const long blocks = live_allocations();
      clear_log();
      fail_call(call, ENOMEM, nth);
      path_array* array = nullptr;
      get_path_elem_smb4("/a/b/c", 7, &array);
      if (array == nullptr) {
        EXPECT_TRUE(logged("Could not allocate memory for path array ")) << call << nth;
      } else {
        EXPECT_TRUE(messages().empty());
        cleanup_path_array_smb4(&array);
      }
      EXPECT_EQ(blocks, live_allocations()) << call << nth;
    }
  }
  fail_call("malloc", ENOMEM);
  path_array* array = nullptr;
  get_path_elem_smb4("/a", 3, &array);
  EXPECT_EQ(nullptr, array);
}

TEST(NameHash, FoldsCaseAndSkipsExtendedBytes) {
  EXPECT_EQ(0U, process_namecomponent_4hash("", 0));
  EXPECT_EQ(process_namecomponent_4hash("foo", 3), process_namecomponent_4hash("FOO", 3));
  EXPECT_EQ(process_namecomponent_4hash("a\xc3\xa9", 3),
            process_namecomponent_4hash("a\xc3\x89", 3));
  EXPECT_NE(process_namecomponent_4hash("ab", 2), process_namecomponent_4hash("ba", 2));
}

}  // namespace
}  // namespace tavrix::test
