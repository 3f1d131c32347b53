// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl check as people use it: the reason, the way to it, their words and their paths.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

// The accounts daemon, bin, sys and games are on every Debian, with the uids 1, 2, 3 and 5, as are
// the groups man (12) and proxy (13).
constexpr uint32_t kDaemon = 1;
constexpr uint32_t kMan = 12;
constexpr uint32_t kProxy = 13;

class CheckExplained : public Operator {
 protected:
  void SetUp() override {
    Operator::SetUp();
    const Folder drawings{.name = "Drawings"};
    const Folder vault{.name = "Vault", .users = {{kDaemon, 0}}};
    const Folder design{.name = "Design",
                        .users = {{4711, 7}},
                        .groups = {{kMan, 1}, {kProxy, 7}},
                        .children = {drawings, vault}};
    const Folder lobby{.name = "Lobby", .users = {{kDaemon, 8}}};
    import({.name = "/",
            .groups = {{
              2000,
              1
            }},
            .children = {
              {.name = "Shared",
               .children =
               { design,
                 lobby } }
            }});
    make_dirs("/tavrix/Shared/Design/Drawings");
    make_dirs("/tavrix/Shared/Design/Vault");
    make_dirs("/tavrix/Shared/Lobby/inside");
    make_dirs("/tavrix/Private/daemon");
    EXPECT_EQ(0, chown("/tavrix/Private/daemon", kDaemon, kDaemon));
    write_file("/tavrix/Shared/Design/plan.txt", "");
    write_groups(
        R"({"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
            "users": {"daemon": [9002, 12], "bin": [9002], "sys": [9001], "games": [12]}})");
  }
  static void write_groups(const std::string& text) {
    write_file("/scratch/groups.json", text);
    ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"});
  }
  static Outcome ask(const std::string& user, const std::string& operation,
                     const std::string& path) {
    return ctl({"check", "--user", user, operation, path});
  }
  static std::string answer(const std::string& user, const std::string& operation,
                            const std::string& path) {
    const std::string out = ask(user, operation, path).out;
    const auto last = out.rfind('\n', out.size() - 2);
    return last == std::string::npos ? out : out.substr(last + 1);
  }
  static std::string first_line(const std::string& text) { return text.substr(0, text.find('\n')); }
  static nlohmann::json told(const std::string& user, const std::string& operation,
                             const std::string& path) {
    return json({"check", "--user", user, operation, path});
  }
};

TEST_F(CheckExplained, EndsWithOneSentence) {
  EXPECT_EQ(
      "refused: daemon may only read Shared/Design (group man); open-write needs write there\n",
      answer("daemon", "open-write", "Shared/Design/plan.txt"));
  EXPECT_EQ("granted: daemon may read Shared/Design (group man); open-read needs no more\n",
            answer("daemon", "open-read", "Shared/Design/plan.txt"));
  EXPECT_EQ(
      "refused: bin has no rights on Shared/Design (no entry counts); open-read needs read "
      "there\n",
      answer("bin", "open-read", "Shared/Design/plan.txt"));
  EXPECT_EQ("refused: games is neither administrator nor power user\n",
            answer("games", "open-read", "Shared/Design/plan.txt"));
  EXPECT_EQ(
      "refused: daemon has no rights on Shared/Design/Vault (own entry); opendir needs one of "
      "read, navigate and view there\n",
      answer("daemon", "opendir", "Shared/Design/Vault"));
  EXPECT_EQ(
      "refused: only administrators make, rename and remove the folders in Shared; mkdir "
      "needs read and write there\n",
      answer("daemon", "mkdir", "Shared/New"));
  EXPECT_EQ("granted: administrators have all rights in Shared; mkdir needs no more\n",
            answer("sys", "mkdir", "Shared/New"));
  EXPECT_EQ("refused: Shared holds team folders and no files, whoever asks\n",
            answer("sys", "create", "Shared/new.txt"));
}

