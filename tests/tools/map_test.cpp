// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map and tavrixctl check.

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include "perm_map.h"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

class Map : public Operator {};

TEST_F(Map, ImportsAndMakesTheMapCurrent) {
  const Outcome outcome = import(team());
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ("table 1 is current: 5 folders, 5 entries, 562 B\n", outcome.out);
  EXPECT_TRUE(exists("/etc/tavrix/.permbe_map"));
  EXPECT_EQ(1, segments_in_use());
}

TEST_F(Map, KeepsTheFilesOfTheOperator) {
  ASSERT_EQ(0, import(team()).exit_code);
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
  const Outcome again =
      ctl({"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"});
  EXPECT_EQ(0, again.exit_code) << again.err;
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
}

TEST_F(Map, ConsumesTheFilesOnRequest) {
  write_json_pair(team());
  const Outcome outcome =
      ctl({"map", "import", "--consume", "/scratch/size.json", "/scratch/data.json"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_FALSE(exists("/scratch/size.json") || exists("/scratch/data.json"));
}

TEST_F(Map, ConsumesNothingThatDidNotBecomeCurrent) {
  write_json_pair(team());
  write_file("/scratch/data.json", "garbage");
  const std::vector<std::string> words = {"map", "import", "--consume", "/scratch/size.json",
                                          "/scratch/data.json"};
  for (const bool is_trusted : {false, true}) {
    std::vector<std::string> line = words;
    if (is_trusted) line.emplace_back("--trust");
    EXPECT_NE(0, ctl(line).exit_code);
    EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
  }
}

TEST_F(Map, ImportsAgainInTheOtherTable) {
  import(team());
  const Outcome outcome = import({.name = "/"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "table 0 is current: 1 folder, "));
  EXPECT_EQ(1, segments_in_use());
  EXPECT_EQ(1, json({"map", "info"})["map"]["folders"]);
}

TEST_F(Map, LintsBeforeItImports) {
  write_json_pair(team());
  write_file("/scratch/size.json", size_json({4, 5, 20}));
  const Outcome outcome = ctl({"map", "import", "/scratch/size.json", "/scratch/data.json"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "TOTALFSELEMS is 4; the data file needs 5")) << outcome.out;
  EXPECT_TRUE(exists("/scratch/data.json"));
  EXPECT_EQ(0, segments_in_use());
}

// An import that aborts and one of a document that ends early leave the old map as it is.
TEST_F(Map, KeepsTheMapOfBeforeWhateverIsTrusted) {
  import(team());
  const std::string copy = read_file("/etc/tavrix/.permbe_map");
  for (const char* text :
       {"[{\"DIR\":\"x\"}]", "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",", "[]", "", "garbage"}) {
    write_file("/scratch/size.json", size_json(count(team())));
    write_file("/scratch/data.json", text);
    const Outcome outcome =
        ctl({"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"});
    EXPECT_EQ(2, outcome.exit_code) << text << outcome.out;
    EXPECT_EQ(copy, read_file("/etc/tavrix/.permbe_map")) << text;
    EXPECT_EQ(5, json({"map", "info"})["map"]["folders"]) << text;
    EXPECT_EQ(1, segments_in_use()) << text;
  }
}

TEST_F(Map, LeavesNoCopyOfAFirstImportThatFails) {
  write_file("/scratch/size.json", size_json(count(team())));
  write_file("/scratch/data.json", "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",");
  EXPECT_EQ(
      2, ctl({"map", "import", "--trust", "/scratch/size.json", "/scratch/data.json"}).exit_code);
  EXPECT_FALSE(exists("/etc/tavrix/.permbe_map"));
  EXPECT_EQ(0, segments_in_use());
}

TEST_F(Map, ImportsOverAStaleTable) {
  import(team());
  int shmid = -1;
  shmdt(create_perm_map_shm(0x70657269, 100, &shmid));
  EXPECT_EQ(0, ctl({"map", "remove", "--stale"}).exit_code);
  EXPECT_EQ(-1, shmget(0x70657269, 0, 0));
  shmdt(create_perm_map_shm(0x70657269, 100, &shmid));
  const Outcome imported = import(team());
  EXPECT_EQ(0, imported.exit_code);
  EXPECT_TRUE(contains(imported.err, "removed table 0")) << imported.err;
}

TEST_F(Map, ShowsTheTracesOfTheLibraryOnlyWhenAsked) {
  EXPECT_FALSE(contains(import(team()).out, "hahsval"));
  write_json_pair(team());
  EXPECT_TRUE(contains(ctl({"-v", "map", "import", "/scratch/size.json", "/scratch/data.json"}).out,
                       "--------> Name Team hahsval"));
}

TEST_F(Map, NeedsItsFiles) {
  const Outcome outcome = ctl({"map", "import", "/none", "/none"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ("tavrixctl: cannot open /none: No such file or directory\n", outcome.err);
  EXPECT_EQ(2, ctl({"map", "import", "--trust", "/none", "/none"}).exit_code);
}

TEST_F(Map, RestoresTheLocalCopy) {
  import(team());
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(0, segments_in_use());
  const Outcome outcome = ctl({"map", "restore"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(5, json({"map", "info"})["map"]["folders"]);
}

TEST_F(Map, RestoresNothingThatIsBroken) {
  EXPECT_EQ(2, ctl({"map", "restore"}).exit_code);
  import(team());
  std::string copy = read_file("/etc/tavrix/.permbe_map");
  copy[200] = 'x';
  write_file("/etc/tavrix/.permbe_map", copy);
  ctl({"map", "remove", "--yes"});
  const Outcome outcome = ctl({"map", "restore"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "is not a sound image")) << outcome.err;
  EXPECT_EQ(0, segments_in_use());
}

TEST_F(Map, TellsItsHeaderAndTables) {
  import(team());
  const auto info = json({"map", "info"});
  EXPECT_EQ("map", info["map"]["name"]);
  EXPECT_EQ(7, info["map"]["generation"]);
  EXPECT_EQ(1, info["current"]);
  EXPECT_EQ(true, info["initialized"]);
  EXPECT_EQ(false, info["tables"][0]["exists"]);
  EXPECT_EQ(562, info["tables"][1]["bytes"]);
  const Outcome text = ctl({"map", "info"});
  EXPECT_TRUE(contains(text.out, "5 folders, 5 entries")) << text.out;
}

// A small stack stands for a much deeper map.
TEST_F(Map, ShowsATreeThatIsDeeperThanAStack) {
  constexpr int kLevels = 3000;
  Folder top{.name = "d"};
  for (int level = 1; level < kLevels; ++level) top = {.name = "d", .children = {std::move(top)}};
  import({.name = "/", .children = { std::move(top) }});
  const std::string tree = std::string("ulimit -s ") +
                           (std::string(TAVRIX_SANITIZED_BUILD) == "ON" ? "2048" : "384") +
                           "; exec " TAVRIX_BUILD_DIR "/tools/tavrixctl ";
  const Outcome text = run_program({"sh", "-c", tree + "map tree --depth 10000"});
  EXPECT_EQ(0, text.exit_code) << text.signal;
  EXPECT_EQ(kLevels + 1, std::count(text.out.begin(), text.out.end(), '\n'));
  const Outcome json = run_program({"sh", "-c", tree + "--json map tree --depth 10000"});
  EXPECT_EQ(2, json.exit_code) << json.signal;
  EXPECT_TRUE(contains(json.err, "more than 1000 levels")) << json.err;
  EXPECT_EQ(0, ctl({"--json", "map", "tree", "--depth", "1000"}).exit_code);
}

// The tree is printed while it is walked; a document as a whole is the model of its layout.
TEST_F(Map, LaysItsTreeOutAsAnyDocument) {
  Folder root = team();
  root.children.push_back({.name = "caf\xe9", .children = {{.name = "\"{}[]\\,\n"}}});
  publish(build_image(root));
  for (const char* depth : {"0", "1", "2", "3", "9"}) {
    for (const char* path : {"/", "Shared", "Shared/Team/Docs"}) {
      const std::string text = ctl({"--json", "map", "tree", path, "--depth", depth}).out;
      EXPECT_EQ(nlohmann::ordered_json::parse(text).dump(2) + "\n", text) << path << " " << depth;
    }
  }
}

TEST_F(Map, ShowsItsTree) {
  import(team());
  EXPECT_EQ("/  (1 entry)\n  Shared\n    Team  (3 entries)\n      Docs\n      Secret  (1 entry)\n",
            ctl({"map", "tree", "--depth", "9"}).out);
  EXPECT_EQ("Team  (3 entries)\n", ctl({"map", "tree", "shared/TEAM", "--depth", "0"}).out);
  EXPECT_EQ("Docs", json({"map", "tree", "Shared/Team"})["children"][0]["name"]);
  EXPECT_EQ(1, ctl({"map", "tree", "Nowhere"}).exit_code);
}

TEST_F(Map, ShowsTheGoverningEntries) {
  import(team());
  const auto inherited = json({"map", "acl", "Shared/Team/Docs/x"});
  EXPECT_EQ(true, inherited["inherited"]);
  EXPECT_EQ("/Shared/Team", inherited["from"]);
  EXPECT_EQ(false, inherited["in_map"]);
  EXPECT_EQ(3U, inherited["entries"].size());
  EXPECT_EQ("read write delete", inherited["entries"][0]["rights"]);
  const auto own = json({"map", "acl", "/Shared/Team"});
  EXPECT_EQ(false, own["inherited"]);
  const Outcome text = ctl({"map", "acl", "Shared/Team/Secret"});
  EXPECT_TRUE(contains(text.out, "Shared/Team/Secret: explicit at /Shared/Team/Secret\n"))
      << text.out;
  EXPECT_TRUE(contains(text.out, "user  1001")) << text.out;
}

TEST_F(Map, KnowsTheNamesOfIds) {
  import({.name = "/", .users = {{ 0, 7 }}, .groups = { { 0, 1 } }});
  const auto acl = json({"map", "acl", "/"});
  EXPECT_EQ("root", acl["entries"][0]["name"]);
  EXPECT_EQ("root", acl["entries"][1]["name"]);
}

TEST_F(Map, ShowsNamesOfAnyBytes) {
  publish(build_image({.name = "/", .children = {{.name = "a\xff\nb"}}}));
  EXPECT_TRUE(contains(ctl({"map", "tree"}).out,
                       "a\xff\\x0a"
                       "b"));
  const auto tree = json({"map", "tree"});
  EXPECT_EQ("Yf8KYg==", tree["children"][0]["name_base64"]);
}

TEST_F(Map, LooksAtFilesToo) {
  import(team());
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(5, json({"map", "info", "--file", "/etc/tavrix/.permbe_map"})["map"]["folders"]);
  EXPECT_EQ(0, ctl({"map", "verify", "/etc/tavrix/.permbe_map"}).exit_code);
  EXPECT_EQ(
      "Team  (3 entries)\n",
      ctl({"map", "tree", "Shared/Team", "--depth", "0", "--file", "/etc/tavrix/.permbe_map"}).out);
}

TEST_F(Map, VerifiesBeforeItLooks) {
  write_file("/scratch/broken", std::string(500, 'x'));
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"map", "info"}, {"map", "tree", "/"}, {"map", "acl", "/"}}) {
    auto command = words;
    command.insert(command.end(), {"--file", "/scratch/broken"});
    const Outcome outcome = ctl(command);
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, "the image is broken")) << outcome.err;
  }
  const Outcome verify = ctl({"map", "verify", "/scratch/broken"});
  EXPECT_EQ(1, verify.exit_code);
  EXPECT_TRUE(contains(verify.out, "the header's signature is 0x78787878")) << verify.out;
}

TEST_F(Map, WithoutOneSaysSo) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"map", "info"},
                                                {"map", "tree"},
                                                {"map", "acl", "/"},
                                                {"map", "verify"}}) {
    const Outcome outcome = ctl(words);
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, "there is no map")) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
  }
}

