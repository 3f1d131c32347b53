// SPDX-License-Identifier: LGPL-3.0-or-later
// The units and the alerts around "tavrixctl status --metrics".

#include <gtest/gtest.h>
#include <regex>
#include <set>

#include "tests/tools/appliance.hpp"

namespace tavrix::test {
namespace {

using MetricsUnit = Appliance;

const std::string kPackaging = TAVRIX_SOURCE_DIR "/packaging/";

TEST_F(MetricsUnit, RunsACommandThatTheToolKnows) {
  const std::string unit = read_file(kPackaging + "tavrix-metrics.service");
  std::smatch part;
  ASSERT_TRUE(std::regex_search(
      unit, part, std::regex("\nExecStart=/usr/bin/tavrixctl (.*) (/\\S*)/tavrix.prom\n")));
  EXPECT_EQ("status --metrics --output", part[1]);
  const std::string folder = part[2];
  EXPECT_TRUE(contains(unit, "\nConditionPathIsDirectory=" + folder + "\n"));
  EXPECT_TRUE(contains(unit, "\nReadWritePaths=" + folder + "\n"));
  EXPECT_TRUE(contains(unit, "\nPrivateIPC=no\n"));
  const std::string install = read_file(TAVRIX_SOURCE_DIR "/cmake/TavrixInstall.cmake");
  for (const char* file : {"tavrix-metrics.service", "tavrix-metrics.timer", "tavrix-alerts.yml"}) {
    EXPECT_TRUE(contains(install, file)) << file;
  }
}

TEST_F(MetricsUnit, AlertsAskForMetricsThatThereAre) {
  mark_event_db_as_rescan_needed("");
  write_file(std::string(kStaging) + "/pending_1_2.3", "");
  write_file("/tavrix/.conf/historian.running", "");
  make_dirs("/tavrix/.conf/history");
  write_file("/tavrix/.conf/history/events.pending_1_2.3", "");
  const std::string metrics = status("--metrics").out;
  const std::string alerts = read_file(kPackaging + "examples/tavrix-alerts.yml");
  const std::regex name("tavrix_[a-z_]+");
  std::set<std::string> asked;
  for (std::sregex_iterator at(alerts.begin(), alerts.end(), name), end; at != end; ++at) {
    asked.insert(at->str());
  }
  EXPECT_GT(asked.size(), 3U);
  for (const std::string& metric : asked) {
    EXPECT_TRUE(contains(metrics, "# TYPE " + metric + " gauge\n")) << metric;
  }
}

}  // namespace
}  // namespace tavrix::test