TEST_F(CheckExplained, NamesTheFolderThatTheEntriesComeFrom) {
  write_file("/tavrix/Shared/Design/Drawings/a.dwg", "");
  EXPECT_EQ(
      "granted: daemon may read Shared/Design/Drawings (group man, inherited from "
      "Shared/Design); open-read needs no more\n",
      answer("daemon", "read", "Shared/Design/Drawings/a.dwg"));
  EXPECT_EQ(
      "refused: bin has no rights on Shared/Design/Drawings (no entry of Shared/Design "
      "counts); open-read needs read there\n",
      answer("bin", "read", "Shared/Design/Drawings/a.dwg"));
}

TEST_F(CheckExplained, KnowsPrivateAndTheTopLevel) {
  EXPECT_EQ("refused: Private/daemon belongs to another user, and bin is no administrator\n",
            answer("bin", "opendir", "Private/daemon"));
  EXPECT_EQ("granted: Private/daemon belongs to daemon\n",
            answer("daemon", "create", "Private/daemon/x"));
  EXPECT_EQ("refused: there is no folder Private/none\n", answer("sys", "stat", "Private/none/x"));
  EXPECT_EQ("refused: the top level holds Shared and Private and nothing else\n",
            answer("sys", "stat", "Other"));
  EXPECT_EQ("granted: the path climbs above the share, where the file system refuses it\n",
            answer("bin", "stat", "../x"));
  EXPECT_EQ(
      "granted: .DS_Store is a bookkeeping file of a desktop, which is let through, although "
      "the top level holds Shared and Private and no files\n",
      answer("bin", "create", ".DS_Store"));
  EXPECT_EQ("special", told("bin", "create", ".DS_Store")["area"]);
  EXPECT_EQ("climbs", told("bin", "stat", "../x")["area"]);
  EXPECT_EQ("root", told("bin", "stat", "/tavrix")["area"]);
  EXPECT_EQ("top", told("bin", "stat", "Shared")["area"]);
  EXPECT_EQ("private", told("bin", "stat", "Private/daemon")["area"]);
}

TEST_F(CheckExplained, ShowsTheWholeWay) {
  const std::string out =
      ctl({"check", "--explain", "--user", "daemon", "write", "Shared/Design/plan.txt"}).out;
  EXPECT_EQ(
      R"(path       Shared/Design/plan.txt, a file, not in the map: Shared/Design stands in for it
caller     daemon (uid 1, primary group daemon), power user
groups     tavrix-powerusers and man (by the group list map)
area       shared
object     Shared/Design/plan.txt: entries inherited from Shared/Design
             user 4711                read, write and delete   another user
             group man                read                     counts
             group proxy              read, write and delete   not a member
             together: read
parent     Shared/Design: entries of its own
             user 4711                read, write and delete   another user
             group man                read                     counts
             group proxy              read, write and delete   not a member
             together: read
rule       open-write needs read and write on the parent folder
           asked with read on the object and read on the parent: does not hold
to grant   give group man write on Shared/Design
           or, for this user alone: give user daemon read and write on Shared/Design
refused: daemon may only read Shared/Design (group man); open-write needs write there
)",
      out);
}

// The document's examples are about accounts that no machine of ours has.
TEST_F(CheckExplained, ReadsAsTheDocumentSays) {
  const Folder design{.name = "Design", .users = {{4711, 7}}, .groups = {{kMan, 1}}};
  import({.name = "/",
          .groups = {{
            2000,
            1
          }},
          .children = {
            {.name = "Shared",
             .children =
             { design } }
          }});
  const auto as_documented = [](std::string text) {
    for (const auto& [ours, documents] : {std::pair{"uid 1,", "uid 1006,"},
                                          {"primary group daemon", "primary group people"},
                                          {"and man", "and readers"},
                                          {"daemon", "ben"},
                                          {"group man", "group readers"},
                                          {"user 4711", "user anna"}}) {
      text = std::regex_replace(text, std::regex(ours), documents);
    }
    return std::regex_replace(text, std::regex(" +"), " ");
  };
  const std::string document =
      std::regex_replace(read_file(TAVRIX_SOURCE_DIR "/docs/decision.md"), std::regex(" +"), " ");
  for (const std::string word : {"write", "read"}) {
    const std::string command = "check --explain --user daemon " + word + " Shared/Design/plan.txt";
    const Outcome outcome =
        ctl({"check", "--explain", "--user", "daemon", word, "Shared/Design/plan.txt"});
    const std::string expected = as_documented("$ tavrixctl " + command + "\n" + outcome.out);
    EXPECT_TRUE(contains(document, expected)) << expected;
  }
}

