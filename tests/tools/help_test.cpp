// SPDX-License-Identifier: LGPL-3.0-or-later
// The helps: each has examples, and the examples do what they promise.

#include <filesystem>

#include "tests/support/terminal.hpp"
#include "tests/tools/history.hpp"
#include "tests/tools/operator.hpp"
#include "tests/tools/two_nodes.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

class Help : public Operator {
 protected:
  // Everything that the examples name.
  void make_world() {
    make_dirs("/tavrix/.conf/staging");
    make_dirs("/tavrix/.conf/auditing");
    make_dirs("/tavrix/Shared/Team");
    make_dirs("/var/lib/tavrix/maps");
    write_file("/tavrix/.conf/staging/pending_1", "");
    write_file("/tavrix/.conf/auditing/pending_1", "");
    for (const char* name : {"tavrix.conf", "exception_patterns"}) {
      write_file(std::string("/etc/tavrix/") + name,
                 read_file(std::string(TAVRIX_SOURCE_DIR "/packaging/") + name));
    }
    keep_the_history_here();
    make_dirs("/scratch/history");
    if (!exists("/scratch/history/history.db")) write_history("/scratch/history/history.db");
    write_file("/scratch/groups.json",
               R"({"reserved": {"tavrix-powerusers": 9002}, "users": {"anna": [9002, 2001]}})");
    ASSERT_EQ(0, ctl({"config", "load", "/etc/tavrix/tavrix.conf"}).exit_code);
    ASSERT_EQ(
        0, ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"})
               .exit_code);
    ctl({"events", "buffer", "create"});  // unless the example before left it
    ASSERT_EQ(0, import(team()).exit_code);
    // The map was in force at every time that an example asks about.
    const std::string facts = "/etc/tavrix/maps/1.json";
    auto kept = nlohmann::json::parse(read_file(facts));
    kept["since"] = 0;
    write_file(facts, kept.dump());
  }
  // /var is the machine's.
  static void keep_the_history_here() {
    std::string settings = read_file("/etc/tavrix/tavrix.conf");
    const std::string shipped = "database = /var/lib/tavrix/history/";
    settings.replace(settings.find(shipped), shipped.size(), "database = /scratch/history/");
    write_file("/etc/tavrix/tavrix.conf", settings);
  }
  static void add_user_anna() {
    const std::string users = read_file("/etc/passwd");
    std::filesystem::remove("/etc/passwd");  // a link to the machine's file
    write_file("/etc/passwd", users + "anna:x:1001:1001::/:/bin/sh\n");
  }
  // The command lines under "Examples:".
  static Words examples(const std::string& help) {
    Words found;
    std::istringstream in(help);
    bool is_list = false;
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with(' ')) is_list = line == "Examples:";
      if (is_list && line.starts_with("  tavrix")) found.push_back(line.substr(2));
    }
    return found;
  }
  static std::string help_of(const Words& command) {
    Words words = command;
    words.emplace_back("--help");
    return ctl(words).out;
  }
  // The words of every command, also of those with others below them.
  static std::vector<Words> all_commands() {
    std::vector<Words> all{{}};
    for (std::size_t i = 0; i < all.size(); ++i) {
      for (const std::string& name : subcommands(all[i])) {
        Words below = all[i];
        below.push_back(name);
        all.push_back(below);
      }
    }
    return all;
  }
  static std::string joined(const Words& words, char between) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : std::string{between}) + word;
    return text;
  }
  // Runs an example as an operator does who agrees to everything. One that lasts is stopped; 124
  // says so.
  static TerminalOutcome run(const std::string& example, bool lasts) {
    return run_on_terminal({"bash", "-c",
                            "PATH=" TAVRIX_BUILD_DIR "/tools:/scratch/bin:$PATH; cd /scratch; "
                            "timeout --foreground " +
                                std::string(lasts ? "2 " : "25 ") + example},
                           {{"[y/N]", "y\n"}});
  }
};

