// SPDX-License-Identifier: LGPL-3.0-or-later
// Listings: every client sees the entries that the model of the policy computes from the map,
// however it asks for them, and whatever changes meanwhile.

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/samba/matrix/judge.hpp"
#include "tests/samba/matrix/world.hpp"

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

using Names = std::multiset<std::string>;

constexpr int kRestart = 1;
constexpr int kSingle = 2;
constexpr int kIndex = 4;
constexpr int kReopen = 16;
constexpr int kObjects = 600;  // several batches

const std::string kMixed = "Shared/Team/Mixed";
const Json kKeep{{"do", "keep"}};

std::string numbered(const char* kind, int number) {
  std::string digits = std::to_string(number);
  return kind + std::string(4 - digits.size(), '0') + digits;
}

// A team's folder with folders of which writers see some, readers others, and both the rest.
Folder mixed_map() {
  Folder mixed{.name = "Mixed", .groups = {{kWriters, 3}, {kReaders, 1}}};
  for (int i = 0; i < kObjects; ++i) {
    if (i % 3 == 2) continue;
    mixed.children.push_back({.name = numbered("folder", i),
                              .users = {{kAnna.uid, 0}},
                              .groups = {{kWriters, static_cast<uint16_t>(i % 3 == 0 ? 3 : 0)},
                                         {kReaders, static_cast<uint16_t>(i % 3 == 0 ? 0 : 1)}}});
  }
  Folder map = matrix_map();
  map.children[0].children[0].children.push_back(mixed);
  return map;
}

// The same with the two kinds of folders exchanged.
Folder exchanged_map() {
  Folder map = mixed_map();
  for (Folder& folder : map.children[0].children[0].children.back().children) {
    std::swap(folder.groups[0].mask, folder.groups[1].mask);
  }
  return map;
}

class Listings : public MatrixWorld {
 protected:
  void SetUp() override {
    MatrixWorld::SetUp();
    publish_map(map_);
    fs::create_symlink("Docs", full("Shared/Team/docs.lnk"));
    // tmpfs lists the latest first: a folder, and its own entries in the map count.
    make_folder(kMixed);
    for (int i = 0; i < kObjects; ++i) make_file(kMixed + "/" + numbered("file", i));
    for (int i = 0; i < kObjects; ++i) make_folder(kMixed + "/" + numbered("folder", i));
  }
  void TearDown() override {
    EXPECT_EQ("", trouble_of_smbd());
    MatrixWorld::TearDown();
  }
  static void touch(const char* path) {
    const time_t when = time(nullptr) + 5;
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path, times, 0));
  }
  void use(const Folder& map) {
    map_ = map;
    publish_map(map);
  }

  // --- what the model says
  [[nodiscard]] bool sees(const Judge& judge, const Disk& disk, const std::string& path) const {
    if (!judge.sees(path)) return false;
    if (!fs::is_symlink(full(path))) return true;
    const std::string target = disk.find(path)->leads_to;  // smbd asks for the target too
    return !target.empty() && judge.sees(target);
  }
  [[nodiscard]] Names expected(const Caller& caller, const std::string& folder) const {
    const Disk disk = Disk::now(kShareRoot);
    const Judge judge(map_, caller, disk);
    Names names;
    for (const auto& entry : fs::directory_iterator(full(folder))) {
      const std::string name = entry.path().filename();
      if (sees(judge, disk, folder.empty() ? name : folder + "/" + name)) names.insert(name);
    }
    return names;
  }

  // --- what the client does
  static Json open(const std::string& folder, const char* on = "h") {
    std::string name = folder;
    std::ranges::replace(name, '/', '\\');
    return {{"do", "create"}, {"name", name}, {"access", 0x81}, {"on", on}};
  }
  static Json page(Json more = Json::object()) {
    more["do"] = "page";
    return more;
  }
  static Json pages(Json more = Json::object()) {
    more["do"] = "pages";
    return more;
  }
  // The requests for "." and "..", which smbd knows itself, and for the first entry, with which the
  // module reads ahead.
  static Json started() {
    const Json one = page({{"flags", kSingle}});
    return {open(kMixed), one, one, one};
  }
  Json begin(const Caller& caller, Json steps) {
    steps.push_back(kKeep);
    return robot().run(caller.name, steps);
  }
  Json go_on(const Caller& caller, Json steps) {
    steps.push_back(kKeep);
    return robot().run({{"as", caller.name}, {"goes on", true}, {"steps", steps}});
  }
  static Names names_in(const Json& step) {
    Names names;
    if (!step.contains("names")) return names;
    for (const std::string name : step["names"]) {
      if (name != "." && name != "..") names.insert(name);
    }
    return names;
  }
  // The names of all steps together.
  static Names shown(const Json& answer) {
    Names all;
    if (answer.contains("error")) all.insert("error: " + std::string(answer["error"]));
    for (const Json& step : answer["steps"]) all.merge(names_in(step));
    return all;
  }
  Names list(const Caller& caller, const std::string& folder, const Json& how = Json::object()) {
    return shown(robot().run(caller.name, {open(folder), pages(how)}));
  }
  static Names without(Names names, const Names& others) {
    for (const std::string& name : others) {
      if (const auto found = names.find(name); found != names.end()) names.erase(found);
    }
    return names;
  }
  static Names matching(const Names& names, const std::function<bool(const std::string&)>& wanted) {
    Names found;
    std::ranges::copy_if(names, std::inserter(found, found.end()), wanted);
    return found;
  }

  Folder map_ = mixed_map();
};

