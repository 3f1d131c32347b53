// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders of a map in answers of a page's size: children of a folder, and a search by name.

#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <random>

#include "tests/tools/operator.hpp"
#include "tools/mapbrowse/children.hpp"
#include "tools/mapbrowse/search.hpp"

namespace tavrix::test {
namespace {

using mapcheck::Walk;
using Names = std::vector<std::string>;

Folder with_children(const Names& names) {
  Folder root{.name = "/"};
  for (const std::string& name : names) root.children.push_back({.name = name});
  return root;
}

Names names_of(const mapbrowse::Page& page) {
  Names names;
  for (const auto& child : page.children) names.emplace_back(child.name);
  return names;
}

Names all_pages(const Walk& walk, std::size_t limit) {
  Names all;
  std::optional<std::string> after;
  while (true) {
    const auto page = mapbrowse::page_of(walk, walk.root(), after, limit);
    const Names names = names_of(page);
    all.insert(all.end(), names.begin(), names.end());
    if (!page.more) return all;
    after = names.back();
  }
}

TEST(Children, AreInOrderOfTheirNames) {
  const auto image = build_image(with_children({"b", "A", "a", "C", "B2", "\xc3\xa4", "ab"}));
  const Walk walk(image);
  EXPECT_EQ((Names{"A", "a", "ab", "b", "B2", "C", "\xc3\xa4"}), all_pages(walk, 100));
}

TEST(Children, OfAllPagesAreAllOfThem) {
  std::mt19937 random(3);
  for (int round = 0; round < 50; ++round) {
    Names names;
    for (int i = 0; i < 200; ++i)
      names.push_back(std::string(1 + random() % 2, 'a') + static_cast<char>('A' + random() % 50));
    const auto image = build_image(with_children(names));
    const Walk walk(image);
    std::stable_sort(names.begin(), names.end(), mapbrowse::comes_before);
    for (const std::size_t limit : {1U, 7U, 199U, 200U, 201U}) {
      EXPECT_EQ(names, all_pages(walk, limit)) << limit;
    }
  }
}

TEST(Children, BeginBehindANameThatIsGone) {
  const auto image = build_image(with_children({"a", "c", "e"}));
  const Walk walk(image);
  EXPECT_EQ((Names{"c"}), names_of(mapbrowse::page_of(walk, walk.root(), "b", 1)));
  EXPECT_TRUE(mapbrowse::page_of(walk, walk.root(), "b", 1).more);
  EXPECT_EQ(Names{}, names_of(mapbrowse::page_of(walk, walk.root(), "z", 1)));
  EXPECT_EQ(3U, mapbrowse::page_of(walk, walk.root(), "z", 1).total);
}

TEST(Search, FindsAPartOfANameInAnyCase) {
  EXPECT_TRUE(mapbrowse::Wanted("PLAN").is_in("my plans"));
  EXPECT_TRUE(mapbrowse::Wanted("s 1").is_in("Plans 1"));
  EXPECT_TRUE(mapbrowse::Wanted("").is_in("x"));
  EXPECT_FALSE(mapbrowse::Wanted("plans").is_in("plan"));
  EXPECT_FALSE(mapbrowse::Wanted("abc").is_in("ab"));
  EXPECT_FALSE(mapbrowse::Wanted("@").is_in("`"));
}

TEST(Search, KnowsLettersBeyondAscii) {
  EXPECT_TRUE(mapbrowse::Wanted("\xc3\xa4rger").is_in("Viel \xc3\x84RGER"));
  EXPECT_FALSE(mapbrowse::Wanted("\xc3\xa4").is_in("a"));
  EXPECT_FALSE(mapbrowse::Wanted("\xc3\xa4").is_in("\xc3\xb6"));
  EXPECT_TRUE(mapbrowse::Wanted("\xe9").is_in("caf\xe9"));  // not UTF-8
}

TEST(Search, CountsWhatItDoesNotKeep) {
  const auto image = build_image(with_children({"a1", "b", "A2", "xa"}));
  const Walk walk(image);
  const auto matches = mapbrowse::search(walk, mapbrowse::Wanted("a"), 2);
  EXPECT_EQ(3U, matches.total);
  ASSERT_EQ(2U, matches.folders.size());
  EXPECT_EQ("/A2", walk.path_of(matches.folders[1]));
}

TEST(Search, OfSeveralThreadsFindsWhatOneFinds) {
  Names names;
  for (int i = 0; i < 100; ++i)
    names.push_back((i % 7 == 0 ? "\xc3\xa4 " : "a ") + std::to_string(i));
  const auto image = build_image(with_children(names));
  const Walk walk(image);
  for (const char* text : {"1", "\xc3\x84 ", "", "nowhere"}) {
    const mapbrowse::Wanted wanted(text);
    for (const std::size_t limit : {0U, 1U, 20U, 200U}) {
      const auto one = mapbrowse::search(walk, wanted, limit, 1);
      for (const uint64_t threads : {2U, 3U, 7U, 120U}) {
        const auto several = mapbrowse::search(walk, wanted, limit, threads);
        EXPECT_EQ(one.total, several.total) << text;
        EXPECT_TRUE(std::ranges::equal(one.folders, several.folders, {}, &Walk::Folder::offset,
                                       &Walk::Folder::offset))
            << text << ", " << limit << ", " << threads;
      }
    }
  }
}

TEST(Search, OfSeveralThreadsEndsAtABrokenFolder) {
  auto image = build_image(with_children(Names(100, "a")));
  const uint64_t last = Walk(image).place_of(Walk(image).numbered(100));
  std::memset(image.data() + last, 0x5a, sizeof(uint32_t));
  const Walk walk(image);
  EXPECT_THROW(static_cast<void>(mapbrowse::search(walk, mapbrowse::Wanted("a"), 5, 4)),
               mapcheck::Broken);
}

// --- the commands --------------------------------------------------------------------------------

class Browse : public Operator {
 protected:
  static std::string error_code(const std::vector<std::string>& words) {
    return json(words)["error"]["code"];
  }
};

TEST_F(Browse, ShowsAPageOfChildren) {
  import(team());
  const auto page = json({"map", "tree", "shared/team", "--children"});
  EXPECT_EQ("Team", page["name"]);
  EXPECT_EQ(3, page["entries"]);
  EXPECT_EQ(false, page["inherited"]);
  EXPECT_EQ(2, page["child_count"]);
  EXPECT_EQ(7, page["generation"]);
  EXPECT_EQ(false, page["more"]);
  EXPECT_EQ("Docs", page["children"][0]["name"]);
  EXPECT_EQ(true, page["children"][0]["inherited"]);
  EXPECT_EQ(0, page["children"][0]["child_count"]);
  EXPECT_EQ(false, page["children"][1]["inherited"]);
  EXPECT_EQ("Docs  (inherits)\nSecret  (1 entry)\n",
            ctl({"map", "tree", "Shared/Team", "--children"}).out);
  EXPECT_EQ("Shared  (inherits, 1 folder)\n", ctl({"map", "tree", "--children"}).out);
}

TEST_F(Browse, GoesOnBehindAName) {
  import(team());
  const auto first = json({"map", "tree", "Shared/Team", "--children", "--limit", "1"});
  EXPECT_EQ(true, first["more"]);
  EXPECT_EQ(1U, first["children"].size());
  const auto rest = json({"map", "tree", "Shared/Team", "--children", "--after", "Docs"});
  EXPECT_EQ("Secret", rest["children"][0]["name"]);
  EXPECT_EQ("Docs  (inherits)\n2 folders in all; more follow behind --after \"Docs\"\n",
            ctl({"map", "tree", "Shared/Team", "--children", "--limit", "1"}).out);
}

TEST_F(Browse, TellsMapsApart) {
  import(team());
  const auto before = json({"map", "tree", "--children"})["table_id"];
  EXPECT_EQ(before, json({"map", "acl", "Shared"})["table_id"]);
  import(team());
  EXPECT_NE(before, json({"map", "info"})["table_id"]);
}

TEST_F(Browse, FindsFolders) {
  import(team());
  const auto found = json({"map", "find", "DOC"});
  EXPECT_EQ(1, found["matches"]);
  EXPECT_EQ("/Shared/Team/Docs", found["folders"][0]["path"]);
  EXPECT_EQ(true, found["folders"][0]["inherited"]);
  EXPECT_EQ("/Shared/Team\n/Shared/Team/Secret\n", ctl({"map", "find", "e"}).out.substr(8));
  EXPECT_EQ("/Shared\n4 folders in all; --limit shows more\n",
            ctl({"map", "find", "", "--limit", "1"}).out);
  EXPECT_EQ(1, ctl({"map", "find", "nowhere"}).exit_code);
}

// The table is damaged in memory, where a command looks only at the records that it needs.
TEST_F(Browse, RefusesATableThatIsBrokenWhereItLooks) {
  auto image = build_image(team());
  image[176 + 4 * 24] = std::byte{0};  // the signature of the last folder, Secret
  publish(image);
  EXPECT_EQ(0, ctl({"map", "info"}).exit_code);
  EXPECT_EQ(0, ctl({"map", "acl", "Shared"}).exit_code);
  EXPECT_EQ(1, ctl({"map", "verify"}).exit_code);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"map", "tree", "Shared/Team", "--children"},
        {"map", "acl", "Shared/Team/Secret"},
        {"map", "tree", "--depth", "9"},
        {"map", "find", "x"}}) {
    const Outcome outcome = ctl(words);
    EXPECT_EQ(2, outcome.exit_code) << words[1];
    EXPECT_TRUE(contains(outcome.err, "the image is broken; \"tavrixctl map verify\" shows why"))
        << outcome.err;
    EXPECT_EQ("map-broken", error_code(words));
  }
}