TEST_F(Map, LintsWithExitCodes) {
  write_json_pair(team());
  EXPECT_EQ(0, ctl({"map", "lint", "/scratch/size.json", "/scratch/data.json"}).exit_code);
  EXPECT_EQ(0, json({"map", "lint", "/scratch/size.json", "/scratch/data.json"})["errors"]);
  write_file("/scratch/data.json", "[");
  EXPECT_EQ(1, ctl({"map", "lint", "/scratch/size.json", "/scratch/data.json"}).exit_code);
  EXPECT_EQ(2, ctl({"map", "lint", "/scratch/size.json", "/none"}).exit_code);
}

TEST_F(Map, RemovesEverything) {
  import(team());
  EXPECT_EQ(0, ctl({"map", "remove", "--yes"}).exit_code);
  EXPECT_EQ(0, segments_in_use());
  EXPECT_EQ(-1, semget(ftok("/dev/null", 7065), 0, 0));
  EXPECT_EQ(0, ctl({"map", "remove", "--yes"}).exit_code);
}

// --- check ---------------------------------------------------------------------------------------

class Check : public Map {
 protected:
  void SetUp() override {
    Map::SetUp();
    import(team());
    make_dirs("/tavrix/Shared/Team/Secret");
    write_file("/tavrix/Shared/Team/plan.txt", "");
  }
  static Outcome ask(std::vector<std::string> words) {
    words.insert(words.begin(), "check");
    words.insert(words.end(), {"--admins-gid", "9001", "--powerusers-gid", "9002"});
    return ctl(words);
  }
};