// --- who sees what -------------------------------------------------------------------------------

TEST_F(Listings, ShowEveryCallerWhatTheMapAllows) {
  int compared = 0;
  for (const Role& role : roles()) {
    for (const char* folder :
         {"", "Shared", "Private", "Private/pat", "Private/pat/notes", "Private/olga", "Other",
          "Shared/Team", "Shared/Team/Docs", "Shared/Team/Docs/Deep", "Shared/Team/Secret",
          "Shared/Team/Drop", "Shared/Team/Mixed", "Shared/Team/Empty", "Shared/Closed"}) {
      const Json answer = robot().run(role.caller->name, {open(folder), pages()});
      if (status_of(answer, 0) != "OK") continue;
      ++compared;
      EXPECT_EQ(expected(*role.caller, folder), shown(answer)) << role.name << " in " << folder;
    }
  }
  EXPECT_GT(compared, 60);
}

TEST_F(Listings, OfTheTopLevelShowBookkeepingFilesAndNoOthers) {
  for (const char* name : {".DS_Store", ".TemporaryItems", "plain.txt", "x.sb-y", ".Trash-1000"}) {
    make_file(name);
  }
  for (const Caller& caller : {kAdministrator, kAnna, kStandardUser, kSyncAgent}) {
    EXPECT_EQ(expected(caller, ""), list(caller, "")) << caller.name;
  }
  EXPECT_EQ(1U, list(kAnna, "").count(".DS_Store"));
}

TEST_F(Listings, ShowTheSameToAnOrdinaryClient) {
  for (const Caller& caller : {kAnna, kBen, kAdministrator}) {
    const auto seen = listing(caller.name, "Shared\\Team\\Mixed");
    EXPECT_EQ(expected(caller, kMixed), Names(seen.begin(), seen.end())) << caller.name;
  }
}

TEST_F(Listings, OfAFolderThatClientsReachOnTheDiskAreTheSame) {
  bash("chmod -R a+rwX /tavrix/Shared");
  EXPECT_EQ(expected(kBen, kMixed), list(kBen, kMixed));
  EXPECT_EQ(expected(kBen, "Shared/Team"), list(kBen, "Shared/Team"));
}

// --- how a client may ask ------------------------------------------------------------------------

TEST_F(Listings, InRepliesOfAnySizeShowEachEntryOnce) {
  const Names all = expected(kBen, kMixed);
  for (const int room : {128, 1000, 4096, 20000, 65536}) {
    EXPECT_EQ(all, list(kBen, kMixed, {{"room", room}})) << room;
  }
  EXPECT_EQ(all, list(kBen, kMixed, {{"room", 3000}, {"level", "both ids"}}));
}

TEST_F(Listings, OfOneEntryAtATimeShowEachEntryOnce) {
  EXPECT_EQ(expected(kBen, kMixed), list(kBen, kMixed, {{"flags", kSingle}}));
}