// A list that names its folders again and again has no end by itself.
TEST_F(Browse, EndsWhereListsOverlap) {
  auto image = build_image({.name = "/", .children = {{.name = "a"}, {.name = "b"}}});
  uint32_t lists = 0;
  std::memcpy(&lists, image.data() + 160, 4);
  const uint32_t first = 24;
  std::memcpy(image.data() + lists + 32, &first, 4);  // "a" twice
  publish(image);
  EXPECT_EQ(0, ctl({"map", "tree"}).exit_code);
  EXPECT_EQ(1, ctl({"map", "verify"}).exit_code);
}

// A page is asked about in an excerpt of the map, and the tree in the whole of it.
TEST_F(Browse, AUsersPageHasTheRightsThatTheTreeHas) {
  std::mt19937 random(5);
  Folder shared{.name = "Shared", .users = {{2, 1}}};
  for (int i = 0; i < 300; ++i) {
    // Names that differ in case alone are one name for a lookup, which finds the first.
    std::string name{static_cast<char>("aA"[random() % 2]), static_cast<char>('a' + random() % 26),
                     static_cast<char>("xX"[random() % 2])};
    Folder child{.name = std::move(name)};
    if (random() % 3 == 0) child.users = {{2, static_cast<uint16_t>(random() % 32)}};
    shared.children.push_back(std::move(child));
  }
  import({.name = "/", .children = { shared }});
  write_file("/scratch/groups.json",
             R"({"reserved": {"tavrix-powerusers": 9002}, "users": {"bin": [9002]}})");
  ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"});
  std::map<std::string, nlohmann::json> in_tree;
  const auto tree = json({"effective", "--user", "bin", "Shared", "--depth", "1"});
  for (const auto& folder : tree["folders"]) in_tree[folder["path"]] = folder;
  ASSERT_LT(20U, in_tree.size());
  std::size_t met = 1;  // Shared itself
  std::vector<std::string> words{"effective",  "--user",  "bin", "Shared",
                                 "--children", "--limit", "7"};
  for (bool more = true; more;) {
    const auto page = json(words);
    more = page["more"];
    for (const auto& folder : page["folders"]) {
      const auto other = in_tree.find(folder["path"]);
      if (other == in_tree.end()) {
        EXPECT_FALSE(folder["visible"]) << folder;
      } else {
        EXPECT_EQ(other->second, folder);
        ++met;
      }
    }
    words.resize(7);
    words.insert(words.end(),
                 {"--after", page["folders"].back()["path"].get<std::string>().substr(7)});
  }
  EXPECT_LT(in_tree.size(), met + 1) << "each folder of the tree is on a page";
}

