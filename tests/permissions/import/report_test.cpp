// SPDX-License-Identifier: LGPL-3.0-or-later
// Reports of a failed import: one line for developers and one for operators.

#include "permissions/import/report.hpp"

#include <gtest/gtest.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

class Report : public Importer {};

TEST_F(Report, IsOneLineInEachLog) {
  set_debug_level(0);
  clear_log();
  TAVRIX_REPORT(MISSING_JSON_FILES, SWEEPER_LOGSEV_ERR, "No such file %s", "x");
  EXPECT_EQ(std::vector<std::string>{"No such file x"}, messages());
  ASSERT_EQ(1U, told().size());
  EXPECT_NE(std::string::npos, told()[0].find(",No such file x,")) << told()[0];
}

TEST_F(Report, OfAnyLengthIsWhole) {
  const std::string text(5000, 'x');
  EXPECT_EQ("<" + text + ">", formatted("<%s>", text.c_str()).get());
}

TEST_F(Report, WithoutMemoryReachesDevelopers) {
  set_debug_level(0);
  clear_log();
  fail_call("vasprintf", ENOMEM);
  EXPECT_EQ(nullptr, formatted("%d", 1).get());
  fail_call("vasprintf", ENOMEM);
  TAVRIX_REPORT(MISSING_JSON_FILES, SWEEPER_LOGSEV_ERR, "a %d", 1);
  EXPECT_TRUE(logged("a 1"));
}

}  // namespace
}  // namespace tavrix::test
