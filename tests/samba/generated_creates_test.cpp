// SPDX-License-Identifier: LGPL-3.0-or-later
// Random create requests: any disposition, access mask and option, by every kind of caller, on
// every kind of object, and then requests by the handle that was granted. In every case nothing
// changes that the caller may not change, every change has an event, and no hidden name is shown.

#include <random>

#include "tests/samba/matrix/account.hpp"
#include "tests/samba/matrix/judge.hpp"
#include "tests/samba/matrix/requests.hpp"
#include "tests/samba/matrix/world.hpp"

namespace tavrix::test {
namespace {

struct Place {
  const char* name;
  std::vector<std::string> paths;
  friend void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }
};

class GeneratedCreates : public MatrixWorld, public testing::WithParamInterface<Place> {
 protected:
  // The answer of the plain share to the first step: that of the server alone.
  std::string plain_status(Json request) {
    request["share"] = "plain";
    request["as"] = kAdministrator.name;
    Json step = request["steps"][0];
    request["steps"] = Json::array({step});
    const std::string key = step.dump();
    if (const auto known = plain_.find(key); known != plain_.end()) return known->second;
    const Disk before = Disk::now(kPlainRoot);
    const std::string status = status_of(robot().run(request), 0);
    if (!changes_between(before, Disk::now(kPlainRoot)).empty()) make_tree(kPlainRoot);
    return plain_[key] = status;
  }

  // False after that many wrong cases: they usually have one cause.
  bool try_case(const Role& role, const Json& request) {
    Account account{.caller = role.caller, .map = &map_, .request = request};
    account.before = disk_;
    account.answer = robot().run(request);
    account.after = Disk::now(kShareRoot);
    account.events = take_events();
    std::vector<std::string> wrong = complaints_about(account);
    const Judge judge(map_, *role.caller, disk_);
    const std::string status = status_of(account.answer, 0);
    const bool is_computer = role.caller->name.ends_with("$");  // may not even connect
    const Expected expected = expected_of(request["steps"][0], judge, disk_);
    if (expected == Expected::kRefuses && status == "OK") wrong.emplace_back("granted");
    if (expected == Expected::kLikePlain && !is_computer && status != "OK" &&
        plain_status(request) == "OK") {
      wrong.push_back("refused: " + status);
    }
    if (account.answer.contains("error") && !is_computer) wrong.push_back(account.answer["error"]);
    if (!changes_between(disk_, account.after).empty()) {
      make_tree(kShareRoot);
      disk_ = Disk::now(kShareRoot);
    }
    if (wrong.empty()) return true;
    std::string text = std::string(role.name) + " " + request.dump() + "\n  ";
    for (const std::string& line : wrong) text += line + "; ";
    ADD_FAILURE() << text << "\n  " << account.answer.dump();
    return ++failures_ < 20;
  }

  Folder map_ = matrix_map();
  Disk disk_;

 private:
  std::map<std::string, std::string> plain_;
  int failures_ = 0;
};

TEST_P(GeneratedCreates, ChangeAndTellWhatIsAllowedAndNothingElse) {
  constexpr int kCasesForEach = 110;
  disk_ = Disk::now(kShareRoot);
  for (const Role& role : roles()) {
    std::mt19937 random(7);
    for (int i = 0; i < kCasesForEach; ++i) {
      const std::string& path = GetParam().paths[random() % GetParam().paths.size()];
      Json request{{"as", role.caller->name}, {"steps", random_steps(path, random)}};
      if (!try_case(role, request)) return;
    }
  }
  EXPECT_EQ(std::string::npos, smbd_log().find("identity left"));
  EXPECT_EQ(std::string::npos, smbd_log().find("PANIC"));
}

const std::vector<Place> kPlaces{
    {"Files", {"Shared/Team/file.txt", "Shared/Team/Docs/plan.txt", "Shared/Team/Drop/form.txt"}},
    {"FilesFarBelow", {"Shared/Team/Docs/Deep/Deeper/far.txt", "Shared/Team/FullFixed/kept.txt"}},
    {"Folders", {"Shared/Team/Empty", "Shared/Team/Docs", "Shared/Team/Drop"}},
    {"FixedFolders", {"Shared/Team/Fixed", "Shared/Team/FullFixed"}},
    {"Missing", {"Shared/Team/new", "Shared/Team/Docs/new", "Shared/new", "Private/new", "new"}},
    {"Hidden",
     {"Shared/Team/Secret", "Shared/Team/Secret/hidden.txt", "Shared/Team/Secret/new",
      "Shared/Closed", "Shared/Closed/locked.txt", "Shared/stray.txt", "Other", "top.txt"}},
    {"Top", {"", "Shared", "Private", "Shared/Team"}},
    {"PrivateFolders",
     {"Private/pat", "Private/olga", "Private/pat/notes", "Private/pat/diary.txt",
      "Private/olga/diary.txt", "Private/pat/new", "Private/olga/new"}},
    {"SpecialNames",
     {".DS_Store", "Shared/.DS_Store", "Shared/Team/.DS_Store", "Shared/Team/a.sb-x",
      "Shared/Closed/b.sb-y", "._.DS_Store", "Private/.DS_Store"}},
    {"Streams",
     {"Shared/Team/file.txt:stream", "Shared/Team/Docs:stream:$DATA", "Shared/Team/file.txt::$DATA",
      "Shared/Team/Secret:stream"}},
    {"Links",
     {"Shared/Team/inside.lnk", "Shared/Team/outside.lnk", "Shared/Team/secret.lnk",
      "Shared/Team/Docs/peek.lnk"}},
};
INSTANTIATE_TEST_SUITE_P(Of, GeneratedCreates, testing::ValuesIn(kPlaces),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace tavrix::test