// --- errors as JSON ------------------------------------------------------------------------------

TEST_F(Browse, SaysInJsonWhatIsWrong) {
  EXPECT_EQ("no-map", error_code({"map", "tree"}));
  EXPECT_EQ("no-map", error_code({"map", "info"}));
  EXPECT_EQ("no-group-map", error_code({"who", "Shared"}));
  EXPECT_EQ("no-user", error_code({"check", "--user", "nobody of this name", "stat", "Shared"}));
  EXPECT_EQ("no-operation", error_code({"check", "--uid", "1", "fly", "Shared"}));
  EXPECT_EQ("no-settings", error_code({"config", "show"}));
  EXPECT_EQ("wrong-usage", error_code({"map", "tree", "--no-such-option"}));
  EXPECT_EQ("wrong-usage", error_code({"no-such-command"}));
  EXPECT_EQ("wrong-usage", error_code({}));
  EXPECT_EQ("failed", error_code({"map", "info", "--file", "/none"}));
  import(team());
  EXPECT_EQ("not-in-map", error_code({"map", "tree", "Nowhere"}));
  const auto error = json({"map", "tree", "Nowhere"})["error"];
  EXPECT_EQ("Nowhere: not in the map", error["message"]);
}

TEST_F(Browse, SaysItToPeopleToo) {
  const Outcome outcome = ctl({"--json", "map", "tree"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "there is no map")) << outcome.err;
  EXPECT_EQ("", ctl({"map", "tree"}).out);
}

TEST_F(Browse, SaysThatItNeedsRoot) {
  const std::string program = TAVRIX_BUILD_DIR "/tools/tavrixctl";
  const Outcome outcome =
      run_program({"setpriv", "--reuid", "65534", program, "--json", "map", "info"});
  EXPECT_EQ("not-root", nlohmann::json::parse(outcome.out)["error"]["code"]);
}

}  // namespace
}  // namespace tavrix::test
