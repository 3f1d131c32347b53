// SPDX-License-Identifier: LGPL-3.0-or-later
// docs/operations.md names a test for every row; each of these tests exists.

#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

#include "tests/support/files.hpp"

namespace tavrix::test {
namespace {

const std::string kSources = TAVRIX_SOURCE_DIR;

// The "Suite.Test" names of the macros in the folder's files, and "Instance/Suite" of parametrised
// suites.
std::set<std::string> tests_in(const std::string& folder) {
  std::set<std::string> found;
  const std::regex test(R"(TEST(?:_F|_P)?\((\w+), (\w+)\))");
  const std::regex instance(R"(INSTANTIATE_TEST_SUITE_P\((\w+), (\w+))");
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    const std::string text = read_file(entry.path());
    for (std::sregex_iterator at(text.begin(), text.end(), test), end; at != end; ++at) {
      found.insert((*at)[1].str() + "." + (*at)[2].str());
    }
    for (std::sregex_iterator at(text.begin(), text.end(), instance), end; at != end; ++at) {
      found.insert((*at)[1].str() + "/" + (*at)[2].str());
    }
  }
  return found;
}

// The last cell of a table row with six cells.
std::string cell_of_tests(const std::string& line) {
  const auto cells = std::count(line.begin(), line.end(), '|') - 1;
  if (!line.starts_with("| ") || cells != 6 || line.starts_with("| operation ")) return {};
  const auto begin = line.rfind('|', line.size() - 2);
  return line.substr(begin);
}

TEST(OperationsDocument, NamesATestForEachRow) {
  const std::set<std::string> tests = tests_in(kSources + "/tests/samba");
  const std::regex name("`([^`]+)`");
  std::size_t rows = 0;
  for (const std::string& line : lines_of(kSources + "/docs/operations.md")) {
    const std::string cell = cell_of_tests(line);
    if (cell.empty()) continue;
    ++rows;
    std::size_t named = 0;
    for (std::sregex_iterator at(cell.begin(), cell.end(), name), end; at != end; ++at) {
      EXPECT_TRUE(tests.contains((*at)[1])) << (*at)[1];
      ++named;
    }
    EXPECT_GT(named, 0U) << line;
  }
  EXPECT_GT(rows, 30U);
}

}  // namespace
}  // namespace tavrix::test