TEST_F(CheckExplained, SaysWhyAnEntryDoesNotCount) {
  const auto entries = told("daemon", "stat", "Shared/Lobby/inside")["object"]["entries"];
  ASSERT_EQ(1U, entries.size());
  EXPECT_EQ(false, entries[0]["counts"]);
  EXPECT_EQ("inherited, with navigate: that does not pass down", entries[0]["why"]);
  EXPECT_EQ(0, told("daemon", "stat", "Shared/Lobby/inside")["object"]["mask"]);
  const auto own = told("daemon", "stat", "Shared/Lobby")["object"];
  EXPECT_EQ(true, own["explicit"]);
  EXPECT_EQ(true, own["entries"][0]["counts"]);
  EXPECT_EQ(8, own["mask"]);
}

TEST_F(CheckExplained, SaysWhatWouldGrant) {
  const auto report = told("bin", "unlink", "Shared/Design/plan.txt");
  std::string rights;
  for (const auto& gift : report["would_grant"]) {
    EXPECT_EQ("Shared/Design", gift["folder"]);
    EXPECT_EQ("bin", gift["whom"]["name"]);
    rights += gift["right"].get<std::string>() + " ";
  }
  EXPECT_EQ("read write delete ", rights);
  EXPECT_FALSE(report.contains("would_grant_alone"));
  // A right of a group may be the smaller change; the caller's own stands beside it.
  const auto group = told("daemon", "open-write", "Shared/Design/plan.txt");
  ASSERT_EQ(1U, group["would_grant"].size());
  EXPECT_EQ("group", group["would_grant"][0]["whom"]["kind"]);
  EXPECT_EQ(2U, group["would_grant_alone"].size());
  EXPECT_TRUE(told("games", "stat", "Shared/Design")["would_grant"].empty());
  EXPECT_TRUE(told("daemon", "mkdir", "Shared/New")["would_grant"].empty());
}

TEST_F(CheckExplained, SaysWhatWouldRefuse) {
  const auto report = told("daemon", "open-read", "Shared/Design/plan.txt");
  ASSERT_EQ(1U, report["would_refuse"].size());
  EXPECT_EQ("Shared/Design", report["would_refuse"][0]["folder"]);
  EXPECT_EQ("man", report["would_refuse"][0]["whom"]["name"]);
  EXPECT_EQ(1, report["would_refuse"][0]["mask"]);
  EXPECT_TRUE(told("sys", "stat", "Shared/Design")["would_refuse"].empty());
}

TEST_F(CheckExplained, KnowsTheWordsOfPeople) {
  const auto operation = [](const std::string& word, const std::string& path) {
    const auto report = told("daemon", word, path);
    return report["operation"].get<std::string>() + " " + report["path"].get<std::string>();
  };
  const std::string file = "/tavrix/Shared/Design/plan.txt";
  EXPECT_EQ("open-read " + file, operation("read", file));
  EXPECT_EQ("open-write " + file, operation("write", file));
  EXPECT_EQ("unlink " + file, operation("delete", file));
  EXPECT_EQ("rename-src " + file, operation("RENAME", file));
  const std::string folder = "/tavrix/Shared/Design";
  EXPECT_EQ("opendir " + folder, operation("read", folder));
  EXPECT_EQ("opendir " + folder, operation("list", folder));
  EXPECT_EQ("rmdir " + folder, operation("delete", folder));
  EXPECT_EQ("create " + folder + "/new file", operation("write", folder));
  EXPECT_EQ("create " + folder + "/none", operation("create", folder + "/none"));
  EXPECT_EQ("create " + folder + "/none", operation("write", folder + "/none"));
  EXPECT_EQ("to write in a folder is to make a file in it; asked: create Shared/Design/new file",
            first_line(ask("daemon", "write", folder).out));
}

TEST_F(CheckExplained, SaysThatAnObjectIsMissing) {
  EXPECT_EQ("no such file; judged as one to be made",
            first_line(ask("daemon", "open-write", "Shared/Design/none.txt").out));
  EXPECT_EQ("missing", told("daemon", "open-write", "Shared/Design/none.txt")["object"]["type"]);
}

