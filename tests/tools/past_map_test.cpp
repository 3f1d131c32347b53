// SPDX-License-Identifier: LGPL-3.0-or-later
// Questions about a time that is past: tavrixctl check, who and effective with --at.

#include <fmt/format.h>

#include "tests/tools/keeping.hpp"

namespace tavrix::test {
namespace {

// Three maps, an hour apart.
class PastMap : public Keeping {
 protected:
  static constexpr int64_t kFirst = 1'790'000'000;  // seconds since 1970
  void SetUp() override {
    Keeping::SetUp();
    people({"daemon", "bin"});
    load_for({{1, 1}});
    people({"daemon"});
    load_for({{1, 3}});
    load_for({{2, 1}});
    for (const int number : {1, 2, 3}) came_into_force(number, kFirst + (number - 1) * 3600);
  }
  // With some microseconds, as times have.
  static void came_into_force(int number, int64_t seconds) {
    const std::string path = fmt::format("{}/{}.json", kKept, number);
    auto facts = nlohmann::json::parse(read_file(path));
    facts["since"] = seconds * 1'000'000 + 400'000;
    write_file(path, facts.dump());
  }
  static Outcome may_daemon_write(int64_t seconds) {
    return ctl(
        {"check", "--user", "daemon", "mkdir", "Shared/Team/New", "--at", std::to_string(seconds)});
  }
  static int map_at(int64_t seconds) {
    return json({"check", "--user", "daemon", "stat", "Shared", "--at",
                 std::to_string(seconds)})["at"]["map"];
  }
};

TEST_F(PastMap, AnswersByTheMapOfThen) {
  EXPECT_EQ(1, may_daemon_write(kFirst + 60).exit_code);
  EXPECT_EQ(0, may_daemon_write(kFirst + 3660).exit_code);
  EXPECT_EQ(1, may_daemon_write(kFirst + 7260).exit_code);
}

TEST_F(PastMap, AMapIsInForceFromTheSecondThatIsShown) {
  EXPECT_EQ(1, map_at(kFirst));
  EXPECT_EQ(1, map_at(kFirst + 3599));
  EXPECT_EQ(2, map_at(kFirst + 3600));
  EXPECT_EQ(2, map_at(kFirst + 7199));
  EXPECT_EQ(3, map_at(kFirst + 7200));
}

TEST_F(PastMap, SaysWhenNobodyKnows) {
  const Outcome outcome = may_daemon_write(kFirst - 1);
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the oldest kept map came into force at 2026-09-21"))
      << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "nobody knows the map of")) << outcome.err;
  remove_all(kKept);
  EXPECT_TRUE(contains(may_daemon_write(kFirst).err, "no map is kept"));
}

TEST_F(PastMap, RefusesWhatIsNoTimeAndWhatIsToCome) {
  const auto at = [](const std::string& time) {
    return ctl({"check", "--user", "daemon", "stat", "Shared", "--at", time});
  };
  EXPECT_EQ(2, at("some day").exit_code);
  EXPECT_TRUE(contains(at("some day").err, "\"some day\" is no time; write one such as"));
  EXPECT_TRUE(contains(at("2199-01-01").err, "is still to come"));
  EXPECT_EQ(0, at("now").exit_code);
  EXPECT_EQ(0, at("-1s").exit_code);
}

TEST_F(PastMap, NamesTheMapThatAnswered) {
  const std::string text = may_daemon_write(kFirst + 3660).out;
  EXPECT_TRUE(text.starts_with("by map 2, in force from 2026-")) << text;
  EXPECT_TRUE(contains(text, " until 2026-")) << text;
  EXPECT_TRUE(contains(text, ", with the groups of then\n")) << text;
}

TEST_F(PastMap, TakesTheGroupsOfThen) {
  const auto users = [](int64_t time) {
    return json({"who", "read", "Shared/Team", "--at", std::to_string(time)})["users"];
  };
  EXPECT_EQ(2, users(kFirst));
  EXPECT_EQ(1, users(kFirst + 3600));
  remove_all(kKept + "/1.groups");
  auto facts = nlohmann::json::parse(read_file(kKept + "/1.json"));
  facts["groups"] = false;
  write_file(kKept + "/1.json", facts.dump());
  EXPECT_EQ(1, users(kFirst));
  EXPECT_TRUE(contains(may_daemon_write(kFirst).out,
                       "with the groups of now, because those of then "
                       "are not kept"));
}

TEST_F(PastMap, EffectiveShowsTheTreeOfThen) {
  const auto masks = [](int64_t time) {
    const auto tree =
        json({"effective", "--user", "daemon", "Shared/Team", "--at", std::to_string(time)});
    return tree["folders"].empty() ? 0 : tree["folders"][0]["mask"].get<int>();
  };
  EXPECT_EQ(1, masks(kFirst));
  EXPECT_EQ(3, masks(kFirst + 3600));
  EXPECT_EQ(0, masks(kFirst + 7200));
}

TEST_F(PastMap, WarnsWhenTheMapInForceIsNotKept) {
  settings("kept maps = 10\n");
  hand_over(team());
  ASSERT_EQ(0, once_with("link@/etc/tavrix/maps:5:1:99").exit_code);
  const Outcome outcome =
      ctl({"check", "--user", "daemon", "stat", "Shared", "--at", std::to_string(kFirst + 9000)});
  EXPECT_TRUE(contains(outcome.err, "the map in force now is not kept")) << outcome.err;
}

TEST_F(PastMap, ADamagedMapAnswersNothing) {
  write_file(kKept + "/2.map", "damaged");
  EXPECT_EQ(2, may_daemon_write(kFirst + 3660).exit_code);
  EXPECT_TRUE(contains(may_daemon_write(kFirst + 3660).err, "/2.map is damaged"));
}

}  // namespace
}  // namespace tavrix::test
