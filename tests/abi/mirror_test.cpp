// SPDX-License-Identifier: LGPL-3.0-or-later
// The tests mirror the tree: a source X/Y.cpp, and an idea that is a header X/Y.hpp alone, has its
// tests in tests/X/Y_test.cpp or in tests/X/Y_ASPECT_test.cpp.

#include <gtest/gtest.h>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

const fs::path kSource = TAVRIX_SOURCE_DIR;
constexpr const char* kRooms[] = {"connection", "events",  "hooks", "internal",    "permissions",
                                  "sessions",   "sweeper", "utils", "regex_parser"};

// Sources without a file of tests of their own, and the reason.
const std::map<std::string, std::string> kExceptions = {
    {"internal/coarse_clock",
     "one call: what lasts for a second, tests/permissions/map/held_table_test.cpp"},
    {"regex_parser/pattern_reach", "for tools and the Samba module: tests/tools/patterns_test.cpp"},
    {"utils/parameters", "reads one entry of the block: every test of a setting"},
    {"utils/root_scope", "scopes around utils/privilege.cpp: tests/utils/privilege_test.cpp"},
    {"utils/settings_table", "checks itself at compile time; tests/utils/parameter_block_test.cpp"},
    {"utils/staging/staging", "declares what the sources beside it share"},
};

// "hooks/rename" for each source of the rooms; generated code has none.
std::set<std::string> sources() {
  std::set<std::string> names;
  for (const char* room : kRooms) {
    for (const auto& entry : fs::recursive_directory_iterator(kSource / room)) {
      const fs::path path = fs::relative(entry.path(), kSource);
      const std::string end = path.extension();
      const bool is_source = end == ".cpp" || end == ".hpp" || end == ".h";
      if (!is_source || path.string().find("/generated/") != std::string::npos) continue;
      names.insert(fs::path(path).replace_extension());
    }
  }
  return names;
}

bool has_tests(const std::string& name) {
  if (fs::exists(kSource / "tests" / (name + "_test.cpp"))) return true;
  const fs::path folder = (kSource / "tests" / name).parent_path();
  if (!fs::exists(folder)) return false;
  const std::string begin = fs::path(name).filename().string() + "_";
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string file = entry.path().filename();
    if (file.starts_with(begin) && file.ends_with("_test.cpp")) return true;
  }
  return false;
}

TEST(Mirror, EverySourceHasItsTests) {
  EXPECT_GT(sources().size(), 40U);
  for (const std::string& name : sources()) {
    EXPECT_TRUE(has_tests(name) || kExceptions.contains(name))
        << name << " has no tests/" << name << "_test.cpp";
  }
}

TEST(Mirror, ExceptionsAreNeeded) {
  const auto all = sources();
  for (const auto& [name, reason] : kExceptions) {
    EXPECT_TRUE(all.contains(name) && !has_tests(name)) << name << ": " << reason;
  }
}

}  // namespace
}  // namespace tavrix::test