TEST_F(Check, GrantsAndRefuses) {
  EXPECT_EQ(0,
            ask({"--uid", "1001", "--groups", "9002", "unlink", "Shared/Team/plan.txt"}).exit_code);
  EXPECT_EQ(1,
            ask({"--uid", "1003", "--groups", "9002", "unlink", "Shared/Team/plan.txt"}).exit_code);
  EXPECT_EQ(0, ask({"--uid", "1003", "--groups", "9002,2001", "open-read", "Shared/Team/plan.txt"})
                   .exit_code);
  EXPECT_EQ(0, ask({"--uid", "1003", "--gid", "2001", "--groups", "9002", "OPEN_READ",
                    "/tavrix/Shared/Team/plan.txt"})
                   .exit_code);
  EXPECT_EQ(0,
            ask({"--uid", "7", "--groups", "9001", "fsop_rmdir", "Shared/Team/Secret"}).exit_code);
}

TEST_F(Check, SaysWhy) {
  EXPECT_TRUE(ask({"--uid", "1001", "stat", "Shared/Team"})
                  .out.ends_with("\nrefused: user 1001 is neither administrator nor power user\n"));
  EXPECT_TRUE(ask({"--uid", "1002", "--groups", "9002", "opendir", "Shared/Team"})
                  .out.ends_with("\ngranted (to see, not to open): user 1002 may view Shared/Team "
                                 "(own entry); opendir needs no more\n"));
  EXPECT_TRUE(ask({"--uid", "1001", "stat", "/tavrix"})
                  .out.ends_with("\ngranted: the share itself is open to everybody\n"));
  const Outcome traced =
      ask({"--uid", "1001", "--groups", "9002", "--trace", "stat", "Shared/Team"});
  EXPECT_TRUE(contains(traced.err, "ENFORCE_PERMS GRANTED for op=(16)")) << traced.err;
}

