// SPDX-License-Identifier: LGPL-3.0-or-later
// The JSON of every command, validated against the schemas in docs/json.

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

#include "tests/tools/history.hpp"
#include "tests/tools/sweeper.hpp"
#include "tests/tools/two_nodes.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

const std::string kSchemas = TAVRIX_SOURCE_DIR "/docs/json";

std::string joined(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// A command that prints data: its words, arguments for it, and the schema if that is not named by
// the words.
struct Example {
  Words command, arguments;
  std::string schema;
  [[nodiscard]] std::string schema_name() const {
    if (!schema.empty()) return schema;
    std::string name = joined(command);
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
  }
};

const char* const kImage = "/etc/tavrix/.permbe_map";
const char* const kGroups = "/scratch/groups";
const char* const kPatterns = "/scratch/patterns";
const char* const kHistory = "/scratch/history.db";
const std::string kLoader = TAVRIX_BUILD_DIR "/tools/tavrix-loader";

Words power_user(const std::string& operation, const std::string& path) {
  return {"--uid", "1003", "--groups", "9002,2001", "--powerusers-gid", "9002", operation, path};
}

// In this order: what an import removes is made again for the next.
std::vector<Example> examples() {
  return {
      {{"config", "show"}, {}, {}},
      {{"health"}, {}, {}},
      {{"cluster", "status"}, {}, {}},
      {{"cluster", "drain"}, {"node2"}, {}},
      {{"cluster", "resume"}, {"node2"}, {}},
      {{"cluster", "adopt"}, {"node2", "--yes-it-is-gone"}, {}},
      {{"cluster", "share"}, {"--settings", "--groups"}, {}},
      {{"map", "lint"}, {"/scratch/size.json", "/scratch/data.json"}, {}},
      {{"map", "lint"}, {"/scratch/broken.json", "/scratch/broken.json"}, {}},
      {{"map", "import"}, {"/scratch/size.json", "/scratch/data.json"}, {}},
      {{"map", "import"}, {"/scratch/broken.json", "/scratch/broken.json"}, {}},
      {{"map", "restore"}, {}, {}},
      {{"map", "info"}, {}, {}},
      {{"map", "info"}, {"--file", kImage}, {}},
      {{"map", "tree"}, {}, {}},
      {{"map", "tree"}, {"Shared", "--depth", "0"}, {}},
      {{"map", "tree"}, {"--children", "--limit", "1"}, {}},
      {{"map", "tree"}, {"--children", "--file", kImage}, {}},
      {{"map", "tree"}, {"Nowhere"}, "error"},
      {{"map", "find"}, {"e", "--limit", "2"}, {}},
      {{"map", "find"}, {"caf\xe9", "--file", kImage}, {}},
      {{"check"}, {"--user", "\xe9", "stat", "Shared"}, "error"},
      {{"map", "acl"}, {"/Shared/Team/Docs"}, {}},
      {{"map", "acl"}, {"/caf\xe9"}, {}},
      {{"map", "diff"}, {"current", kImage}, {}},
      {{"map", "diff"}, {"current", "/scratch/other"}, {}},
      {{"map", "diff"}, {"current", "/scratch/opened", "--effective"}, {}},
      {{"status"}, {}, {}},
      {{"status"}, {"--settings", "/scratch/broken.json"}, {}},
      {{"doctor"}, {}, {}},
      {{"cluster", "lost"}, {"node9"}, {}},
      {{"cluster", "lost"}, {"-"}, "error"},
      {{"map", "verify"}, {}, {}},
      {{"map", "verify"}, {"/scratch/broken.json"}, {}},
      {{"check"}, {"--uid", "1001", "--groups", "5,6", "stat", "Shared/Team"}, {}},
      {{"check"}, power_user("open-write", "Shared/Team/none"), {}},
      {{"check"}, power_user("read", "Shared/caf\xe9/x"), {}},
      {{"check"}, power_user("create", "../x"), {}},
      {{"check"},
       {"--uid", "1001", "--groups", "9001", "--admins-gid", "9001", "list", "Private"},
       {}},
      {{"groupmap", "build"}, {"/scratch/groups.json", "-o", kGroups}, {}},
      {{"groupmap", "show"}, {"--file", kGroups}, {}},
      {{"groupmap", "verify"}, {kGroups}, {}},
      {{"who"}, {"--refused", "list", "Shared/Team"}, {}},
      {{"effective"}, {"--user", "bin"}, {}},
      {{"effective"}, {"--user", "bin", "--children", "--limit", "1"}, {}},
      {{"effective"}, {"--user", "bin", "Nowhere"}, {}},
      {{"effective"}, {"--group", "2001", "\\Shared"}, {}},
      {{"groupmap", "verify"}, {"/scratch/broken.json"}, {}},
      {{"events", "decode"}, {"/scratch/dump"}, {}},
      {{"events", "decode"}, {"--stats", "/scratch/dump"}, "events-decode-stats"},
      {{"audit", "decode"}, {"/scratch/audits"}, {}},
      {{"audit", "decode"}, {"--stats", "/scratch/audits"}, "audit-decode-stats"},
      {{"history", "search"}, {"--database", kHistory, "--reads"}, {}},
      {{"history", "search"}, {"--database", kHistory, "--limit", "1"}, {}},
      {{"history", "user"}, {"--database", kHistory, "1001"}, {}},
      {{"history", "file"}, {"--database", kHistory, "--reads", "Shared/caf\xe9"}, {}},
      {{"history", "file"}, {"--database", kHistory, "Shared/none"}, {}},
      {{"history", "report"}, {"--database", kHistory, "--since", "1700000000"}, {}},
      {{"events", "buffer", "show"}, {}, {}},
      {{"patterns", "check"}, {kPatterns}, {}},
      {{"patterns", "test"}, {kPatterns, "a.tmp", "b"}, {}},
      {{"check"}, {"--uid", "1001", "stat", "Shared/Team", "--at", "now"}, {}},
      {{"who"}, {"Shared/Team", "--at", "now"}, {}},
      {{"effective"}, {"--user", "bin", "--at", "now"}, {}},
      {{"map", "history"}, {}, {}},
      {{"map", "rollback"}, {"1", "--yes"}, {}},
      {{"map", "history"}, {}, {}},
      {{"map", "approve"}, {"--force", "--yes", "--checksum", "00000000"}, "error"},
      {{"map", "approve"}, {"--force", "--yes"}, {}},
      {{"map", "refused"}, {"--dir", "/scratch/inbox"}, {}},
      {{"map", "refused"}, {"--dir", "/scratch/inbox", "--limit", "1"}, {}},
  };
}

// Commands that print no data, with arguments for them. They come last: some remove what others
// show.
std::vector<Example> silent_commands() {
  return {
      {{"config", "set"}, {"VFS:debug level", "0"}, {}},
      {{"config", "load"}, {"/scratch/conf"}, {}},
      {{"events", "buffer", "flush"}, {}, {}},
      {{"events", "buffer", "remove"}, {"--yes"}, {}},
      {{"events", "buffer", "create"}, {}, {}},
      {{"map", "reject"}, {"--yes"}, {}},
      {{"map", "remove"}, {"--yes"}, {}},
      {{"config", "remove"}, {"--yes"}, {}},
  };
}

class JsonOutput : public SweeperWorld {
 protected:
  void SetUp() override {
    SweeperWorld::SetUp();
    once();
    ASSERT_EQ(0, append("/tavrix/waits"));
    import({.name = "/"});
    import(team());
    hold_a_map();
    write_json_pair(team());
    write_file("/scratch/broken.json", "{\"broken\": ");
    write_other_maps();
    write_file("/scratch/groups.json", R"({"reserved": {"admins": 9001}, "users": {"anna": [1]}})");
    write_file(
        "/scratch/people.json",
        R"({"reserved": {"tavrix-powerusers": 9002}, "users": {"bin": [9002], "nobody here": []}})");
    ctl({"groupmap", "build", "/scratch/people.json", "-o", "/etc/tavrix/groupmap_refresh"});
    write_file(kPatterns, "^~\n#comment\n[.]tmp$\n");
    write_file("/scratch/dump", event() + event());
    write_history(kHistory);
    write_file("/scratch/audits", audit());
    refuse_pairs();
    make_two_nodes();
  }
  static void write_map(const std::string& path, const Folder& root) {
    const auto image = build_image(root);
    write_file(path, {reinterpret_cast<const char*>(image.data()), image.size()});
  }
  static void hold_a_map() {
    make_dirs("/scratch/maps");
    write_file("/scratch/hold.conf", "[LOADER]\nhold removed folders pct = 0\n");
    write_json_pair({.name = "/"});
    for (const std::string name : {"size.json", "data.json"}) {
      ASSERT_EQ(0, rename(("/scratch/" + name).c_str(), ("/scratch/maps/" + name).c_str()));
    }
    run_program({kLoader, "--once", "--dir", "/scratch/maps", "--settings", "/scratch/hold.conf"});
    ASSERT_TRUE(exists("/etc/tavrix/maps/held.json"));
  }
  // One that the checks refuse, and one of before, whose findings were not stored.
  static void refuse_pairs() {
    make_dirs("/scratch/inbox/refused/20260101T000000.000000Z");
    write_file("/scratch/inbox/refused/20260101T000000.000000Z/reason.txt", "caf\xe9\nerror: x\n");
    for (const char* name : {"size.json", "data.json"}) {
      write_file(std::string("/scratch/inbox/") + name, "{\"caf\xe9\": ");
    }
    run_program({kLoader, "--once", "--dir", "/scratch/inbox"});
    ASSERT_EQ(2U, list("/scratch/inbox/refused").size());
  }
  // Maps that differ from the one in force: one in every way, and one in what a user may.
  static void write_other_maps() {
    Folder opened = team();
    opened.children[0].children[0].users = {{2, 7}};
    write_map("/scratch/opened", opened);
    Folder other = team();
    Folder& shared = other.children[0];
    shared.groups = {{2000, 3}};
    shared.children.push_back({.name = "caf\xe9", .users = {{0, 3}}});
    shared.children.push_back(shared.children[0].children[1]);
    shared.children[0].children = {};
    write_map("/scratch/other", other);
  }
  static std::string framed(const staging_data_s& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record + record.size};
  }
  static std::string event() {
    VFSEvent event = VFSEVENT__INIT;
    event.path = const_cast<char*>("/tavrix/caf\xe9");
    pop_vfs_event(&event, 1001);
    return framed(*Malloced<staging_data_s>(create_staging_data_buf(&event)));
  }
  static std::string audit() {
    AuditEvent audit = AUDIT_EVENT__INIT;
    audit.path = const_cast<char*>("/tavrix/plan.txt");
    audit.time_sec = 1700000000;
    std::string payload(audit_event__get_packed_size(&audit), 0);
    audit_event__pack(&audit, reinterpret_cast<uint8_t*>(payload.data()));
    const staging_data_s head{static_cast<uint32_t>(payload.size()), STAGING_DATA_SIGNATURE};
    return std::string(reinterpret_cast<const char*>(&head), sizeof head) + payload;
  }
  static Outcome validate(const std::string& text) {
    return run_program(
        {"/usr/bin/python3", TAVRIX_SOURCE_DIR "/tests/tools/validate_json.py", kSchemas}, text);
  }
  static Outcome run(const Example& example) {
    Words words{"--json"};
    words.insert(words.end(), example.command.begin(), example.command.end());
    words.insert(words.end(), example.arguments.begin(), example.arguments.end());
    return ctl(words);
  }
  // The commands that have none below them.
  static void find_commands(const Words& words, std::set<std::string>& found) {
    const auto below = subcommands(words);
    if (below.empty()) found.insert(joined(words));
    for (const std::string& name : below) {
      Words next = words;
      next.push_back(name);
      find_commands(next, found);
    }
  }
};