TEST_F(Listings, WithAnIndexGoOnWhereTheyAre) {
  EXPECT_EQ(expected(kBen, kMixed),
            list(kBen, kMixed, {{"flags", kIndex}, {"index", 7}, {"room", 5000}}));
}

TEST_F(Listings, ThatAreRestartedBeginAgain) {
  const Names all = expected(kBen, kMixed);
  const Json answer = robot().run(
      kBen.name, {open(kMixed), page({{"room", 5000}}), page({{"room", 5000}}),
                  page({{"flags", kRestart}, {"room", 5000}}), pages({{"room", 5000}})});
  const Names first = names_in(answer["steps"][1]);
  EXPECT_EQ(first, names_in(answer["steps"][3]));
  Names again = first;
  again.merge(names_in(answer["steps"][4]));
  EXPECT_EQ(all, again);
}

// After a request for one entry smbd does not seek before it rewinds.
TEST_F(Listings, ThatAreRestartedAfterOneEntryBeginAgain) {
  Json steps = started();
  steps.push_back(page({{"flags", kSingle | kRestart}}));
  steps.push_back(pages());
  const Json answer = robot().run(kBen.name, steps);
  Names again = names_in(answer["steps"][4]);
  again.merge(names_in(answer["steps"][5]));
  EXPECT_EQ(expected(kBen, kMixed), again);
}

TEST_F(Listings, ThatAreReopenedBeginAgain) {
  const Json answer =
      robot().run(kBen.name, {open(kMixed), page({{"room", 5000}}),
                              page({{"flags", kReopen}, {"room", 5000}}), pages({{"room", 5000}})});
  Names again = names_in(answer["steps"][2]);
  again.merge(names_in(answer["steps"][3]));
  EXPECT_EQ(expected(kBen, kMixed), again);
}

TEST_F(Listings, ThatHaveEndedMayBeRestarted) {
  const Json answer = robot().run(
      kBen.name, {open(kMixed), pages(), page(), page({{"flags", kRestart}, {"room", 5000}}),
                  pages({{"room", 5000}})});
  EXPECT_EQ("NO_MORE_FILES", status_of(answer, 3 - 1));
  Names again = names_in(answer["steps"][3]);
  again.merge(names_in(answer["steps"][4]));
  EXPECT_EQ(expected(kBen, kMixed), again);
}

TEST_F(Listings, ByAPatternShowWhatMatchesAndMayBeSeen) {
  const Names all = expected(kBen, kMixed);
  const auto ends = [](const char* end) {
    return [end](const std::string& name) { return name.ends_with(end); };
  };
  // Two digits, because smbd compares short names too, and they end with a tilde and a digit.
  EXPECT_EQ(matching(all, ends("07")), list(kBen, kMixed, {{"pattern", "*07"}, {"room", 900}}));
  EXPECT_EQ(matching(all, [](const auto& name) { return name.starts_with("folder00"); }),
            list(kBen, kMixed, {{"pattern", "folder00??"}}));
  EXPECT_EQ(Names{}, list(kBen, kMixed, {{"pattern", "nothing*"}}));
  EXPECT_EQ((Names{"folder0001"}), list(kBen, kMixed, {{"pattern", "folder0001"}}));
  EXPECT_EQ(Names{}, list(kBen, kMixed, {{"pattern", "folder0003"}})) << "for writers";
}

// --- several at once -----------------------------------------------------------------------------

TEST_F(Listings, OfTwoFoldersOnOneConnectionDoNotMix) {
  Json steps{open(kMixed, "a"), open("Shared/Team", "b"), open(kMixed, "c")};
  for (int i = 0; i < 3; ++i) {
    for (const char* on : {"a", "b", "c"}) {
      steps.push_back(page({{"on", on}, {"room", 700}}));
    }
  }
  for (const char* on : {"c", "b", "a"}) steps.push_back(pages({{"on", on}, {"room", 3000}}));
  const Json answer = robot().run(kBen.name, steps);
  const auto shown_by = [&](int first, int last) {
    Names names;
    for (int i = first; i < 12; i += 3) names.merge(names_in(answer["steps"][i]));
    names.merge(names_in(answer["steps"][last]));
    return names;
  };
  EXPECT_EQ(expected(kBen, kMixed), shown_by(3, 14));
  EXPECT_EQ(expected(kBen, "Shared/Team"), shown_by(4, 13));
  EXPECT_EQ(expected(kBen, kMixed), shown_by(5, 12));
}

