// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map diff: each kind of difference, moves, and a random comparison with a simple model.

#include <fmt/format.h>
#include <algorithm>
#include <map>
#include <random>

#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using Json = nlohmann::json;

Folder folder(const std::string& name, std::vector<Folder> children = {},
              std::vector<Ace> users = {}) {
  return {.name = name, .users = std::move(users), .children = std::move(children)};
}
Folder share(std::vector<Folder> children) {
  return folder("/", {folder("Shared", std::move(children))}, {{1, 7}});
}

class MapDiff : public Operator {
 protected:
  static void write_image(const std::string& path, const Folder& root, const MapName& name = {}) {
    const auto image = build_image(root, name);
    write_file(path, {reinterpret_cast<const char*>(image.data()), image.size()});
  }
  static Outcome diff(const Folder& before, const Folder& after) {
    write_image("/scratch/old", before);
    write_image("/scratch/new", after);
    return ctl({"map", "diff", "/scratch/old", "/scratch/new"});
  }
  static Json json_diff(const Folder& before, const Folder& after) {
    write_image("/scratch/old", before);
    write_image("/scratch/new", after);
    return json({"map", "diff", "/scratch/old", "/scratch/new"});
  }
};

TEST_F(MapDiff, IsSilentAboutMapsThatAreTheSame) {
  const Outcome outcome = diff(team(), team());
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_EQ("the same folders with the same entries\n", outcome.out);
  EXPECT_TRUE(json_diff(team(), team())["same"]);
}

TEST_F(MapDiff, NamesTheTopsOfWhatIsGoneAndNew) {
  const Outcome outcome = diff(share({folder("Kept"), folder("Old", {folder("a"), folder("b")})}),
                               share({folder("New"), folder("Kept", {folder("Inner")})}));
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_EQ(
      "removed  Shared/Old  (3 folders)\n"
      "added    Shared/New\n"
      "added    Shared/Kept/Inner\n"
      "3 folders removed, 2 added, 0 moved, 0 with other entries\n",
      outcome.out);
}

TEST_F(MapDiff, TellsEachEntryThatChanged) {
  const Folder before{.name = "/", .users = {{70001, 1}, {70002, 3}}, .groups = {{70003, 7}}};
  const Folder after{.name = "/", .users = {{70001, 3}}, .groups = {{70002, 1}, {70003, 7}}};
  EXPECT_EQ(
      "changed  /\n"
      "             user 70001: read -> read write\n"
      "           - user 70002: read write\n"
      "           + group 70002: read\n"
      "0 folders removed, 0 added, 0 moved, 1 with other entries\n",
      diff(before, after).out);
}

TEST_F(MapDiff, SaysWhenAFolderBeginsOrEndsToInherit) {
  const Folder own = share({folder("Team", {}, {{70001, 1}})});
  const Folder inheriting = share({folder("Team")});
  EXPECT_TRUE(contains(diff(own, inheriting).out, "changed  Shared/Team  (inherits now)\n"));
  EXPECT_TRUE(contains(diff(inheriting, own).out, "changed  Shared/Team  (inherited before)\n"));
}

TEST_F(MapDiff, SeesNoDifferenceInTheOrderOfFoldersAndTrustees) {
  const Folder before = share({folder("a", {}, {{1, 1}, {2, 3}}), folder("b")});
  const Folder after = share({folder("b"), folder("a", {}, {{2, 3}, {1, 1}})});
  EXPECT_EQ(0, diff(before, after).exit_code);
}

// Of two entries for a user only one counts, by its place.
TEST_F(MapDiff, SeesADifferenceInTheOrderOfEntriesForOneUser) {
  const Folder before = share({folder("a", {}, {{70001, 1}, {70001, 3}})});
  const Folder after = share({folder("a", {}, {{70001, 3}, {70001, 1}})});
  const Outcome outcome = diff(before, after);
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "user 70001: read -> read write\n")) << outcome.out;
}

TEST_F(MapDiff, PairsFoldersOfOneNameInTheirOrder) {
  const Folder before = share({folder("twin", {}, {{1, 1}}), folder("twin", {}, {{2, 2}})});
  EXPECT_EQ(0, diff(before, before).exit_code);
  const Json found = json_diff(before, share({folder("twin", {}, {{1, 1}})}));
  EXPECT_EQ(1U, found["removed"].size());
  EXPECT_EQ(0U, found["changed"].size());
}