TEST_F(JsonOutput, OfEveryCommandIsValid) {
  std::set<std::string> used{"README.md"};
  std::string documents;
  std::vector<std::string> names;
  for (const Example& example : examples()) {
    const std::string name = example.schema_name();
    const Outcome outcome = run(example);
    ASSERT_FALSE(outcome.out.empty()) << name << ": " << outcome.err;
    documents += outcome.out;
    if (names.empty() || names.back() != name) names.push_back(name);
    used.insert(name + ".schema.json");
  }
  const Outcome verdict = validate(documents);
  EXPECT_EQ(0, verdict.exit_code) << verdict.err;
  // Several documents in a row may be of one schema.
  std::vector<std::string> found;
  std::istringstream in(verdict.out);
  for (std::string line; std::getline(in, line);) {
    const std::string name = line.substr(7, line.size() - 9);  // "tavrix.NAME/1"
    if (found.empty() || found.back() != name) found.push_back(name);
  }
  EXPECT_EQ(names, found);
  const auto files = list(kSchemas);
  EXPECT_EQ(used, std::set<std::string>(files.begin(), files.end()));
  const std::string readme = read_file(kSchemas + "/README.md");
  for (const std::string& file : files) {
    EXPECT_TRUE(file == "README.md" || contains(readme, "(" + file + ")")) << file;
  }
}

