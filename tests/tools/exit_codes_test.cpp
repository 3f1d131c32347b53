// SPDX-License-Identifier: LGPL-3.0-or-later
// The exit codes of every command, as the table in tavrixctl(1) has them.

#include <map>

#include "tests/tools/history.hpp"
#include "tests/tools/sweeper.hpp"
#include "tests/tools/two_nodes.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

class ExitCodes : public SweeperWorld {
 protected:
  void SetUp() override {
    SweeperWorld::SetUp();
    make_dirs("/tavrix/Shared/Team");
    ASSERT_EQ(0, import(team()).exit_code);
    write_file("/scratch/broken", "{\"broken\": ");
    write_file("/scratch/good", "[.]tmp$\n");
    write_file("/scratch/dump", "");
    write_file("/scratch/groups.json", R"({"users": {"anna": [1]}})");
    ASSERT_EQ(
        0, ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/scratch/groups"}).exit_code);
  }
  static void expect(int code, const Words& words) {
    const Outcome outcome = ctl(words);
    std::string line;
    for (const std::string& word : words) line += " " + word;
    EXPECT_EQ(code, outcome.exit_code) << line << "\n" << outcome.out << outcome.err;
    EXPECT_TRUE(code != 2 || !outcome.err.empty()) << line;
  }
  // The commands in the first column of the page's table.
  static std::set<std::string> commands_of_table() {
    const std::string page = read_file(TAVRIX_SOURCE_DIR "/docs/man/tavrixctl.1");
    std::istringstream in(page.substr(page.find(".Sh EXIT STATUS")));
    std::set<std::string> found;
    std::smatch row;
    for (std::string line; std::getline(in, line);) {
      if (!std::regex_search(line, row, std::regex("^\\.It Ic (.*?) Ta "))) continue;
      std::istringstream names(row[1]);
      for (std::string name; std::getline(names, name, ',');) {
        name.erase(0, name.find_first_not_of(' '));
        found.insert(name.substr(0, name.find_last_not_of(' ') + 1));
      }
    }
    return found;
  }
  static void find_commands(const Words& words, std::set<std::string>& found) {
    const auto below = subcommands(words);
    std::string name;
    for (const std::string& word : words) name += (name.empty() ? "" : " ") + word;
    if (below.empty()) found.insert(name);
    for (const std::string& next : below) {
      Words longer = words;
      longer.push_back(next);
      find_commands(longer, found);
    }
  }
};

TEST_F(ExitCodes, HaveARowForEveryCommand) {
  std::set<std::string> all;
  find_commands({}, all);
  EXPECT_EQ(all, commands_of_table());
}

TEST_F(ExitCodes, OfEveryCommandAreTwoForWrongUsage) {
  std::set<std::string> all;
  find_commands({}, all);
  for (const std::string& command : all) {
    std::istringstream in(command);
    Words words{std::istream_iterator<std::string>(in), {}};
    words.emplace_back("--no-such-option");
    expect(2, words);
  }
  expect(2, {});
  expect(2, {"no-such-command"});
}

TEST_F(ExitCodes, OfACheckAreTheVerdict) {
  for (const auto& [uid, code] : {std::pair{"1001", 0}, std::pair{"1003", 1}}) {
    expect(code, {"check", "--uid", uid, "--groups", "9002", "--powerusers-gid", "9002", "mkdir",
                  "Shared/Team/New"});
  }
  expect(2, {"check", "--uid", "1001", "fly", "Shared/Team"});
  expect(2, {"check", "stat", "Shared/Team"});
  expect(2, {"check", "--user", "nobody-of-this-name", "stat", "Shared/Team"});
}

TEST_F(ExitCodes, OfQuestionsAboutManyAreTwoWithoutTheMaps) {
  write_file("/scratch/groups.json",
             R"({"reserved": {"tavrix-powerusers": 9002}, "users": {"daemon": [9002, 2001]}})");
  expect(2, {"who", "Shared/Team"});
  expect(2, {"effective", "--user", "daemon"});
  expect(0, {"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"});
  expect(0, {"who", "Shared/Team"});
  expect(0, {"effective", "--user", "daemon"});
  expect(1, {"effective", "--user", "daemon", "Private/Other"});
  expect(2, {"effective", "--user", "nobody-of-this-name"});
  expect(2, {"who", "fly", "Shared/Team"});
  expect(0, {"map", "remove", "--yes"});
  expect(2, {"who", "Shared/Team"});
  expect(2, {"effective", "--user", "daemon"});
}

TEST_F(ExitCodes, OfHealthAreOneForAMachineThatMayNotServe) {
  expect(1, {"health"});  // there is no sweeper
}

TEST_F(ExitCodes, OfAClusterAreTwoOnAMachineAlone) {
  for (const Words& words : {Words{"cluster", "status"}, {"cluster", "adopt", "node2"}}) {
    expect(2, words);
  }
  make_two_nodes();
  expect(0, {"cluster", "status"});
  expect(0, {"cluster", "drain", "node2"});
  expect(1, {"cluster", "status"});
  expect(0, {"cluster", "resume", "node2"});
  expect(2, {"cluster", "drain", "node9"});
  expect(1, {"cluster", "adopt", "node2"});
}

TEST_F(ExitCodes, OfASearchInTheMapAreOneForNothing) {
  expect(0, {"map", "find", "team"});
  expect(1, {"map", "find", "nowhere"});
  expect(2, {"map", "find", "team", "--file", "/none"});
  expect(0, {"map", "tree", "Shared", "--children"});
  expect(1, {"map", "tree", "Nowhere", "--children"});
  expect(2, {"map", "tree", "--limit", "3"});
}

TEST_F(ExitCodes, OfAComparisonOfMapsAreOneForADifference) {
  write_json_pair({.name = "/"});
  expect(0, {"map", "diff", "current", "/etc/tavrix/.permbe_map"});
  expect(1, {"map", "diff", "current", "/scratch/size.json,/scratch/data.json"});
  expect(2, {"map", "diff", "current", "/none"});
  expect(2, {"map", "diff", "current", "current", "--effective"});  // there is no group list map
  expect(2, {"map", "diff", "current", "current", "--user", "bin"});
  expect(0, {"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"});
  expect(0, {"map", "diff", "current", "current", "--effective"});
}

TEST_F(ExitCodes, OfTheWayBackAreOneWhereNothingIsDone) {
  expect(0, {"map", "history"});
  expect(1, {"map", "rollback", "1", "--yes"});  // in force
  expect(2, {"map", "rollback", "2", "--yes"});
  expect(1, {"map", "approve", "--yes"});
  expect(1, {"map", "reject", "--yes"});
  expect(2, {"map", "approve", "--yes", "--checksum", "1a2b3c"});
  expect(0, {"map", "refused"});
  write_file("/scratch/refused", "a file");
  expect(2, {"map", "refused", "--dir", "/scratch"});
  write_json_pair({.name = "/"});
  expect(0, {"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"});
  expect(0, {"map", "rollback", "1", "--yes"});
  expect(2, {"check", "--uid", "1001", "stat", "Shared", "--at", "2001-01-01"});
}

TEST_F(ExitCodes, OfChecksOfMapsAreOneForErrors) {
  write_json_pair(team());
  expect(0, {"map", "lint", "/scratch/size.json", "/scratch/data.json"});
  expect(1, {"map", "lint", "/scratch/broken", "/scratch/broken"});
  expect(2, {"map", "lint", "/none", "/none"});
  expect(0, {"map", "verify"});
  expect(1, {"map", "verify", "/scratch/broken"});
  expect(2, {"map", "verify", "/none"});
  expect(0, {"groupmap", "verify", "/scratch/groups"});
  expect(1, {"groupmap", "verify", "/scratch/broken"});
  expect(2, {"groupmap", "verify", "/none"});
  expect(0, {"patterns", "check", "/scratch/good"});
  expect(1, {"patterns", "check", "/scratch/broken"});
  expect(2, {"patterns", "check", "/none"});
}

TEST_F(ExitCodes, OfAnImportAreOneForFilesWithErrors) {
  write_json_pair(team());
  expect(0, {"map", "import", "/scratch/size.json", "/scratch/data.json"});
  expect(1, {"map", "import", "/scratch/broken", "/scratch/broken"});
  expect(2, {"map", "import", "--trust", "/scratch/broken", "/scratch/broken"});
  expect(2, {"map", "import", "/none", "/none"});
  expect(0, {"map", "restore"});
  ASSERT_EQ(0, ctl({"map", "remove", "--yes"}).exit_code);
  write_file("/etc/tavrix/.permbe_map", "broken");
  expect(2, {"map", "restore"});
}

TEST_F(ExitCodes, OfSearchesAreOneWhereNothingIsFound) {
  expect(0, {"map", "tree", "Shared"});
  expect(1, {"map", "tree", "None"});
  expect(2, {"map", "tree", "--file", "/none"});
  expect(0, {"groupmap", "show", "anna", "--file", "/scratch/groups"});
  expect(1, {"groupmap", "show", "bert", "--file", "/scratch/groups"});
  expect(2, {"groupmap", "show", "--file", "/scratch/broken"});
  expect(0, {"patterns", "test", "/scratch/good", "a.tmp"});
  expect(1, {"patterns", "test", "/scratch/good", "a.tmp", "b"});
  expect(2, {"patterns", "test", "/none", "b"});
}

TEST_F(ExitCodes, OfTheHistoryAreOneWhereNothingIsRecorded) {
  write_history("/scratch/history.db");
  write_file("/scratch/damaged.db", std::string(5000, 'x'));
  const auto ask = [](int code, Words words, const char* file = "/scratch/history.db") {
    words.insert(words.begin(), "history");
    words.insert(words.end(), {"--database", file});
    expect(code, words);
  };
  ask(0, {"search"});
  ask(1, {"search", "--path", "Shared/none"});
  ask(2, {"search", "--after", "nowhere"});
  ask(2, {"search", "--limit", "0"});
  ask(0, {"user", "1001"});
  ask(1, {"user", "1003"});
  ask(2, {"user", "nobody-of-this-name"});
  ask(0, {"file", "Shared/Old"});
  ask(1, {"file", "Shared/none"});
  ask(0, {"report", "--since", "1700000000"});
  ask(2, {"report", "--since", "now", "--until", "yesterday"});
  ask(2, {"report", "--html", "/none/page"});
  for (const Words& words :
       {Words{"search"}, Words{"user", "1"}, Words{"file", "a"}, Words{"report"}}) {
    ask(2, words, "/none");
    ask(2, words, "/scratch/damaged.db");
  }
}

TEST_F(ExitCodes, OfDecodesAreOneForATornRecord) {
  for (const char* kind : {"events", "audit"}) {
    expect(0, {kind, "decode", "/scratch/dump"});
    expect(1, {kind, "decode", "/scratch/dump", "/scratch/broken"});
    expect(2, {kind, "decode", "/scratch/dump", "/none"});
    expect(2, {kind, "decode"});
  }
}

TEST_F(ExitCodes, OfTheBufferAreOneWhereSomethingIsMissing) {
  expect(0, {"events", "buffer", "create"});
  expect(2, {"events", "buffer", "create"});
  expect(0, {"events", "buffer", "show"});
  expect(0, {"events", "buffer", "flush"});
  expect(2, {"events", "buffer", "remove"});
  expect(0, {"events", "buffer", "remove", "--yes"});
  expect(2, {"events", "buffer", "remove", "--yes"});
  expect(1, {"events", "buffer", "show"});
  expect(2, {"events", "buffer", "flush"});
  expect(0, {"config", "remove", "--yes"});
  expect(2, {"events", "buffer", "show"});
  expect(2, {"events", "buffer", "create"});
}

TEST_F(ExitCodes, OfOtherCommandsAreTwoWhenTheyFail) {
  expect(0, {"map", "info"});
  expect(0, {"map", "acl", "Shared"});
  expect(0, {"map", "remove", "--yes"});
  expect(2, {"map", "info"});
  expect(2, {"map", "acl", "Shared"});
  expect(0, {"groupmap", "build", "/scratch/groups.json", "-o", "/scratch/groups"});
  expect(2, {"groupmap", "build", "/scratch/broken", "-o", "/scratch/groups"});
  expect(0, {"config", "load", kConf});
  expect(0, {"config", "show"});
  expect(0, {"config", "set", "VFS:debug level", "1"});
  expect(2, {"config", "load", "/scratch/broken"});
  expect(2, {"config", "set", "VFS:debug level", "11"});
  expect(2, {"config", "remove"});
  expect(0, {"config", "remove", "--yes"});
  expect(2, {"config", "remove", "--yes"});
  expect(2, {"config", "show"});
}

TEST_F(ExitCodes, OfTheJudgesAreTheirLevel) {
  for (const char* command : {"status", "doctor"}) {
    const auto answer = json({command});
    const std::map<std::string, int> codes = {{"well", 0}, {"warning", 1}, {"critical", 2}};
    EXPECT_EQ(codes.at(answer["level"]), ctl({command}).exit_code) << answer.dump();
  }
}

TEST_F(ExitCodes, OfClusterCommands) {
  expect(0, {"cluster", "lost", "node2"});
  make_dirs("/tavrix/.conf/cluster/nodes");
  write_file("/tavrix/.conf/cluster/nodes/node2.json", "{}");
  expect(1, {"cluster", "lost", "node2"});
  expect(2, {"cluster", "lost", "-"});
  expect(2, {"cluster", "lost"});
}

TEST_F(ExitCodes, OfTheServices) {
  const auto code = [](const Words& words) {
    Words line = words;
    line[0] = TAVRIX_BUILD_DIR "/tools/" + words[0];
    return run_program(line).exit_code;
  };
  EXPECT_EQ(0, code({"tavrix-loader", "--once", "--dir", "/scratch/maps"}));
  write_file("/scratch/maps/size.json", "broken");
  write_file("/scratch/maps/data.json", "broken");
  EXPECT_EQ(1, code({"tavrix-loader", "--once", "--dir", "/scratch/maps"}));
  EXPECT_EQ(2, code({"tavrix-loader", "--once", "--dir", "/scratch/dump"}));
  EXPECT_EQ(0, code({"tavrix-sweeper", "--once"}));
  write_file("/scratch/conf", "[HISTORIAN]\ndatabase = /scratch/history/history.db\n");
  const Words historian = {"tavrix-historian", "--once", "--settings", "/scratch/conf"};
  EXPECT_EQ(0, code(historian));
  write_file("/scratch/conf", "[HISTORIAN]\ndatabase = /proc/history/history.db\n");
  EXPECT_EQ(1, code(historian));
  for (const std::string service : {"tavrix-loader", "tavrix-sweeper", "tavrix-historian"}) {
    EXPECT_EQ(2, run_program({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                              TAVRIX_BUILD_DIR "/tools/" + service, "--once"})
                     .exit_code);
  }
  EXPECT_EQ(0, code({"tavrix-sample-tree", "/scratch/a", "/scratch/b"}));
  EXPECT_EQ(2, code({"tavrix-sample-tree", "/none/a", "/none/b"}));
}

}  // namespace
}  // namespace tavrix::test