TEST_F(Help, OfEveryCommandHasExamples) {
  EXPECT_GT(all_commands().size(), 30U);
  for (const Words& command : all_commands()) {
    const Words found = examples(help_of(command));
    EXPECT_FALSE(found.empty()) << joined(command, ' ');
    for (const std::string& example : found) {
      EXPECT_TRUE(contains(" " + example + " ", " " + joined(command, ' '))) << example;
    }
  }
}

TEST_F(Help, ShowsTheJsonOfEveryCommandThatPrintsData) {
  for (const Words& command : all_commands()) {
    const std::string schema =
        TAVRIX_SOURCE_DIR "/docs/json/" + joined(command, '-') + ".schema.json";
    if (!exists(schema)) continue;
    const std::string help = help_of(command);
    const Words found = examples(help);
    EXPECT_TRUE(contains(help, "\n  --json ")) << joined(command, ' ');
    EXPECT_TRUE(std::ranges::any_of(found, [](const std::string& example) {
      return contains(example, " --json ");
    })) << joined(command, ' ');
  }
}

TEST_F(Help, HasExamplesThatRun) {
  add_user_anna();
  int count = 0;
  for (const Words& command : all_commands()) {
    for (const std::string& example : examples(help_of(command))) {
      make_world();
      if (contains(example, " cluster ")) make_two_nodes();
      if (contains(example, "buffer create")) ctl({"events", "buffer", "remove", "--yes"});
      const bool lasts = contains(example, "--follow") || contains(example, "--watch");
      const TerminalOutcome outcome = run(example, lasts);
      // These two answer with 2 that something in this world is critical.
      const bool judges = contains(example, "status") || contains(example, "doctor");
      EXPECT_TRUE(lasts ? outcome.exit_code == 124
                        : outcome.exit_code >= 0 && outcome.exit_code <= (judges ? 2 : 1))
          << example << " ends with " << outcome.exit_code << "\n"
          << outcome.shown;
      EXPECT_FALSE(contains(outcome.shown, "--help\" says more")) << example;
      ++count;
    }
  }
  EXPECT_GT(count, 50);
}

TEST_F(Help, OfTheServicesHasExamplesThatRun) {
  for (const std::string program :
       {"tavrix-loader", "tavrix-sweeper", "tavrix-historian", "tavrix-sample-tree"}) {
    const Words found = examples(run_program({TAVRIX_BUILD_DIR "/tools/" + program, "--help"}).out);
    EXPECT_FALSE(found.empty()) << program;
    for (const std::string& example : found) {
      make_world();
      const bool lasts = program != "tavrix-sample-tree" && !contains(example, "--once");
      const TerminalOutcome outcome = run(example, lasts);
      EXPECT_EQ(lasts ? 124 : 0, outcome.exit_code)
          << example << " ends with " << outcome.exit_code << "\n"
          << outcome.shown;
    }
  }
}

TEST_F(Help, FitsIntoEightyColumns) {
  for (const Words& command : all_commands()) {
    std::istringstream in(help_of(command));
    for (std::string line; std::getline(in, line);) {
      EXPECT_LE(line.size(), 80U) << joined(command, ' ') << ": " << line;
    }
  }
}

TEST_F(Help, StandsOnStandardErrorWhereACommandIsMissing) {
  for (const Words& command : {Words{}, Words{"map"}, Words{"events", "buffer"}}) {
    const Outcome outcome = ctl(command);
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ(help_of(command), outcome.err);
  }
}

TEST_F(Help, HasTheCommandsUnderHeadings) {
  const std::string help = help_of({});
  for (const char* heading : {"\nState:\n  status", "\nSettings:\n  config",
                              "\nPermissions:\n  map", "\nEvents:\n  events"}) {
    EXPECT_TRUE(contains(help, heading)) << heading;
  }
}

}  // namespace
}  // namespace tavrix::test