TEST_F(MapDiff, FindsFoldersThatMoved) {
  const Folder docs = folder("Docs", {folder("Plans", {}, {{70001, 3}}), folder("Notes")});
  Folder renamed = docs;
  renamed.name = "Papers";
  const auto moves = [](const Folder& before, const Folder& after) {
    return diff(before, after).out;
  };
  EXPECT_EQ(
      "moved    Shared/A/Docs -> Shared/B/Docs  (3 folders)\n"
      "0 folders removed, 0 added, 3 moved, 0 with other entries\n",
      moves(share({folder("A", {docs}), folder("B")}), share({folder("A"), folder("B", {docs})})));
  EXPECT_EQ(
      "moved    Shared/Docs -> Shared/Papers  (3 folders)\n"
      "0 folders removed, 0 added, 3 moved, 0 with other entries\n",
      moves(share({docs}), share({renamed})));
}

TEST_F(MapDiff, FindsWhatMovedOutOfAFolderThatIsGone) {
  const Folder plans = folder("Plans", {folder("x")}, {{70001, 3}});
  EXPECT_EQ(
      "removed  Shared/A  (2 folders)\n"
      "moved    Shared/A/Plans -> Shared/B/Plans  (2 folders)\n"
      "2 folders removed, 0 added, 2 moved, 0 with other entries\n",
      diff(share({folder("A", {folder("rest"), plans}), folder("B")}),
           share({folder("B", {plans})}))
          .out);
}

TEST_F(MapDiff, TakesAFolderForMovedOnlyIfItsContentIsTheSame) {
  const Folder before = share({folder("A", {folder("x", {}, {{70001, 3}})})});
  const Folder after = share({folder("B", {folder("x", {}, {{70001, 7}})})});
  EXPECT_EQ(0U, json_diff(before, after)["moved"].size());
  // A folder with one entry below a new one is not the one below a folder that is gone.
  const auto nested = [](const std::string& outer, const std::string& inner) {
    return share({folder(outer, {folder(inner, {}, {{70001, 3}}), folder(outer + "2")})});
  };
  EXPECT_EQ(0U, json_diff(nested("A", "x"), nested("B", "y"))["moved"].size());
  EXPECT_EQ(1U, json_diff(nested("A", "x"), nested("B", "x"))["moved"].size());
  // Empty folders are alike: only the name tells that one is the other.
  EXPECT_EQ(0U, json_diff(share({folder("A")}), share({folder("B")}))["moved"].size());
}

TEST_F(MapDiff, ComparesTheMapInForceWithAPairAndAnImage) {
  import(team());
  write_json_pair(team(), {.generation = 8});
  const std::string copy = read_file("/etc/tavrix/.permbe_map");
  for (const char* other : {"/scratch/size.json,/scratch/data.json", "/etc/tavrix/.permbe_map"}) {
    const Outcome outcome = ctl({"map", "diff", "current", other});
    EXPECT_EQ(0, outcome.exit_code) << other << outcome.out << outcome.err;
    EXPECT_EQ(0, ctl({"map", "diff", other, "current"}).exit_code) << other;
  }
  const Json found = json({"map", "diff", "current", "/scratch/size.json,/scratch/data.json"});
  EXPECT_EQ(7, found["old"]["generation"]);
  EXPECT_EQ(8, found["new"]["generation"]);
  // A comparison imports for itself alone.
  EXPECT_TRUE(exists("/scratch/size.json") && exists("/scratch/data.json"));
  EXPECT_EQ(copy, read_file("/etc/tavrix/.permbe_map"));
  EXPECT_EQ(7, json({"map", "info"})["map"]["generation"]);
}

// The import of a pair hides the folder of the maps from itself.
TEST_F(MapDiff, ReadsAPairThatLiesBesideTheMaps) {
  write_json_pair(team());
  write_file("/etc/tavrix/size.json", read_file("/scratch/size.json"));
  write_file("/etc/tavrix/data.json", read_file("/scratch/data.json"));
  const std::string pair = "/etc/tavrix/size.json,/etc/tavrix/data.json";
  EXPECT_EQ(0, ctl({"map", "diff", pair, "/scratch/size.json,/scratch/data.json"}).exit_code);
  EXPECT_TRUE(exists("/etc/tavrix/size.json") && exists("/etc/tavrix/data.json"));
}