TEST_F(Listings, ThatAreClosedInTheMiddleLeaveTheNextOnesAlone) {
  for (int i = 0; i < 20; ++i) {
    robot().run(kBen.name, {open(kMixed), page({{"flags", kSingle}}), {{"do", "close"}}});
  }
  EXPECT_EQ(expected(kBen, kMixed), list(kBen, kMixed));
}

TEST_F(Listings, ThatTheirClientAbandonsEndWithIt) {
  robot().run(kBen.name, {open(kMixed), page({{"flags", kSingle}}), {{"do", "drop"}}});
  EXPECT_EQ(expected(kBen, kMixed), list(kBen, kMixed));
}

// --- what changes meanwhile ----------------------------------------------------------------------

TEST_F(Listings, FollowANewMapFromTheNextRequestAfterItsRefreshFile) {
  Json answer = begin(kBen, started());
  const Names first = shown(answer);
  use(exchanged_map());
  touch("/etc/tavrix/permission_refresh");
  const Names rest = shown(go_on(kBen, {pages()}));
  EXPECT_EQ(without(expected(kBen, kMixed), first), rest);
}

TEST_F(Listings, FollowANewMapWithinASecondWithoutARefreshFile) {
  const Names first = shown(begin(kBen, started()));
  use(exchanged_map());
  usleep(1100000);
  const Names rest = shown(go_on(kBen, {pages()}));
  EXPECT_EQ(without(expected(kBen, kMixed), first), rest);
}

TEST_F(Listings, FollowNewGroupsFromTheNextRequest) {
  const Names first = shown(begin(kBen, started()));
  GroupMap map{{{"tavrix-admins", kAdmins}, {"tavrix-powerusers", kPowerUsers}},
               {{"Ben", {kPowerUsers, kWriters}}}};
  write_file("/scratch/groups", group_map_bytes(map));
  ASSERT_EQ(0, rename("/scratch/groups", "/etc/tavrix/groupmap_refresh"));
  touch("/etc/tavrix/groupmap_refresh");
  const Names rest = shown(go_on(kBen, {pages()}));
  Caller writer = kBen;
  writer.groups = {kPowerUsers, kWriters};
  EXPECT_EQ(without(expected(writer, kMixed), first), rest);
}

TEST_F(Listings, AfterAPauseGoOnWhereTheyWere) {
  Json answer = begin(kBen, {open(kMixed), page({{"room", 3000}})});
  Names all = shown(answer);
  for (int i = 0; i < 2; ++i) {
    usleep(1100000);
    all.merge(shown(go_on(kBen, {page({{"room", 3000}})})));
  }
  all.merge(shown(go_on(kBen, {pages()})));
  EXPECT_EQ(expected(kBen, kMixed), all);
}

TEST_F(Listings, DoNotShowWhatWasRemovedAndShowWhatStays) {
  Names all = shown(begin(kBen, started()));
  const Names before = expected(kBen, kMixed);
  int number = 0;
  Names removed;
  for (const std::string& name : before) {
    if (all.contains(name) || ++number % 2 == 0) continue;
    fs::remove_all(full(kMixed + "/" + name));
    removed.insert(name);
  }
  for (int i = 0; i < 50; ++i) make_file(kMixed + "/" + numbered("new", i));
  all.merge(shown(go_on(kBen, {pages({{"room", 3000}})})));
  for (const std::string& name : removed) EXPECT_FALSE(all.contains(name)) << name;
  // New entries may come in or not; none comes twice.
  const Names old = matching(all, [](const auto& name) { return !name.starts_with("new"); });
  EXPECT_EQ(without(before, removed), old);
  EXPECT_EQ(all.size(), std::set<std::string>(all.begin(), all.end()).size());
}

