// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix.conf(5) and tavrix(7) say what the programs do.

#include <gtest/gtest.h>
#include <fstream>
#include <map>
#include <sstream>

#include "eventstore.h"
#include "perm_map.h"
#include "tests/tools/operator.hpp"
#include "tools/ctl/settings.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::test {
namespace {

using Fields = std::map<std::string, std::string>;

std::string source(const std::string& path) {
  return read_file(std::string(TAVRIX_SOURCE_DIR) + "/" + path);
}

// The settings of tavrix.conf(5): "SECTION:key", and what its list says under "values" and so on.
std::map<std::string, Fields> settings_of_the_page() {
  std::istringstream in(source("docs/man/tavrix.conf.5"));
  std::map<std::string, Fields> settings;
  std::string section, setting, field;
  std::smatch part;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, part, std::regex(R"(\.Ss The section \[(.*)\])"))) {
      section = part[1];
    } else if (std::regex_match(line, part, std::regex(R"(\.It Li (.*))"))) {
      setting = section + ":" + part[1].str();
      field = "meaning";
    } else if (std::regex_match(line, part,
                                std::regex(R"(\.It (values|shipped|read by|a change counts))"))) {
      field = part[1];
    } else if (line.starts_with('.')) {
      if (line == ".El") field.clear();
    } else if (!setting.empty() && !field.empty()) {
      settings[setting][field] += line + " ";
    }
  }
  return settings;
}

// The values of a settings file, read without the tool's own reader.
std::map<std::string, std::string> values_of_the_shipped_file() {
  std::istringstream in(source("packaging/tavrix.conf"));
  std::map<std::string, std::string> values;
  std::string section;
  std::smatch part;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, part, std::regex(R"(\[(.*)\])"))) section = part[1];
    if (std::regex_match(line, part, std::regex(R"(([^#=]+) = (.*))")))
      values[section + ":" + part[1].str()] = part[2];
  }
  return values;
}

// The range as the tool applies it: the smallest and the largest number that it takes.
std::string range_of(const Setting& setting) {
  if (setting.most == kNoLimit) return std::to_string(setting.least) + " or more";
  const char* between = setting.most - setting.least == 1 ? " or " : " to ";
  return std::to_string(setting.least) + between + std::to_string(setting.most);
}

// The settings of the block and those of the services.
std::vector<Setting> every_setting() {
  std::vector<Setting> all(ctl::settings().begin(), ctl::settings().end());
  all.insert(all.end(), std::begin(settings::kServiceSettings),
             std::end(settings::kServiceSettings));
  return all;
}

class Pages : public Operator {};

TEST_F(Pages, OfTheSettingsHaveEachSettingOfTheProgramsAndNoOther) {
  auto page = settings_of_the_page();
  for (const Setting& setting : every_setting()) {
    const Fields fields = page[setting.name];
    EXPECT_EQ(5U, fields.size()) << setting.name;
    page.erase(setting.name);
  }
  for (const auto& [name, fields] : page) ADD_FAILURE() << name << " is no setting";
}

TEST_F(Pages, OfTheSettingsNameTypesAndRanges) {
  auto page = settings_of_the_page();
  for (const Setting& setting : every_setting()) {
    const std::string values = page[setting.name]["values"];
    if (setting.type == PARAM_VAL_TYPE_BOOLEAN) {
      EXPECT_EQ("yes or no ", values) << setting.name;
    } else if (setting.type == PARAM_VAL_TYPE_STRING) {
      EXPECT_EQ("text of at most 1023 bytes ", values) << setting.name;
    } else {
      EXPECT_TRUE(values.starts_with("whole number")) << setting.name << ": " << values;
      EXPECT_TRUE(values.ends_with("; " + range_of(setting) + " "))
          << setting.name << ": " << values;
    }
  }
}

TEST_F(Pages, OfTheSettingsHaveTheValuesOfTheShippedFile) {
  auto page = settings_of_the_page();
  const auto file = values_of_the_shipped_file();
  EXPECT_EQ(page.size(), file.size());
  for (const auto& [name, value] : file) {
    EXPECT_EQ(value + " ", page[name]["shipped"]) << name;
  }
  for (const Setting& setting : every_setting()) {
    EXPECT_EQ(std::string(setting.shipped) + " ", page[setting.name]["shipped"]) << setting.name;
  }
}

