// SPDX-License-Identifier: LGPL-3.0-or-later
// The loader with kept maps: settings of its own, users, and a look at what is kept.
#pragma once

#include <sys/stat.h>

#include "tests/tools/loader.hpp"

namespace tavrix::test {

inline const std::string kKept = "/etc/tavrix/maps";

class Keeping : public Loader {
 protected:
  static void settings(const std::string& lines) {
    write_file("/etc/tavrix/tavrix.conf", "[LOADER]\n" + lines);
  }
  // A map of so many folders becomes current.
  static void load(uint32_t folders) {
    hand_over(wide(folders));
    const Outcome outcome = once();
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
  }
  // The map of one team with these entries.
  static Folder team_of(std::vector<Ace> users) {
    const Folder team{.name = "Team", .users = std::move(users)};
    return {
        .name = "/", .groups = {{2000, 1}}, .children = {{.name = "Shared", .children = {team}}}};
  }
  static void load_for(std::vector<Ace> users) {
    hand_over(team_of(std::move(users)));
    const Outcome outcome = once();
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
  }
  // Power users that every machine has.
  static void people(const std::vector<std::string>& names) {
    std::string users;
    for (const std::string& name : names) {
      users += (users.empty() ? "\"" : ", \"") + name + "\": [9002]";
    }
    write_file("/scratch/people.json",
               R"({"reserved": {"tavrix-admins": 9001, "tavrix-powerusers": 9002}, "users": {)" +
                   users + "}}");
    ASSERT_EQ(
        0, ctl({"groupmap", "build", "/scratch/people.json", "-o", "/etc/tavrix/groupmap_refresh"})
               .exit_code);
  }
  static std::vector<uint32_t> kept() {
    std::vector<uint32_t> numbers;
    const auto history = json({"map", "history"});
    for (const auto& map : history["maps"]) numbers.push_back(map["map"]);
    return numbers;
  }
  // The number of the newest kept map of so many folders; 0 without one.
  static uint32_t kept_with(int folders) {
    uint32_t number = 0;
    const auto history = json({"map", "history"});
    for (const auto& map : history["maps"]) {
      if (map["image"]["folders"] == folders) number = map["map"];
    }
    return number;
  }
  static std::string image_of(const std::string& number) {
    return std::string(kKept).append("/").append(number).append(".map");
  }
  // Every kept image is sound and the one that its facts say.
  static void expect_sound_history() {
    const Outcome outcome = ctl({"--json", "map", "history"});
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
    EXPECT_EQ("", outcome.err);
    const auto history = nlohmann::json::parse(outcome.out);
    for (const auto& map : history["maps"]) {
      const std::string number = std::to_string(map["map"].get<int>());
      EXPECT_EQ(0, ctl({"map", "verify", image_of(number)}).exit_code) << number;
      EXPECT_EQ(2, ctl({"map", "diff", "kept-" + number, "/none"}).exit_code);
      EXPECT_FALSE(contains(ctl({"map", "diff", "kept-" + number, "/none"}).err, "damaged"));
    }
  }
  static ino_t inode(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
  }
  static nlink_t links(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_nlink : 0;
  }
};

}  // namespace tavrix::test