TEST_F(MapDiff, SaysWhyThereIsNothingToCompare) {
  write_image("/scratch/good", team());
  write_file("/scratch/broken", "{\"broken\": ");
  const std::map<std::string, std::string> sentences = {
      {"current", "there is no map"},
      {"/none", "/none: No such file"},
      {"/none,/scratch/broken", "/none: No such file"},
      {"/scratch/broken", "map verify /scratch/broken\" shows why"},
      {"/scratch/broken,/scratch/broken", "/scratch/broken"}};
  for (const auto& [name, sentence] : sentences) {
    const Outcome outcome = ctl({"map", "diff", "/scratch/good", name});
    EXPECT_EQ(2, outcome.exit_code) << name;
    EXPECT_EQ("", outcome.out) << name;
    EXPECT_TRUE(contains(outcome.err, sentence)) << name << ": " << outcome.err;
  }
}

// --- who gains, who loses ------------------------------------------------------------------------

class MapDiffEffective : public MapDiff {
 protected:
  void SetUp() override {
    MapDiff::SetUp();
    write_file("/scratch/people.json",
               R"({"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
                   "users": {"daemon": [9002, 70001], "bin": [9002, 70001], "sys": [9002],
                             "sync": [9001, 70001], "games": [70001]}})");
    EXPECT_EQ(
        0, ctl({"groupmap", "build", "/scratch/people.json", "-o", "/etc/tavrix/groupmap_refresh"})
               .exit_code);
  }
  static Outcome effective(const Folder& before, const Folder& after,
                           const std::vector<std::string>& more = {}) {
    write_image("/scratch/old", before);
    write_image("/scratch/new", after);
    std::vector<std::string> words = {"map", "diff", "/scratch/old", "/scratch/new", "--effective"};
    words.insert(words.end(), more.begin(), more.end());
    return ctl(words);
  }
  static Folder team_for(std::vector<Ace> users, std::vector<Ace> groups) {
    return share({{.name = "Team",
                   .users = std::move(users),
                   .groups = std::move(groups),
                   .children = {folder("a", {folder("b")})}}});
  }

 public:
  static constexpr uint32_t kDaemon = 1, kBin = 2;  // users of every machine
};

TEST_F(MapDiffEffective, SaysInOneLineWhatASubtreeInherits) {
  const Outcome outcome =
      effective(team_for({{kBin, 1}}, {}), team_for({{kBin, 3}, {kDaemon, 1}}, {}));
  EXPECT_EQ(1, outcome.exit_code) << outcome.err;
  EXPECT_EQ(
      "Shared/Team and below: user daemon gains read\n"
      "Shared/Team and below: user bin gains write\n",
      outcome.out);
}

TEST_F(MapDiffEffective, TellsAFolderFromWhatIsBelowItForNavigation) {
  EXPECT_EQ("Shared/Team: user bin gains navigate\n",
            effective(team_for({{kDaemon, 1}}, {}), team_for({{kDaemon, 1}, {kBin, 8}}, {})).out);
}

TEST_F(MapDiffEffective, FoldsAllUsersOfAGroup) {
  write_file("/scratch/people.json",
             R"({"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
                 "users": {"daemon": [9002, 70001], "bin": [9002, 70001], "sys": [9002]}})");
  ASSERT_EQ(0,
            ctl({"groupmap", "build", "/scratch/people.json", "-o", "/etc/tavrix/groupmap_refresh"})
                .exit_code);
  EXPECT_EQ("Shared/Team and below: group 70001 loses read and write\n",
            effective(team_for({{70009, 1}}, {{70001, 3}}), team_for({{70009, 1}}, {})).out);
  EXPECT_EQ("Shared/Team and below: user bin gains write; loses delete\n",
            effective(team_for({{kBin, 5}}, {}), team_for({{kBin, 3}}, {}), {"--user", "bin"}).out);
}

// The administrators may everything in Shared, and standard users nothing, whatever the map says.
TEST_F(MapDiffEffective, KnowsWhomTheMapDoesNotConcern) {
  EXPECT_EQ("Shared/Team and below: user daemon and user bin gain read\n",
            effective(team_for({{70009, 1}}, {}), team_for({{70009, 1}}, {{70001, 1}})).out);
}

TEST_F(MapDiffEffective, IsSilentWhenNobodyGainsOrLoses) {
  const Outcome outcome = effective(team_for({{70009, 1}}, {}), team_for({{70009, 3}}, {}));
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ("nobody gains or loses a right\n", outcome.out);
}

TEST_F(MapDiffEffective, FollowsTheEntriesOfTheRoot) {
  const Folder before{.name = "/", .users = {{kBin, 1}}, .children = {folder("Shared")}};
  const Folder after{.name = "/", .users = {{kBin, 7}}, .children = {folder("Shared")}};
  EXPECT_EQ("below Shared: user bin gains write and delete\n", effective(before, after).out);
}