TEST_F(Pages, OfTheSettingsNameTheUnitsOfNumbersThatAreAmounts) {
  auto page = settings_of_the_page();
  for (const auto& [word, unit] : {std::pair{"size", "bytes"},
                                   {"period", "seconds"},
                                   {"interval", "seconds"},
                                   {"pct", "per cent"}}) {
    int found = 0;
    for (const auto& [name, fields] : page) {
      if (!name.ends_with(word)) continue;
      ++found;
      EXPECT_TRUE(contains(fields.at("values"), unit)) << name;
    }
    EXPECT_GT(found, 0) << word;
  }
}

// The sources that a setting's index stands in are those of the programs that the page names.
TEST_F(Pages, OfTheSettingsNameTheSweeperWhereItReadsThem) {
  auto page = settings_of_the_page();
  std::string sweeper;
  for (const std::string& name : list(TAVRIX_SOURCE_DIR "/tools/sweeper"))
    sweeper += source("tools/sweeper/" + name);
  for (const auto& [index, name] :
       {std::pair{"PARAM_FLUSH_PERIOD", "SWEEPER:flush period"},
        {"PARAM_DISABLE_SWEEPER_FLUSH", "SWEEPER:disable sweeper flush"},
        {"PARAM_STAGING_DIR", "SWEEPER:staging dir"},
        {"PARAM_STAGING_BUFFER_SIZE", "SWEEPER:staging buffer size"},
        {"PARAM_AUDITING_DIR", "SWEEPER:auditing dir"},
        {"PARAM_REGEX_FILE_NAME", "VFS:exception pattern file"}}) {
    EXPECT_EQ(contains(sweeper, index), contains(page[name]["read by"], "tavrix-sweeper")) << name;
  }
}

TEST_F(Pages, OfTheSystemNameTheKeysOfItsObjects) {
  const std::string page = source("docs/man/tavrix.7");
  for (const int id : {TAVRIX_STAGING_BUFFER_KEY_ID, TAVRIX_STAGING_SEMAPHORE_KEY_ID,
                       TAVRIX_PARAM_KEY_ID, TAVRIX_PERM_MAP_SEM_KEY_ID}) {
    std::ostringstream row;
    row << ".It 0x" << std::hex << (id & 0xff) << "... Ta " << std::dec << id << " Ta ";
    EXPECT_TRUE(contains(page, row.str())) << row.str();
  }
  for (const int key : {TAVRIX_PERM_TABLE0_KEY, TAVRIX_PERM_TABLE1_KEY}) {
    std::ostringstream row;
    row << ".It 0x" << std::hex << key << " Ta ";
    EXPECT_TRUE(contains(page, row.str())) << row.str();
  }
}

TEST_F(Pages, OfTheSystemNameEachProgramAndPage) {
  const std::string page = source("docs/man/tavrix.7");
  for (const std::string& file : list(TAVRIX_SOURCE_DIR "/docs/man")) {
    const std::string name = file.substr(0, file.rfind('.'));
    if (name == "tavrix") continue;
    EXPECT_TRUE(contains(page, ".Xr " + name + " ")) << name;
  }
}

TEST_F(Pages, OfTheSystemBeginWithCommandsThatExist) {
  const std::string page = source("docs/man/tavrix.7");
  const std::regex command(R"(\.It Ic tavrixctl ([a-z]+)(?: ([a-z]+))?)");
  int found = 0;
  for (std::sregex_iterator at(page.begin(), page.end(), command), end; at != end; ++at) {
    ++found;
    EXPECT_TRUE(subcommands({}).contains((*at)[1])) << (*at)[0];
    const auto below = subcommands({(*at)[1]});
    EXPECT_TRUE(below.empty() || below.contains((*at)[2])) << (*at)[0];
  }
  EXPECT_EQ(5, found);
}

// Every folder that the installation makes has a word on the page.
TEST_F(Pages, OfTheSystemNameTheFoldersOfTheInstallation) {
  const std::string page = source("docs/man/tavrix.7");
  std::istringstream in(source("packaging/tavrix.tmpfiles"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string kind, path;
    words >> kind >> path;
    if (kind != "d") continue;
    EXPECT_TRUE(contains(page, path)) << path;
  }
}

TEST_F(Pages, PassTheFormattersChecks) {
  for (const char* name : {"tavrix.7", "tavrix.conf.5"}) {
    const std::string page = std::string(TAVRIX_SOURCE_DIR) + "/docs/man/" + name;
    const Outcome outcome = run_program({"mandoc", "-T", "lint", "-W", "warning", page});
    EXPECT_EQ(0, outcome.exit_code) << outcome.out;
  }
}

}  // namespace
}  // namespace tavrix::test
