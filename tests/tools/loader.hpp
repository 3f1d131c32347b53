// SPDX-License-Identifier: LGPL-3.0-or-later
// The loader in a private world: hands over pairs, makes calls fail, and asks for the current map.
#pragma once

#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <memory>

#include "tests/tools/operator.hpp"

namespace tavrix::test {

inline const std::string kInbox = "/scratch/maps";
inline const std::string kLoader = TAVRIX_BUILD_DIR "/tools/tavrix-loader";
inline const std::string kCopy = "/etc/tavrix/.permbe_map";

class Loader : public Operator {
 protected:
  static constexpr int kHaste = 20;  // the watch of the maps looks every 50 ms

  void SetUp() override {
    Operator::SetUp();
    ASSERT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
    ctl({"config", "set", "VFS:debug level", "-1"});
    make_dirs(kInbox);
  }
  static Outcome once(const Environment& environment = {}) {
    return run_program({kLoader, "--once", "--dir", kInbox}, {}, environment);
  }
  // The same with calls that fail, and pauses between tries that are over soon.
  static Outcome once_with(const std::string& faults) { return once(in_haste(kHaste, faults)); }
  // The service itself, until its object goes.
  static std::unique_ptr<Child> service(const Environment& environment = {}) {
    return std::make_unique<Child>([environment] {
      for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
      execl(kLoader.c_str(), kLoader.c_str(), "--dir", kInbox.c_str(), nullptr);
      _exit(127);
    });
  }
  static std::string operators_log() { return read_file("/var/log/tavrix_perms.log"); }
  static void hand_over(const Folder& root) {
    write_json_pair(root);
    ASSERT_EQ(0, rename("/scratch/size.json", (kInbox + "/size.json").c_str()));
    ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
  }
  static Folder wide(uint32_t folders) {
    Folder root{.name = "/", .groups = {{2000, 1}}};
    for (uint32_t i = 1; i < folders; ++i)
      root.children.push_back({.name = "f" + std::to_string(i)});
    return root;
  }
  // 0 when there is no map.
  static int folders_of_current() {
    if (ctl({"map", "info"}).exit_code != 0) return 0;
    return json({"map", "info"})["map"]["folders"];
  }
  static std::vector<std::string> refused() {
    return exists(kInbox + "/refused") ? list(kInbox + "/refused") : std::vector<std::string>{};
  }
  static time_t refresh_time() {
    struct stat st {};
    return stat("/etc/tavrix/permission_refresh", &st) == 0 ? st.st_mtime : 0;
  }
  static void wait_for_folders(int folders) {
    for (int tries = 0; tries < 1000 && folders_of_current() != folders; ++tries) usleep(20000);
    EXPECT_EQ(folders, folders_of_current());
  }
};

}  // namespace tavrix::test