// Clients list folders with a wildcard, which is granted before the map is asked.
TEST_F(MapDiffEffective, TellsOfAFolderNamedAsAWildcardOnlyWhatIsBelowIt) {
  const auto map = [](uint16_t mask) {
    return share({folder("*", {folder("a")}, {{kBin, mask}})});
  };
  EXPECT_EQ("below Shared/*: user bin gains write\n", effective(map(1), map(3)).out);
}

Folder one_folder(const std::string& name, uint16_t mask) {
  return share({folder(name, {folder("\xc3\xa9t\xc3\xa9")}, {{MapDiffEffective::kBin, mask}})});
}

// Samba's comparison is for names of other bytes only.
TEST_F(MapDiffEffective, KnowsNamesBeyondAsciiWithoutSamba) {
  hide_samba_library();
  const std::string name = "B\xc3\xbcro";
  EXPECT_EQ("Shared/B\xc3\xbcro and below: user bin gains write\n",
            effective(one_folder(name, 1), one_folder(name, 3)).out);
  const std::string bytes = "B\xfcro";
  const Outcome outcome = effective(one_folder(bytes, 1), one_folder(bytes, 3), {"--json"});
  EXPECT_EQ("U2hhcmVkL0L8cm8=", Json::parse(outcome.out)["effective"][0]["path_base64"]);
}

TEST_F(MapDiffEffective, TakesNamesThatDifferInCaseBeyondAsciiForTheSame) {
  give_samba_library_its_name();
  EXPECT_EQ(
      "Shared/B\xc3\x9cRO and below: user bin gains write\n"
      "Shared/B\xc3\xbcro and below: user bin gains write\n",
      effective(one_folder("B\xc3\xbcro", 1), one_folder("B\xc3\x9cRO", 3)).out);
  // Samba tells these apart, so each is governed by the root where it is missing.
  EXPECT_EQ(
      "Shared/B\xc3\xa4ro and below: user daemon loses read, write and delete\n"
      "Shared/B\xc3\xa4ro and below: user bin gains read and write\n"
      "Shared/B\xc3\xbcro and below: user bin loses read\n"
      "Shared/B\xc3\xbcro and below: user daemon gains read, write and delete\n",
      effective(one_folder("B\xc3\xbcro", 1), one_folder("B\xc3\xa4ro", 3)).out);
}

TEST_F(MapDiffEffective, WarnsOfUsersWithoutAccount) {
  write_file("/scratch/people.json",
             R"({"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002},
                 "users": {"bin": [9002], "gone": [9002], "left": [9002]}})");
  ASSERT_EQ(0,
            ctl({"groupmap", "build", "/scratch/people.json", "-o", "/etc/tavrix/groupmap_refresh"})
                .exit_code);
  const Outcome outcome = effective(team_for({{kBin, 1}}, {}), team_for({{kBin, 3}}, {}));
  EXPECT_EQ("Shared/Team and below: user bin gains write\n", outcome.out);
  EXPECT_TRUE(
      contains(outcome.err, "2 users of the group list map have no account and are left out\n"))
      << outcome.err;
}

TEST_F(MapDiffEffective, NeedsTheGroupListMapAndAKnownUser) {
  const Folder map = team_for({{kBin, 1}}, {});
  EXPECT_EQ(2, effective(map, map, {"--user", "nobody-of-this-name"}).exit_code);
  unlink("/etc/tavrix/groupmap_refresh");
  EXPECT_EQ(2, effective(map, map).exit_code);
}

// --- a simple model: two lists of paths with entries -------------------------------------------

using Model = std::map<std::string, std::string>;

void list_folders(const Folder& root, const std::string& path, Model& model) {
  std::vector<std::string> entries;
  for (const Ace& ace : root.users) entries.push_back(fmt::format("u{}:{}", ace.id, ace.mask));
  for (const Ace& ace : root.groups) entries.push_back(fmt::format("g{}:{}", ace.id, ace.mask));
  std::sort(entries.begin(), entries.end());
  std::string& text = model[path];
  for (const std::string& entry : entries) text += entry + " ";
  for (const Folder& child : root.children) {
    list_folders(child, path == "/" ? child.name : path + "/" + child.name, model);
  }
}

