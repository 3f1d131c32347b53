// SPDX-License-Identifier: LGPL-3.0-or-later
// A new size of the staging buffer while connections work: no event is refused and none is lost.

#include <dlfcn.h>
#include <map>

#include "tests/tools/sweeper.hpp"

namespace tavrix::test {
namespace {

class BufferSize : public SweeperWorld {
 protected:
  // A process that uses the library, as a server process does, until it is told to stop. Some of
  // them reconnect all the time.
  static std::unique_ptr<Child> writer(int number, bool reconnects) {
    return std::make_unique<Child>([number, reconnects] {
      ASSERT_NE(nullptr, dlopen(TAVRIX_BUILD_DIR "/libtavrix.so.1", RTLD_NOW));
      const std::string name = std::to_string(number);
      int events = 0;
      for (; !exists("/scratch/stop"); ++events) {
        if (reconnects && events % 5 == 0) use_settings();
        ASSERT_EQ(0, append(name + "-" + std::to_string(events)));
        if (events == 0) write_file("/scratch/writing" + name, "");
        usleep(20'000);
      }
      write_file("/scratch/events" + name, std::to_string(events));
    });
  }
  static void reload(Child& sweeper, int bytes) {
    write_settings(bytes, 1);
    ::kill(sweeper.pid(), SIGHUP);
  }
};

TEST_F(BufferSize, ChangesUnderSixteenWriters) {
  settings(262144, 1);
  use_settings();
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  std::vector<std::unique_ptr<Child>> writers;
  for (int number = 0; number < 16; ++number) writers.push_back(writer(number, number % 2 == 0));
  for (int number = 0; number < 16; ++number) {
    ASSERT_TRUE(comes([&] { return exists("/scratch/writing" + std::to_string(number)); }));
  }
  reload(*sweeper, 1 << 20);
  EXPECT_TRUE(comes([] { return segment_bytes() == 1 << 20; }));
  EXPECT_EQ(262144, shared_size());  // connections still work with the old size
  usleep(300'000);
  reload(*sweeper, 65536);
  EXPECT_TRUE(comes([&] { return contains(sweeper->err_so_far(), "16 connections work with"); }));
  EXPECT_EQ(1 << 20, segment_bytes());
  EXPECT_EQ(262144, shared_size());
  write_file("/scratch/stop", "");
  for (const auto& writer : writers) {
    const Outcome outcome = writer->wait();
    EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
  EXPECT_TRUE(comes([] { return shared_size() == 65536; }));
  const Outcome outcome = stop(*sweeper);
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "16 connections work with a staging buffer of 262144 bytes"))
      << outcome.err;
  EXPECT_FALSE(exists(kSyncOff));
  std::map<std::string, int> times;
  for (const std::string& path : dumped()) ++times[path];
  std::size_t wanted = 0;
  for (int number = 0; number < 16; ++number) {
    wanted += std::stoul(read_file("/scratch/events" + std::to_string(number)));
  }
  EXPECT_EQ(wanted, times.size());
  for (const auto& [path, count] : times) ASSERT_EQ(1, count) << path;
}

TEST_F(BufferSize, IsSetByHandOnceTheSegmentIsThatLarge) {
  once();
  send("a");
  EXPECT_EQ(0, ctl({"config", "set", "SWEEPER:staging buffer size", "131072"}).exit_code);
  EXPECT_EQ(131072, segment_bytes());
  EXPECT_EQ(131072, shared_size());
  send("b");  // with the previous settings
  use_settings();
  send("c");
  once();
  EXPECT_EQ((Paths{"a", "b", "c"}), sorted(dumped()));
}

TEST_F(BufferSize, StaysWhenThereIsNoMemoryForALargerOne) {
  once();
  send("a");
  write_file("/proc/sys/kernel/shmmax", "100000");
  const Outcome outcome = ctl({"config", "set", "SWEEPER:staging buffer size", "131072"});
  EXPECT_TRUE(contains(outcome.err, "there is no memory for the larger segment")) << outcome.err;
  EXPECT_EQ(65536, shared_size());
  send("b");
  once();
  EXPECT_EQ((Paths{"a", "b"}), sorted(dumped()));
}

}  // namespace
}  // namespace tavrix::test