// A file is judged by its folder, a folder by its own entries too.
TEST_F(Listings, JudgeAnEntryByWhatItsNameMeansNow) {
  const int hidden = 3;  // a folder of that number is for writers
  for (int i = hidden; i < kObjects; i += 3) {
    fs::remove(full(kMixed + "/" + numbered("folder", i)));
    make_file(kMixed + "/" + numbered("folder", i));
  }
  const Names first = shown(begin(kBen, started()));
  for (int i = hidden; i < kObjects; i += 3) {
    fs::remove(full(kMixed + "/" + numbered("folder", i)));
    make_folder(kMixed + "/" + numbered("folder", i));
  }
  const Names rest = shown(go_on(kBen, {pages()}));
  EXPECT_EQ(without(expected(kBen, kMixed), first), rest);
}

TEST_F(Listings, OfARenamedFolderJudgeItsEntriesByTheirNewNames) {
  // The new name is in no map: what is below it is judged by the team's folder.
  Json answer = begin(kEddy, started());
  const Names first = shown(answer);
  answer =
      go_on(kAnna,
            {{{"do", "create"}, {"name", "Shared\\Team\\Mixed"}, {"access", 0x110080}, {"on", "r"}},
             {{"do", "set"}, {"level", 10}, {"to", "Shared\\Team\\Moved"}, {"on", "r"}},
             {{"do", "close"}, {"on", "r"}}});
  if (status_of(answer, 1) != "OK") GTEST_FAIL() << answer;
  answer = go_on(kEddy, {pages()});
  EXPECT_EQ(without(expected(kEddy, "Shared/Team/Moved"), first), shown(answer)) << answer;
}

// --- other listings ------------------------------------------------------------------------------

// smbd looks for entries that the client does not see, before it removes a folder.
TEST_F(Listings, ThatSmbdMakesForItselfMissNothing) {
  make_folder("Shared/Team/Outer");
  make_folder("Shared/Team/Outer/.hidden");
  Folder map = map_;
  map.children[0].children[0].children.push_back(
      {.name = "Outer",
       .users = {{kAnna.uid, 7}},
       .children = {{.name = ".hidden", .users = {{kAnna.uid, 0}}, .groups = {{4242, 7}}}}});
  use(map);
  touch("/etc/tavrix/permission_refresh");
  EXPECT_EQ(Names{}, list(kAnna, "Shared/Team/Outer"));
  smb(kAnna, "rmdir Shared\\Team\\Outer");
  EXPECT_TRUE(exists(full("Shared/Team/Outer/.hidden")));
}

TEST_F(Listings, OfAHundredThousandEntriesShowEachOnce) {
  constexpr int kMany = 100000;
  make_folder("Shared/Team/Huge");
  bash("cd /tavrix/Shared/Team/Huge && seq -f 'entry%06g.txt' " + std::to_string(kMany) +
       " | xargs touch");
  const Names seen = list(kBen, "Shared/Team/Huge");
  EXPECT_EQ(static_cast<std::size_t>(kMany), seen.size());
  EXPECT_EQ(static_cast<std::size_t>(kMany), std::set(seen.begin(), seen.end()).size());
  EXPECT_EQ("entry000001.txt", *seen.begin());
  EXPECT_EQ("entry100000.txt", *seen.rbegin());
}

// --- a share where case does not matter ----------------------------------------------------------

class ListingsInAnyLetters : public Listings {
 protected:
  Lines options() override { return {"case sensitive = no"}; }
};

TEST_F(ListingsInAnyLetters, ShowWhatTheMapAllows) {
  const auto list_as = [&](const Caller& caller, const char* written) {
    return list(caller, written, {{"room", 4000}});
  };
  EXPECT_EQ(expected(kBen, kMixed), list_as(kBen, "SHARED/team/MIXED"));
  EXPECT_EQ(expected(kPat, "Private/pat"), list_as(kPat, "PRIVATE/PAT"));
  EXPECT_EQ(Names{}, list_as(kOlga, "private/PAT"));
  EXPECT_EQ((Names{"folder0001"}), list(kBen, kMixed, {{"pattern", "FOLDER0001"}}));
  EXPECT_EQ(Names{}, list(kBen, kMixed, {{"pattern", "FOLDER0003"}}));
}

}  // namespace
}  // namespace tavrix::test