TEST_F(Check, AsksForUsersOfTheMachine) {
  const Outcome outcome = ask({"--user", "root", "stat", "Shared"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_EQ(2, ask({"--user", "no such user", "stat", "Shared"}).exit_code);
}

TEST_F(Check, TakesGroupsFromTheGroupMap) {
  write_file(
      "/scratch/groups.json",
      R"({"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {"daemon": [9002, 2001]}})");
  ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"});
  EXPECT_EQ(0, ctl({"check", "--user", "daemon", "open-read", "Shared/Team/plan.txt"}).exit_code);
  EXPECT_EQ(1, ctl({"check", "--user", "daemon", "open-write", "Shared/Team/plan.txt"}).exit_code);
  EXPECT_EQ(1, ctl({"check", "--user", "bin", "open-read", "Shared/Team/plan.txt"}).exit_code);
  EXPECT_EQ(1,
            ctl({"check", "--user", "daemon", "--groups", "5", "open-read", "Shared/Team/plan.txt"})
                .exit_code);
}

TEST_F(Check, TakesAnotherRoot) {
  make_dirs("/scratch/share/Shared/Team/Secret");
  EXPECT_EQ(1, ask({"--uid", "1001", "--groups", "9002", "--root", "/scratch/share", "opendir",
                    "/scratch/share/Shared/Team/Secret"})
                   .exit_code);
}

TEST_F(Check, RefusesToAskWhatHasNoRule) {
  for (const char* operation : {"chmod", "statvfs", "nonsense", ""}) {
    EXPECT_EQ(2, ask({"--uid", "1", operation, "Shared"}).exit_code) << operation;
  }
  EXPECT_EQ(2, ask({"stat", "Shared"}).exit_code);
  EXPECT_EQ(2, ask({"--uid", "1", "--user", "root", "stat", "Shared"}).exit_code);
  EXPECT_EQ(2, ctl({"check"}).exit_code);
}

TEST_F(Check, WithoutAMapFails) {
  ctl({"map", "remove", "--yes"});
  const Outcome outcome = ask({"--uid", "1001", "--groups", "9002", "stat", "Shared/Team"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "\nsystem error: there is no permission map; ")) << outcome.out;
}

TEST_F(Check, IsForTheSuperuser) {
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    ASSERT_EQ(0, setresuid(1000, 1000, 1000));
    const Outcome refused = run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "map", "info"});
    EXPECT_TRUE(refused.err.starts_with("tavrixctl: run this as root\n")) << refused.err;
    // The leak sanitizer cannot inspect a process that changed its user, and would end it with an
    // error.
    const bool sanitized = std::string_view(TAVRIX_SANITIZED_BUILD) == "ON";
    EXPECT_TRUE(refused.exit_code == 2 || (sanitized && refused.exit_code == 1));
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

TEST_F(Check, Teaches) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"--help"},
                                                {"map", "--help"},
                                                {"check", "--help"},
                                                {"config", "--help"}}) {
    const Outcome outcome = ctl(words);
    EXPECT_EQ(0, outcome.exit_code);
    EXPECT_GT(outcome.out.size(), 200U);
  }
}

}  // namespace
}  // namespace tavrix::test