TEST_F(CheckExplained, UnderstandsTheClientsPaths) {
  for (const char* path :
       {"Shared\\Design\\plan.txt", "\\Shared\\Design\\plan.txt", "/tavrix/Shared/Design/plan.txt",
        "\\tavrix\\Shared\\Design\\plan.txt", "/Shared/Design/plan.txt"}) {
    EXPECT_EQ("/tavrix/Shared/Design/plan.txt", told("daemon", "read", path)["path"]) << path;
  }
  EXPECT_EQ("\\Shared\\Design: explicit at /Shared/Design",
            first_line(ctl({"map", "acl", "\\Shared\\Design"}).out));
  EXPECT_EQ(0, ctl({"map", "tree", "/tavrix/Shared/Design"}).exit_code);
}

TEST_F(CheckExplained, MapAclNamesTheFolderThatStandsIn) {
  const Outcome outcome = ctl({"map", "acl", "Shared/Design/Drawings/deep/er"});
  EXPECT_EQ(
      "Shared/Design/Drawings/deep/er: not in the map; /Shared/Design/Drawings stands in for "
      "it",
      first_line(outcome.out));
  EXPECT_TRUE(contains(outcome.out, "inherited from /Shared/Design\n")) << outcome.out;
  EXPECT_EQ("/Shared/Design/Drawings", json({"map", "acl", "Shared/Design/Drawings/x"})["folder"]);
}

TEST_F(CheckExplained, BeginsWithAGroupMapThatIsNotThere) {
  unlink("/etc/tavrix/groupmap_refresh");
  EXPECT_TRUE(ask("daemon", "stat", "Shared")
                  .out.starts_with("the group list map "
                                   "/etc/tavrix/groupmap_refresh is "
                                   "missing: servers take everybody for "
                                   "a standard user"));
  write_file("/etc/tavrix/groupmap_refresh", "broken");
  EXPECT_TRUE(contains(first_line(ask("daemon", "stat", "Shared").out), "is broken"));
  EXPECT_EQ("broken", told("daemon", "stat", "Shared")["group_map"]);
}

TEST_F(CheckExplained, FindsTheAccountOfAUid) {
  const auto report = json({"check", "--uid", "1", "open-read", "Shared/Design/plan.txt"});
  EXPECT_EQ("granted", report["verdict"]);
  EXPECT_EQ("daemon", report["caller"]["user"]);
  EXPECT_EQ("group map", report["caller"]["groups_from"]);
  EXPECT_EQ("power user", report["caller"]["class"]);
}

TEST_F(CheckExplained, KnowsTheReservedUser) {
  const std::string settings = "/scratch/smb.conf";
  write_file(settings,
             "[team]\n path = /tavrix\n vfs objects = tavrix\n tavrix:reserved user = bin\n");
  const auto ask_of = [&](const std::string& user) {
    return ctl({"check", "--smb-conf", settings, "--user", user, "rmdir", "Shared"}).out;
  };
  EXPECT_EQ("granted: bin is the reserved user, who may do everything\n", ask_of("bin"));
  EXPECT_TRUE(ask_of("daemon").starts_with("refused: "));
}

TEST_F(CheckExplained, WhoNamesTheUsersByTheirEntries) {
  EXPECT_EQ(R"(open-read /tavrix/Shared/Design/plan.txt: 2 of 4 users may
  administrator: sys
  group man: daemon
)",
            ctl({"who", "Shared/Design/plan.txt"}).out);
  EXPECT_EQ(R"(opendir /tavrix/Shared/Lobby: 2 of 4 users may
  administrator: sys
  own entry (to see, not to open): daemon
refused:
  bin has no rights on Shared/Lobby (no entry counts); opendir needs one of read, navigate and view there
  games is neither administrator nor power user
)",
            ctl({"who", "list", "\\Shared\\Lobby", "--refused"}).out);
}

