// SPDX-License-Identifier: LGPL-3.0-or-later
// Refused pairs: the loader sets them aside with what the checks found, and "map refused" lists
// them.

#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

class MapRefused : public Loader {
 protected:
  // The totals of the size file are too small for the data file.
  static void refuse_a_pair() {
    write_json_pair(team());
    write_file(kInbox + "/size.json", size_json({4, 5, 20}));
    ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
    ASSERT_EQ(1, once().exit_code);
  }
  static std::string folder_of(std::size_t number) {
    return kInbox + "/refused/" + refused().at(number);
  }
  static nlohmann::json listed(const std::string& limit = "20") {
    return json({"map", "refused", "--dir", kInbox, "--limit", limit});
  }
};

TEST_F(MapRefused, IsAnEmptyListAtFirst) {
  EXPECT_EQ(0, listed()["count"]);
  EXPECT_EQ("no map was refused\n", ctl({"map", "refused", "--dir", kInbox}).out);
  EXPECT_EQ("no map was refused\n", ctl({"map", "refused", "--dir", "/scratch/none"}).out);
}

TEST_F(MapRefused, HasTheFindingsThatLintHas) {
  refuse_a_pair();
  const auto list = listed();
  ASSERT_EQ(1U, list["pairs"].size());
  const auto& pair = list["pairs"][0];
  const std::string folder = folder_of(0);
  EXPECT_EQ(folder, pair["folder"]);
  const auto lint = json({"map", "lint", folder + "/size.json", folder + "/data.json"});
  ASSERT_LT(0, lint["errors"]);
  for (const char* key : {"errors", "warnings", "findings"}) EXPECT_EQ(lint[key], pair[key]) << key;
  EXPECT_EQ("size.json", pair["files"][0]["name"]);
  EXPECT_EQ(read_file(folder + "/data.json").size(), pair["files"][1]["bytes"]);
  EXPECT_TRUE(pair.contains("time"));
}

TEST_F(MapRefused, TellsPeopleTheReasonAndThePlaces) {
  refuse_a_pair();
  const std::string text = ctl({"map", "refused", "--dir", kInbox}).out;
  EXPECT_TRUE(contains(text, folder_of(0) + ": size.json, ")) << text;
  EXPECT_TRUE(contains(text, "\n  error size file byte ")) << text;
  EXPECT_TRUE(contains(text, "TOTALFSELEMS is 4")) << text;
}

TEST_F(MapRefused, HasTheNewestFirstAndAsManyAsWanted) {
  for (int i = 0; i < 3; ++i) refuse_a_pair();
  const auto list = listed("2");
  EXPECT_EQ(3, list["count"]);
  EXPECT_EQ(true, list["more"]);
  ASSERT_EQ(2U, list["pairs"].size());
  EXPECT_EQ(folder_of(2), list["pairs"][0]["folder"]);
  EXPECT_EQ(folder_of(1), list["pairs"][1]["folder"]);
  EXPECT_TRUE(contains(ctl({"map", "refused", "--dir", kInbox, "--limit", "2"}).out,
                       "3 refused pairs in all; --limit shows more\n"));
}

TEST_F(MapRefused, WithoutFindingsHasTheReasonAlone) {
  refuse_a_pair();
  remove_all(folder_of(0) + "/findings.json");
  const auto pair = listed()["pairs"][0];
  EXPECT_FALSE(pair.contains("findings"));
  EXPECT_TRUE(contains(pair["details"].get<std::string>(), "TOTALFSELEMS is 4"));
  remove_all(folder_of(0) + "/reason.txt");
  const auto bare = listed()["pairs"][0];
  EXPECT_EQ("the reason was not stored", bare["reason"]);
  EXPECT_TRUE(bare.contains("time"));
}

TEST_F(MapRefused, TakesOnlyFindingsThatAreOnes) {
  refuse_a_pair();
  for (const char* text : {"", "{", "7", "[]", R"({"errors": 1, "warnings": 0})",
                           R"({"errors": 1, "warnings": 0, "findings": [{"severity": "error"}]})",
                           R"({"errors": -1, "warnings": 0, "findings": []})",
                           R"({"errors": "1", "warnings": 0, "findings": [1]})"}) {
    write_file(folder_of(0) + "/findings.json", text);
    EXPECT_FALSE(listed()["pairs"][0].contains("findings")) << text;
  }
}

// Every error path of the list, and of setting a pair aside.

TEST_F(MapRefused, SaysThatTheFolderCannotBeRead) {
  remove_all(kInbox);
  make_dirs(kInbox);
  write_file(kInbox + "/refused", "a file");
  const Outcome outcome = ctl({"map", "refused", "--dir", kInbox});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "/refused: Not a directory; give the loader's folder"))
      << outcome.err;
}

TEST_F(MapRefused, FindingsWithoutRoomDoNotKeepAPairFromBeingSetAside) {
  write_file(kInbox + "/size.json", "nonsense");
  write_file(kInbox + "/data.json", "nonsense");
  EXPECT_EQ(1, once_with("write@/findings.json:28:1:99").exit_code);
  ASSERT_EQ(1U, refused().size());
  EXPECT_FALSE(listed()["pairs"][0].contains("findings"));
  EXPECT_LT(0U, listed()["pairs"][0]["details"].get<std::string>().size());
}

// A run that died while it refused leaves findings in the work folder; the next pair is another.
TEST_F(MapRefused, FindingsOfOnePairAreNotThoseOfTheNext) {
  make_dirs(kInbox + "/.work");
  write_file(kInbox + "/.work/findings.json", "{}");
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  EXPECT_FALSE(exists(kInbox + "/.work/findings.json"));
}

}  // namespace
}  // namespace tavrix::test
