// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings that one service reads from the settings file itself.

#include "tools/settings/service_settings.hpp"

#include <algorithm>

#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using settings::ServiceSettings;

constexpr const char* kFile = "/etc/tavrix/tavrix.conf";

class ServiceSettingsFile : public Operator {
 protected:
  static ServiceSettings of(const std::string& text) {
    write_file(kFile, text);
    return ServiceSettings::read(kFile);
  }
  static nlohmann::json shown(const std::string& name) {
    const auto document = json({"config", "show"});
    for (const auto& entry : document["service_settings"]) {
      if (entry["name"] == name) return entry["value"];
    }
    return {};
  }
};

TEST_F(ServiceSettingsFile, EachShippedValueIsAValue) {
  for (const Setting& setting : settings::kServiceSettings) {
    std::string error;
    EXPECT_TRUE(ctl::parse_value(setting, setting.shipped, error)) << setting.name << ": " << error;
    EXPECT_EQ(nullptr, ctl::find_setting(setting.name)) << "it is not in the block";
  }
}

TEST_F(ServiceSettingsFile, MissingFilesAndKeysHaveShippedValues) {
  const auto missing = ServiceSettings::read("/etc/tavrix/none.conf");
  EXPECT_EQ(10, missing.number("LOADER:kept maps"));
  EXPECT_TRUE(missing.warnings("LOADER").empty());
  EXPECT_EQ(10, of("[VFS]\ndebug level = 3\n").number("LOADER:kept maps"));
}

TEST_F(ServiceSettingsFile, TakesValuesAndNamesInAnyCase) {
  const auto settings = of("[Loader]\nKept Maps = 0 ; none\n");
  EXPECT_EQ(0, settings.number("loader:kept maps"));
  EXPECT_TRUE(settings.warnings("LOADER").empty());
}

TEST_F(ServiceSettingsFile, AWrongValueIsAWarningOfItsSectionAndTheShippedOneHolds) {
  const auto settings = of("[LOADER]\nkept maps = 1001\nhold removed folders pct = 5\n");
  EXPECT_EQ(10, settings.number("LOADER:kept maps"));
  EXPECT_EQ(5, settings.number("LOADER:hold removed folders pct"));
  EXPECT_EQ((std::vector<std::string>{"/etc/tavrix/tavrix.conf:2: LOADER:kept maps: 1001 is out of "
                                      "range: 0 to 1000; the shipped value 10 holds"}),
            settings.warnings("LOADER"));
  EXPECT_TRUE(settings.warnings("SWEEPER").empty());
}

TEST_F(ServiceSettingsFile, AFileWithAMistakeLeavesThoseOfBefore) {
  write_file("/scratch/good.conf", "[LOADER]\nkept maps = 7\n");
  ASSERT_EQ(0, ctl({"config", "load", "/scratch/good.conf"}).exit_code);
  const auto settings = of("[LOADER]\nkept maps = 8\n[VFS]\nnonsense = 1\n");
  EXPECT_EQ(7, settings.number("LOADER:kept maps"));
  ASSERT_EQ(1U, settings.warnings("LOADER").size());
  EXPECT_TRUE(contains(settings.warnings("LOADER").front(), "VFS:nonsense: no such setting"));
}

TEST_F(ServiceSettingsFile, AMistakeWithoutAFileOfBeforeLeavesTheShippedOnes) {
  EXPECT_EQ(10, of("[LOADER]\nkept maps = 8\nnonsense\n").number("LOADER:kept maps"));
}

TEST_F(ServiceSettingsFile, AMisspeltKeyIsAMistakeOfTheFile) {
  write_file("/scratch/bad.conf", "[LOADER]\nkept map = 8\n");
  const Outcome outcome = ctl({"config", "load", "/scratch/bad.conf"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "bad.conf:2: LOADER:kept map: no such setting")) << outcome.err;
}

TEST_F(ServiceSettingsFile, LoadingWarnsOfAWrongValueAndLoadsTheOthers) {
  write_file("/scratch/odd.conf", "[LOADER]\nkept maps = many\n[VFS]\ndebug level = 3\n");
  const Outcome outcome = ctl({"config", "load", "/scratch/odd.conf"});
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "odd.conf:2: LOADER:kept maps: \"many\" is not a number"))
      << outcome.err;
  EXPECT_TRUE(contains(ctl({"config", "show"}).out, "debug level                    number  3\n"));
}

TEST_F(ServiceSettingsFile, ConfigShowsThemBesideTheBlock) {
  write_file(kFile, "[LOADER]\nkept maps = 3\n");
  ASSERT_EQ(0, ctl({"config", "load", kFile}).exit_code);
  EXPECT_EQ(3, shown("LOADER:kept maps"));
  const std::string text = ctl({"config", "show", "--explain"}).out;
  EXPECT_TRUE(
      contains(text, "LOADER:kept maps                   number  3\n    The number of maps"))
      << text;
}

TEST_F(ServiceSettingsFile, ConfigSetSaysWhereTheyAreChanged) {
  ASSERT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
  const Outcome outcome = ctl({"config", "set", "loader:kept maps", "3"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err,
                       "LOADER:kept maps: only its service reads it, from "
                       "/etc/tavrix/tavrix.conf"))
      << outcome.err;
}

TEST_F(ServiceSettingsFile, StatusWarnsOfAWrongValue) {
  write_file(kFile, "[LOADER]\nkept maps = many\n");
  ASSERT_EQ(0, ctl({"config", "load", kFile}).exit_code);
  const auto status = json({"status"});
  EXPECT_EQ(1U, status["settings"]["wrong_service_values"].size());
  EXPECT_TRUE(std::any_of(status["findings"].begin(), status["findings"].end(),
                          [](const auto& found) { return found["id"] == "service-setting"; }));
}

}  // namespace
}  // namespace tavrix::test