TEST_F(JsonOutput, IsTestedForEveryCommand) {
  std::set<std::string> known, found;
  for (const Example& example : examples()) known.insert(joined(example.command));
  for (const Example& example : silent_commands()) known.insert(joined(example.command));
  find_commands({}, found);
  EXPECT_EQ(known, found);
}

TEST_F(JsonOutput, IsEmptyForCommandsWithoutData) {
  for (const Example& example : silent_commands()) {
    const Outcome outcome = run(example);
    EXPECT_EQ(0, outcome.exit_code) << joined(example.command) << ": " << outcome.err;
    EXPECT_EQ("", outcome.out) << joined(example.command);
  }
}

TEST_F(JsonOutput, OfAnErrorLeavesThePlainTextWhereItWas) {
  const Outcome outcome = ctl({"--json", "map", "info", "--file", "/none"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ("/none: No such file or directory",
            nlohmann::json::parse(outcome.out)["error"]["message"]);
  EXPECT_EQ("tavrixctl: /none: No such file or directory\n", outcome.err);
}

// The records before the torn one are there, and the error behind them.
TEST_F(JsonOutput, HasTheErrorAsItsLastLine) {
  write_file("/scratch/torn", event() + event().substr(0, 30));
  const Outcome outcome = ctl({"--json", "events", "decode", "/scratch/torn"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_EQ(2, std::count(outcome.out.begin(), outcome.out.end(), '\n')) << outcome.out;
  EXPECT_EQ(0, validate(outcome.out).exit_code);
  EXPECT_TRUE(contains(outcome.out, "\n{\"schema\":\"tavrix.error/1\"")) << outcome.out;
}

TEST_F(JsonOutput, OfDumpFilesNamesItsSchemaOnlyOnRequest) {
  EXPECT_TRUE(ctl({"events", "decode", "/scratch/dump"}).out.starts_with("{\"time\":"));
  EXPECT_TRUE(contains(ctl({"--json", "events", "decode", "/scratch/dump"}).out,
                       "\n{\"schema\":\"tavrix.events-decode/1\",\"time\":"));
}

TEST_F(JsonOutput, IsRefusedByTheValidatorWhenItDiffersFromItsSchema) {
  const std::string begin = R"({"schema": "tavrix.groupmap-build/1", "file": "f", "users": )";
  EXPECT_EQ(0, validate(begin + R"(1, "reserved_groups": 0})").exit_code);
  for (const std::string rest :
       {R"(1})", R"("1", "reserved_groups": 0})", R"(1, "reserved_groups": 0, "new": 1})"}) {
    EXPECT_EQ(1, validate(begin + rest).exit_code) << rest;
  }
  EXPECT_EQ(1, validate(R"({"schema": "tavrix.none/1"})").exit_code);
  EXPECT_EQ(1, validate(R"({"file": "f", "schema": "tavrix.groupmap-build/1"})").exit_code);
  EXPECT_EQ(1, validate("[]").exit_code);
}

}  // namespace
}  // namespace tavrix::test