TEST_F(CheckExplained, WhoAnswersAsCheckDoes) {
  for (const std::string operation : {"read", "write", "delete", "list"}) {
    for (const std::string path : {"Shared", "Shared/Design/plan.txt", "Shared/Lobby/inside",
                                   "Private/daemon", "Private/daemon/x", "Other"}) {
      std::set<std::string> granted, expected;
      const auto report = json({"who", operation, path});
      for (const auto& user : report["granted"]) granted.insert(user["user"].get<std::string>());
      for (const std::string user : {"daemon", "bin", "sys", "games"}) {
        if (ask(user, operation, path).exit_code == 0) expected.insert(user);
      }
      EXPECT_EQ(expected, granted) << operation << " " << path;
    }
  }
}

TEST_F(CheckExplained, WhoNeedsTheGroupMapAndTheMap) {
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(2, ctl({"who", "Shared/Design"}).exit_code);
  unlink("/etc/tavrix/groupmap_refresh");
  const Outcome outcome = ctl({"who", "Shared/Design"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(outcome.err.starts_with("tavrixctl: there is no group list map")) << outcome.err;
  EXPECT_EQ(2, ctl({"who"}).exit_code);
  EXPECT_EQ(2, ctl({"who", "nonsense", "Shared"}).exit_code);
}

TEST_F(CheckExplained, EffectiveShowsTheTreeAsAUserMeetsIt) {
  EXPECT_EQ(R"(r----  Shared
r----    Design
r----      Drawings
---n-    Lobby
)",
            ctl({"effective", "--user", "daemon"}).out);
  EXPECT_EQ(R"(r----  Shared
rwd--    Design
rwd--      Drawings
rwd--      Vault
rwd--    Lobby
)",
            ctl({"effective", "--user", "sys"}).out);
  EXPECT_EQ("rwd--  Shared/Design\nrwd--    Drawings\n",
            ctl({"effective", "--group", "proxy", "\\Shared\\Design"}).out);
  EXPECT_EQ("r----  Shared\nrwd--    Design\n",
            ctl({"effective", "--group", "proxy", "--only-writable", "--depth", "1"}).out);
}

TEST_F(CheckExplained, EffectiveKnowsNothingToShow) {
  EXPECT_EQ(1, ctl({"effective", "--user", "games"}).exit_code);
  EXPECT_EQ(1, ctl({"effective", "--user", "daemon", "--only-writable"}).exit_code);
  EXPECT_EQ(1, ctl({"effective", "--user", "daemon", "Shared/None"}).exit_code);
  EXPECT_EQ(2, ctl({"effective", "--user", "nobody of this name"}).exit_code);
  EXPECT_EQ(2, ctl({"effective", "--group", "no such group"}).exit_code);
  EXPECT_EQ(2, ctl({"effective"}).exit_code);
}

// A folder for the user in one that is not.
Folder map_with_inner(const Ace& entry) {
  const Folder inner{.name = "Inner", .users = {entry}};
  const Folder closed{.name = "Closed", .users = {{4711, 7}}, .children = {inner}};
  const Folder shared{.name = "Shared", .children = {closed}};
  return {.name = "/", .groups = {{2000, 1}}, .children = {shared}};
}

TEST_F(CheckExplained, EffectiveMarksAFolderOnTheWay) {
  import(map_with_inner({kDaemon, 1}));
  // Seeing a folder takes a right on the folder above it too.
  EXPECT_EQ("r----  Shared\n", ctl({"effective", "--user", "daemon"}).out);
  import(map_with_inner({kDaemon, 3}));
  EXPECT_EQ("r----  Shared\n-----    Closed  (not seen)\nrw---      Inner  (not seen)\n",
            ctl({"effective", "--user", "daemon"}).out);
}

TEST_F(CheckExplained, KnowsTheExitCodes) {
  EXPECT_EQ(0, ask("daemon", "read", "Shared/Design/plan.txt").exit_code);
  EXPECT_EQ(1, ask("daemon", "write", "Shared/Design/plan.txt").exit_code);
  EXPECT_EQ(2, ask("daemon", "nonsense", "Shared/Design/plan.txt").exit_code);
  ctl({"map", "remove", "--yes"});
  EXPECT_EQ(2, ask("daemon", "read", "Shared/Design/plan.txt").exit_code);
}

}  // namespace
}  // namespace tavrix::test
