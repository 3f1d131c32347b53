// SPDX-License-Identifier: LGPL-3.0-or-later
// The manual pages know every command and every option of the programs.

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

class Manual : public Operator {
 protected:
  static std::string page(const std::string& name) {
    return read_file(TAVRIX_SOURCE_DIR "/docs/man/" + name + (name == "tavrixctl" ? ".1" : ".8"));
  }
  // The long options in a help text, but "--help", which the page describes once.
  static std::set<std::string> options(const std::string& help) {
    std::set<std::string> names;
    std::istringstream in(help);
    std::smatch part;
    for (std::string line; std::getline(in, line);) {
      if (std::regex_search(line, part, std::regex("^  (-[a-z],)?-(-[a-z-]+)")))
        names.insert(part[2]);
    }
    names.erase("-help");
    return names;
  }
  // Expects the page to have every command below the given one, and every option of them.
  static void expect_all(const std::string& text, const std::vector<std::string>& words) {
    std::vector<std::string> asked = words;
    asked.emplace_back("--help");
    std::string command;
    for (const std::string& word : words) command += " " + word;
    for (const std::string& name : options(ctl(asked).out)) {
      EXPECT_TRUE(contains(text, "Fl " + name)) << command << " -" << name;
    }
    const auto below = subcommands(words);
    EXPECT_TRUE(!below.empty() || contains(text, ".It Ic" + command)) << command;
    for (const std::string& name : below) {
      std::vector<std::string> next = words;
      next.push_back(name);
      expect_all(text, next);
    }
  }
};

TEST_F(Manual, KnowsEveryCommandAndOption) {
  expect_all(page("tavrixctl"), {});
  EXPECT_GT(subcommands({"map"}).size(), 7U);
  EXPECT_TRUE(options(ctl({"check", "--help"}).out).contains("-admins-gid"));
}

TEST_F(Manual, KnowsTheServicesOptions) {
  for (const auto& [program, count] : {std::pair{std::string("tavrix-loader"), 5U},
                                       {"tavrix-sweeper", 4U},
                                       {"tavrix-clusterd", 7U},
                                       {"tavrix-historian", 3U}}) {
    const auto names = options(run_program({TAVRIX_BUILD_DIR "/tools/" + program, "--help"}).out);
    EXPECT_EQ(count, names.size()) << program;
    for (const std::string& name : names) {
      EXPECT_TRUE(contains(page(program), ".It Fl " + name)) << program << " -" << name;
    }
  }
}

TEST_F(Manual, KnowsTheSampleTreesOptions) {
  const auto names =
      options(run_program({TAVRIX_BUILD_DIR "/tools/tavrix-sample-tree", "--help"}).out);
  EXPECT_EQ(6U, names.size());
  for (const std::string& name : names) {
    EXPECT_TRUE(contains(page("tavrix-sample-tree"), ".It Fl " + name)) << name;
  }
}

TEST_F(Manual, OfTheSweepersUnitNamesFlagsThatItHas) {
  const std::string unit = read_file(TAVRIX_SOURCE_DIR "/packaging/tavrix-sweeper.service");
  EXPECT_TRUE(contains(unit,
                       "\nExecStart=/usr/sbin/tavrix-sweeper --foreground --settings "
                       "/etc/tavrix/tavrix.conf\n"));
  EXPECT_FALSE(contains(unit, "ExecStartPre"));  // its failure would keep the sweeper down
}

// systemd gives up on a service that ends five times in ten seconds, unless the unit says
// otherwise.
TEST_F(Manual, TheUnitsAreStartedAgainHoweverOftenTheyEnd) {
  for (const char* name :
       {"tavrix-sweeper", "tavrix-loader", "tavrix-historian", "tavrix-clusterd"}) {
    const std::string unit =
        read_file(TAVRIX_SOURCE_DIR "/packaging/" + std::string(name) + ".service");
    EXPECT_TRUE(contains(unit, "\nRestart=always\n")) << name;
    EXPECT_LT(unit.find("\nStartLimitIntervalSec=0\n"), unit.find("\n[Service]\n")) << name;
  }
}

TEST_F(Manual, TheServersDropInOrdersItAndKeepsNoCores) {
  const std::string text = read_file(TAVRIX_SOURCE_DIR "/packaging/smbd.service.d/tavrix.conf");
  for (const char* line :
       {"\nLimitCORE=0\n", "\nAfter=tavrix-sweeper.service tavrix-loader.service\n",
        "\nWants=tavrix-sweeper.service tavrix-loader.service\n"}) {
    EXPECT_TRUE(contains(text, line)) << line;
  }
  EXPECT_TRUE(contains(read_file(TAVRIX_SOURCE_DIR "/cmake/TavrixInstall.cmake"),
                       "packaging/smbd.service.d/tavrix.conf"));
}

TEST_F(Manual, OfTheToolsFoldersNamesEveryFile) {
  const std::string text = read_file(TAVRIX_SOURCE_DIR "/tools/README.md");
  for (const std::string& folder : list(TAVRIX_SOURCE_DIR "/tools")) {
    if (folder.find('.') != std::string::npos) continue;
    EXPECT_TRUE(contains(text, "`" + folder + "/`")) << folder;
    for (const std::string& file : list(TAVRIX_SOURCE_DIR "/tools/" + folder)) {
      const std::string stem = file.substr(0, file.find('.'));
      EXPECT_TRUE(contains(text, "`" + stem + "`") || contains(text, "`" + file + "`")) << file;
    }
  }
}

TEST_F(Manual, KnowsTheModulesOptions) {
  std::string code;
  for (const std::string& name : list(TAVRIX_SOURCE_DIR "/samba")) {
    if (name.ends_with(".c")) code += read_file(TAVRIX_SOURCE_DIR "/samba/" + name);
  }
  for (const char* option : {"reserved user", "allow computer accounts", "allow smb1", "audit"}) {
    EXPECT_TRUE(contains(code, std::string("\"") + option + "\"")) << option;
    EXPECT_TRUE(contains(page("vfs_tavrix"), std::string("tavrix:") + option)) << option;
  }
}

}  // namespace
}  // namespace tavrix::test
