// SPDX-License-Identifier: LGPL-3.0-or-later
// Several users at work for a long time, while maps are swapped, caches refreshed and events swept.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <map>

#include "tests/support/player.hpp"

namespace tavrix::test {
namespace {

constexpr int kOperationsEach = 12000;

class RandomSession : public Hooks, public testing::WithParamInterface<Way> {
 protected:
  static std::vector<Caller> players() { return {kAdministrator, kPat, kOlga, kAnna, kBen}; }

  // A map with the players' folders and that many others.
  static std::vector<std::byte> map_with(uint32_t others) {
    Folder shared{.name = "Shared", .groups = {{kPeople, 8}}};
    for (uint32_t i = 0; i < others; ++i) {
      shared.children.push_back({.name = "Other" + std::to_string(i), .groups = {{kReaders, 1}}});
    }
    for (const Caller& caller : players()) shared.children.push_back(Player::folder_of(caller));
    return build_image({.name = "/", .groups = {{kPeople, 1}}, .children = {shared}}, {});
  }
  static void until_stopped(unsigned microseconds, const std::function<void()>& action) {
    while (!exists("/scratch/stop")) {
      action();
      usleep(microseconds);
    }
  }
  static void touch_refresh_file(const char* path) {
    const timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path, times, 0));
  }
  static int descriptors() { return static_cast<int>(list("/proc/self/fd").size()); }

  static void play(const Caller& caller) {
    // The first operations allocate some blocks for good: they run before the first count.
    { Player(caller, 1, GetParam()).play(0); }
    const long blocks = live_allocations();
    const int fds = descriptors();
    {
      Player player(caller, caller.uid, GetParam());
      player.play(kOperationsEach);
      tx_perm_ctx_t* root = tavrix_vfs_become_root();
      EXPECT_EQ(std::vector<std::string>{}, player.differences());
      std::string lines;
      for (const std::string& line : player.expected_events()) lines += line + "\n";
      write_file("/scratch/expected" + std::to_string(caller.uid), lines);
      tavrix_vfs_unbecome_root(root);
    }
    EXPECT_EQ(fds, descriptors());
    EXPECT_EQ(blocks, live_allocations());
  }
};

TEST_P(RandomSession, EveryVerdictAndEveryEventIsTheModels) {
  publish(map_with(0));
  for (const Caller& caller : players()) Player::make_folders(caller);
  const int segments = segments_in_use();
  Child loader([] {
    uint32_t round = 0;
    until_stopped(20000, [&] { publish(map_with(++round % 40)); });
  });
  Child toucher([] {
    until_stopped(300000, [] {
      touch_refresh_file("/etc/tavrix/permission_refresh");
      touch_refresh_file("/etc/tavrix/groupmap_refresh");
    });
  });
  Child sweeper(
      [] { until_stopped(10000, [] { ASSERT_EQ(1, flush_staging_buffer(FB_CTX_SWPR)); }); });
  std::vector<std::unique_ptr<Child>> children;
  for (const Caller& caller : players()) {
    children.push_back(std::make_unique<Child>([&caller = caller] {
      become_samba_user(caller.uid, caller.gid, caller.groups);
      play(caller);
    }));
  }
  for (auto& child : children) {
    const Outcome outcome = child->wait();
    EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.out.substr(0, 4000)
                              << outcome.err.substr(0, 2000);
  }
  write_file("/scratch/stop", "");
  for (Child* child : {&loader, &toucher, &sweeper}) {
    const Outcome outcome = child->wait();
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }

  std::map<uint32_t, std::vector<std::string>> written;
  for (const Event& event : events()) written[event.uid].push_back(event.what);
  EXPECT_EQ(players().size(), written.size());
  for (const Caller& caller : players()) {
    const auto expected = lines_of("/scratch/expected" + std::to_string(caller.uid));
    EXPECT_GT(expected.size(), static_cast<std::size_t>(kOperationsEach / 20)) << caller.name;
    EXPECT_TRUE(expected == written[caller.uid])
        << caller.name << " " << expected.size() << " " << written[caller.uid].size();
  }
  EXPECT_EQ(segments, segments_in_use());
  EXPECT_EQ(0, attachments());
}

INSTANTIATE_TEST_SUITE_P(Ways, RandomSession, testing::ValuesIn(kWays),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace tavrix::test
