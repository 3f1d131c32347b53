// SPDX-License-Identifier: LGPL-3.0-or-later
// A sweeper in a private world, writers of events, and the events in the dump files.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tavrix_vfs_utils.h"
#include "tests/support/log_capture.hpp"
#include "tests/tools/operator.hpp"
#include "tools/events/dump_reader.hpp"
#include "vfs_common.h"

namespace tavrix::test {

using Paths = std::vector<std::string>;

struct SweeperStart {
  bool with_file = false;  // takes its settings from the file, not from the shared block
  int haste = 1;
};

class SweeperWorld : public Operator {
 protected:
  static constexpr const char* kSweeper = TAVRIX_BUILD_DIR "/tools/tavrix-sweeper";
  static constexpr const char* kStaging = "/scratch/staging";
  static constexpr const char* kConf = "/scratch/conf";
  static constexpr const char* kSyncOff = "/tavrix/.conf/sync.off";
  static constexpr const char* kRescan = "/tavrix/.conf/tavrix_event_status.dirty";
  static constexpr const char* kRunning = "/tavrix/.conf/sweeper.running";

  void SetUp() override {
    Operator::SetUp();
    set_debug_level(-1);
    make_dirs(kStaging);
    make_dirs("/tavrix/.conf");
    settings(65536, 1);
    use_settings();
  }
  static void write_settings(int size, int period, const std::string& more = "") {
    write_file(kConf,
               "[SWEEPER]\nstaging dir = /scratch/staging\nflush fill threshold pct = 80\n"
               "staging buffer size = " +
                   std::to_string(size) + "\nflush period = " + std::to_string(period) + "\n" +
                   more);
  }
  static void settings(int size, int period, const std::string& more = "") {
    write_settings(size, period, more);
    ASSERT_EQ(0, ctl({"config", "load", kConf}).exit_code);
  }
  // Takes the settings into this process, as a server process does when a client connects.
  static void use_settings() {
    ASSERT_EQ(0, read_tavrix_config());
    global_params[PARAM_DEBUG_LEVEL].value.intval = -1;
  }
  static constexpr int kHaste = 10;  // a period of one second takes 100 ms
  static Outcome once(int haste = 1) {
    return in_child([haste] {
      alarm(20);  // a sweeper that hangs fails its test instead of stopping it
      hasten(haste);
      execl(kSweeper, "tavrix-sweeper", "--once", nullptr);
      _exit(127);
    });
  }
  static Outcome once_in_haste() { return once(kHaste); }
  static std::unique_ptr<Child> daemon(SweeperStart how = {}) {
    auto child = std::make_unique<Child>([how] {
      hasten(how.haste);
      execl(kSweeper, "tavrix-sweeper", "--foreground", how.with_file ? "--settings" : nullptr,
            kConf, nullptr);
      _exit(127);
    });
    EXPECT_TRUE(comes([&] { return contains(child->err_so_far(), "flushing every "); }));
    return child;
  }
  static Outcome stop(Child& sweeper) {
    ::kill(sweeper.pid(), SIGTERM);
    return sweeper.wait();
  }
  // This process's program will be one whose time runs that many times faster.
  static void hasten(int times) {
    if (times == 1) return;
    for (const auto& [name, value] : in_haste(times)) setenv(name.c_str(), value.c_str(), 1);
  }

  // 0 when the event is acknowledged.
  static int append(const std::string& path) {
    VFSEvent event = VFSEVENT__INIT;
    event.path = const_cast<char*>(path.c_str());
    pop_vfs_event(&event, 1001);
    const Malloced<staging_data_s> record(create_staging_data_buf(&event));
    return write_to_staging_buffer(record.get());
  }
  static void send(const std::string& path) { ASSERT_EQ(0, append(path)); }

  static Paths paths_in(const std::string& bytes) {
    Paths paths;
    events::DumpReader reader(bytes);
    while (const auto payload = reader.next()) {
      const auto event = events::unpack_event(*payload);
      paths.push_back(event ? event->path : "no event");
    }
    EXPECT_EQ("", reader.damage());
    return paths;
  }
  // The events of all dump files, in the order of the files' times.
  static Paths dumped(const std::string& folder = kStaging) {
    Paths names;
    for (const std::string& name : list(folder)) {
      if (name.starts_with("pending_")) names.push_back(name);
    }
    const auto time_of = [](const std::string& name) { return name.substr(name.find('_', 8) + 1); };
    std::sort(names.begin(), names.end(),
              [&](const auto& a, const auto& b) { return time_of(a) < time_of(b); });
    Paths all;
    for (const std::string& name : names) {
      const Paths some = paths_in(read_file(folder + "/" + name));
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }
  static Paths sorted(Paths paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  // The other files in the staging directory.
  static Paths others() {
    Paths names;
    for (const std::string& name : list(kStaging)) {
      if (!name.starts_with("pending_")) names.push_back(name);
    }
    return names;
  }
  static void empty_staging_dir() {
    for (const std::string& name : list(kStaging)) remove_all(std::string(kStaging) + "/" + name);
  }
  static int segment() { return shmget(ftok("/dev/null", 1234), 0, 0); }
  static int semaphore() { return semget(ftok("/dev/null", 2345), 0, 0); }
  static int64_t segment_bytes() {
    struct shmid_ds info {};
    return shmctl(segment(), IPC_STAT, &info) == 0 ? static_cast<int64_t>(info.shm_segsz) : -1;
  }
  static int shared_size() {
    const int id = shmget(ftok("/dev/null", 3456), 0, 0);
    const ShmAttachment block(shmat(id, nullptr, SHM_RDONLY));
    return static_cast<const global_param_s*>(block.get())[PARAM_STAGING_BUFFER_SIZE].value.intval;
  }
};

}  // namespace tavrix::test