// Names, entries and places out of few, so that changes of every kind come about.
Folder small_tree(std::mt19937& random, int depth) {
  Folder tree{.name = "/"};
  for (uint32_t id = 70001; id < 70004; ++id) {
    if (random() % 4 == 0) tree.users.push_back({id, static_cast<uint16_t>(random() % 8)});
    if (random() % 6 == 0) tree.groups.push_back({id, static_cast<uint16_t>(random() % 8)});
  }
  for (const char* name : {"a", "b", "c", "d"}) {
    if (depth == 0 || random() % 3 == 0) continue;
    Folder child = small_tree(random, depth - 1);
    child.name = name;
    tree.children.push_back(child);
  }
  return tree;
}

void change(Folder& tree, std::mt19937& random) {
  if (random() % 6 == 0) tree.users.clear();
  if (random() % 6 == 0) tree.groups = {{70009, 1}};
  if (random() % 4 == 0) std::shuffle(tree.children.begin(), tree.children.end(), random);
  if (!tree.children.empty() && random() % 5 == 0) tree.children.pop_back();
  if (!tree.children.empty() && random() % 5 == 0) tree.children.front().name += "x";
  for (Folder& child : tree.children) change(child, random);
}

bool is_below(const std::string& path, const std::string& top) {
  return path == top || path.starts_with(top + "/");
}

// Every folder of the lists by itself, as the model has them.
std::set<std::string> expanded(const Json& tops, const char* key, const Model& model) {
  std::set<std::string> paths;
  for (const Json& top : tops) {
    for (const auto& [path, entries] : model) {
      if (is_below(path, top[key])) paths.insert(path);
    }
  }
  return paths;
}

std::set<std::string> without(const Model& model, const Model& other) {
  std::set<std::string> paths;
  for (const auto& [path, entries] : model) {
    if (!other.contains(path)) paths.insert(path);
  }
  return paths;
}

void expect_moves_have_the_same_content(const Json& moves, const Model& before,
                                        const Model& after) {
  for (const Json& move : moves) {
    const std::string from = move["from"];
    const std::string to = move["to"];
    Model old_content, new_content;
    for (const auto& [path, entries] : before) {
      if (is_below(path, from)) old_content[path.substr(from.size())] = entries;
    }
    for (const auto& [path, entries] : after) {
      if (is_below(path, to)) new_content[path.substr(to.size())] = entries;
    }
    EXPECT_EQ(old_content, new_content) << from << " " << to;
    EXPECT_EQ(old_content.size(), move["folders"]);
  }
}

std::size_t folders_in(const Json& tops) {
  std::size_t folders = 0;
  for (const Json& top : tops) folders += top["folders"].get<std::size_t>();
  return folders;
}

TEST_F(MapDiff, AgreesWithASimpleModel) {
  std::size_t moves = 0;
  for (uint32_t seed = 1; seed <= 200; ++seed) {
    std::mt19937 random(seed);
    const Folder before = small_tree(random, 4);
    Folder after = before;
    change(after, random);
    Model old_model, new_model;
    list_folders(before, "/", old_model);
    list_folders(after, "/", new_model);
    const Json found = json_diff(before, after);
    SCOPED_TRACE("seed " + std::to_string(seed));

    std::set<std::string> changed;
    for (const Json& item : found["changed"]) changed.insert(item["path"]);
    std::set<std::string> expected;
    for (const auto& [path, entries] : old_model) {
      const auto other = new_model.find(path);
      if (other != new_model.end() && other->second != entries) expected.insert(path);
    }
    EXPECT_EQ(expected, changed);

    const auto gone = without(old_model, new_model);
    auto told = expanded(found["removed"], "path", old_model);
    told.merge(expanded(found["moved"], "from", old_model));
    EXPECT_EQ(gone, told);
    const auto fresh = without(new_model, old_model);
    told = expanded(found["added"], "path", new_model);
    told.merge(expanded(found["moved"], "to", new_model));
    EXPECT_EQ(fresh, told);
    EXPECT_EQ(gone.size(), folders_in(found["removed"]) + folders_in(found["moved"]));
    EXPECT_EQ(fresh.size(), folders_in(found["added"]) + folders_in(found["moved"]));
    expect_moves_have_the_same_content(found["moved"], old_model, new_model);
    EXPECT_EQ(found["same"], gone.empty() && fresh.empty() && expected.empty());
    moves += found["moved"].size();
    if (HasFailure()) return;
  }
  EXPECT_GT(moves, 100U);
}

}  // namespace
}  // namespace tavrix::test
