// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-sweeper, and tavrixctl's commands for the staging buffer.

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cstdlib>
#include <cstring>

#include "tests/tools/sweeper.hpp"

namespace tavrix::test {
namespace {

class Sweeper : public SweeperWorld {};

TEST_F(Sweeper, MakesTheBufferAndFlushesIt) {
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(0, ctl({"events", "buffer", "show"}).exit_code);
  send("a");
  EXPECT_EQ(1, json({"events", "buffer", "show"})["records"]);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
}

// With the true clock.
TEST_F(Sweeper, FlushesOnItsPeriod) {
  const auto sweeper = daemon();
  send("a");
  EXPECT_TRUE(comes([] { return dumped() == Paths{"a"}; }));
  ::kill(sweeper->pid(), SIGTERM);
  EXPECT_EQ(0, sweeper->wait().exit_code);
}

TEST_F(Sweeper, FlushesOnceMoreWhenItIsTold) {
  settings(65536, 3600);
  const auto sweeper = daemon();
  send("last");
  ::kill(sweeper->pid(), SIGTERM);
  EXPECT_EQ(0, sweeper->wait().exit_code);
  EXPECT_EQ(Paths{"last"}, dumped());
}

TEST_F(Sweeper, LeavesTheBufferAloneWhenDisabled) {
  settings(65536, 1, "disable sweeper flush = yes\n");
  const auto sweeper = daemon({.haste = kHaste});
  send("a");
  usleep(300 * 1000);  // three periods
  EXPECT_TRUE(list("/scratch/staging").empty());
  ctl({"config", "set", "SWEEPER:disable sweeper flush", "no"});
  ::kill(sweeper->pid(), SIGHUP);
  EXPECT_TRUE(comes([] { return dumped() == Paths{"a"}; }));
  ::kill(sweeper->pid(), SIGTERM);
  sweeper->wait();
}

TEST_F(Sweeper, TakesOverWhatWasLeft) {
  once();
  send("a");
  settings(131072, 1);  // another size: the old segment is flushed and replaced
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
  EXPECT_EQ(131072, json({"events", "buffer", "show"})["bytes"]);
  use_settings();
  send("b");
  once();
  EXPECT_EQ((Paths{"a", "b"}), dumped());
}

TEST_F(Sweeper, MakesAMissingSemaphoreForWhatIsThere) {
  once();
  send("a");
  destroy_eventstore_staging_buffer_semaphore();
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
}

TEST_F(Sweeper, AsksForARescanWhenTheBufferIsDamaged) {
  once();
  staging_buffer_s* buffer = get_eventstore_staging_buffer();
  buffer->next_offset = 5;
  buffer->num_records = 3;
  put_eventstore_staging_buffer(buffer);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_TRUE(exists("/tavrix/.conf/tavrix_event_status.dirty"));
  EXPECT_EQ(16, json({"events", "buffer", "show"})["used"]);
}

TEST_F(Sweeper, NeedsSettings) {
  ctl({"config", "remove", "--yes"});
  const Outcome outcome = once();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "there are no settings")) << outcome.err;
}

TEST_F(Sweeper, KeepsEventsInMemoryWithoutAFolder) {
  once();
  send("a");
  remove_all(kStaging);
  const Outcome outcome = once();
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "/scratch/staging: No such file or directory")) << outcome.err;
  EXPECT_FALSE(exists(kSyncOff));
  EXPECT_EQ(1, json({"events", "buffer", "show"})["records"]);
  make_dirs(kStaging);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
}

TEST_F(Sweeper, BufferCommandsMakeFlushAndRemove) {
  EXPECT_EQ(1, ctl({"events", "buffer", "show"}).exit_code);
  EXPECT_EQ(0, ctl({"events", "buffer", "create"}).exit_code);
  EXPECT_EQ(2, ctl({"events", "buffer", "create"}).exit_code);
  send("a");
  EXPECT_EQ(0, ctl({"events", "buffer", "flush"}).exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
  EXPECT_EQ(0, ctl({"events", "buffer", "remove", "--yes"}).exit_code);
  EXPECT_EQ(2, ctl({"events", "buffer", "remove", "--yes"}).exit_code);
  ctl({"config", "remove", "--yes"});
  EXPECT_EQ(2, ctl({"events", "buffer", "show"}).exit_code);
}

// --- a disk that is full -------------------------------------------------------------------------

int count(const std::string& text, const std::string& part) {
  int times = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++times;
  return times;
}

TEST_F(Sweeper, WaitsWhileTheDiskIsFullAndRecovers) {
  settings(1 << 20, 1);
  use_settings();
  mount_small_disk(kStaging, 64 << 10);
  write_file(std::string(kStaging) + "/agent", std::string(60 << 10, 'x'));
  const auto sweeper = daemon({.haste = kHaste});
  for (int i = 0; i < 100; ++i) send(std::string(200, 'p'));
  EXPECT_TRUE(comes([&] { return contains(sweeper->err_so_far(), "100 records stay in memory"); }));
  usleep(300 * 1000);  // further periods, which say nothing more
  EXPECT_TRUE(dumped().empty());
  ASSERT_EQ(0, umount2(kStaging, MNT_DETACH));
  EXPECT_TRUE(comes([] { return dumped().size() == 100; }));
  EXPECT_FALSE(exists(kSyncOff));
  const Outcome outcome = stop(*sweeper);
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "bytes of space are missing")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "100 records stay in memory")) << outcome.err;
  EXPECT_EQ(1, count(outcome.err, "\nwaiting: ")) << outcome.err;  // not on each period
  EXPECT_EQ(1, count(outcome.err, "over: waiting: ")) << outcome.err;
}

TEST_F(Sweeper, SaysWhyADiskTakesNothing) {
  once();
  send("a");
  ASSERT_EQ(0, mount("tmpfs", kStaging, "tmpfs", 0, "nr_inodes=1"));
  EXPECT_TRUE(contains(once().err, "no space, or no inode, is left"));
  ASSERT_EQ(0, mount(nullptr, kStaging, nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_TRUE(contains(once().err, "Read-only file system"));
  EXPECT_FALSE(exists(kSyncOff));
  umount2(kStaging, MNT_DETACH);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
  EXPECT_TRUE(others().empty());
}

// --- the running mark ----------------------------------------------------------------------------

TEST_F(Sweeper, AsksForARescanWhenTheMachineStoppedWithEventsInMemory) {
  const auto sweeper = daemon();
  send("lost");
  sweeper->kill();
  sweeper->wait();
  EXPECT_TRUE(exists(kRunning));
  // The state after a boot: no shared memory, and another boot number.
  shmctl(segment(), IPC_RMID, nullptr);
  semctl(semaphore(), 0, IPC_RMID);
  write_file(kRunning, "another boot\n");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_TRUE(contains(read_file(kRescan), "the machine stopped while events were in memory"));
}

TEST_F(Sweeper, AsksForNoRescanAfterACleanStop) {
  const auto sweeper = daemon();
  send("a");
  EXPECT_TRUE(exists(kRunning));
  stop(*sweeper);
  EXPECT_FALSE(exists(kRunning));
  shmctl(segment(), IPC_RMID, nullptr);
  semctl(semaphore(), 0, IPC_RMID);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(Sweeper, AsksForNoRescanWhenOnlyItsOwnProcessDied) {
  const auto sweeper = daemon();
  send("a");
  sweeper->kill();
  sweeper->wait();
  EXPECT_EQ(0, once().exit_code);
  EXPECT_FALSE(exists(kRescan));
  EXPECT_EQ(Paths{"a"}, dumped());
}

TEST_F(Sweeper, KeepsTheMarkWhileEventsAreInMemory) {
  const auto sweeper = daemon();
  send("a");
  remove_all(kStaging);
  stop(*sweeper);
  EXPECT_TRUE(exists(kRunning));
}

TEST_F(Sweeper, MakesATakenBufferAgainAndAsksForARescan) {
  const auto sweeper = daemon({.haste = kHaste});
  shmctl(segment(), IPC_RMID, nullptr);
  EXPECT_TRUE(comes([] { return segment() != -1; }));
  EXPECT_TRUE(comes([] { return exists(kRescan); }));
  send("a");
  EXPECT_TRUE(comes([] { return dumped() == Paths{"a"}; }));
  semctl(semaphore(), 0, IPC_RMID);
  EXPECT_TRUE(comes([] { return semaphore() != -1; }));
  send("b");
  EXPECT_TRUE(comes([] { return dumped() == (Paths{"a", "b"}); }));
  EXPECT_EQ(0, stop(*sweeper).exit_code);
}

// --- things of two calls -------------------------------------------------------------------------

TEST_F(Sweeper, FinishesASemaphoreWithoutItsValue) {
  ASSERT_NE(-1, semget(ftok("/dev/null", 2345), 1, IPC_CREAT | 0666));
  EXPECT_EQ(0, once_in_haste().exit_code);
  send("a");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
}

TEST_F(Sweeper, FinishesASegmentWithoutItsHeader) {
  ASSERT_EQ(1, create_eventstore_staging_semaphore());
  ASSERT_NE(-1, shmget(ftok("/dev/null", 1234), 65536, IPC_CREAT | 0666));
  EXPECT_EQ(0, once().exit_code);
  send("a");
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(Sweeper, LeavesASemaphoreAloneThatSomebodyHolds) {
  once();
  Child holder([] {
    int cause = 0;
    wait_eventstore_semaphore(&cause);
    write_file("/scratch/held", "");
    usleep(500 * 1000);  // longer than a hastened sweeper's patience
    post_eventstore_semaphore();
  });
  ASSERT_TRUE(comes([] { return exists("/scratch/held"); }));
  const int before = semctl(semaphore(), 0, GETPID);
  EXPECT_EQ(holder.pid(), before);
  EXPECT_EQ(0, once_in_haste().exit_code);
  EXPECT_TRUE(holder.wait().ok());
  EXPECT_EQ(1, semctl(semaphore(), 0, GETVAL));
}

// --- settings from a file ------------------------------------------------------------------------

TEST_F(Sweeper, ReadsItsFileAtTheStartAndOnReload) {
  ctl({"config", "remove", "--yes"});
  write_settings(65536, 3600);
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  use_settings();
  send("a");
  write_settings(65536, 1);
  ::kill(sweeper->pid(), SIGHUP);
  EXPECT_TRUE(comes([] { return dumped() == Paths{"a"}; }));
  EXPECT_EQ(0, stop(*sweeper).exit_code);
}

TEST_F(Sweeper, GoesOnWithTheSettingsOfBeforeWhenItsFileHasAMistake) {
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  write_file(kConf, "[SWEEPER]\nflush perood = 3\n");
  ::kill(sweeper->pid(), SIGHUP);
  send("a");
  EXPECT_TRUE(comes([] { return dumped() == Paths{"a"}; }));
  const Outcome outcome = stop(*sweeper);
  EXPECT_TRUE(contains(outcome.err, "/scratch/conf:2: SWEEPER:flush perood: no such setting"))
      << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "the previous settings hold")) << outcome.err;
}

TEST_F(Sweeper, BeginsWithTheLastGoodFileAfterABoot) {
  ctl({"config", "remove", "--yes"});
  write_file(kConf, "[SWEEPER]\nflush perood = 3\n");
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  use_settings();
  EXPECT_EQ(65536, shared_size());
  send("a");
  EXPECT_TRUE(comes([] { return dumped() == Paths{"a"}; }));
  EXPECT_TRUE(contains(stop(*sweeper).err, "starting with the previous settings"));
}

TEST_F(Sweeper, TellsTheServiceManagerThatItsFileHasAMistake) {
  write_file(kConf, "[VFS]\nx = 3\n");
  const int socket_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/scratch/notify");
  ASSERT_EQ(0, bind(socket_fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  setenv("NOTIFY_SOCKET", "/scratch/notify", 1);
  const auto sweeper = daemon({.with_file = true});
  unsetenv("NOTIFY_SOCKET");
  char text[1024] = "";
  ASSERT_GT(recv(socket_fd, text, sizeof text - 1, 0), 0);
  EXPECT_TRUE(contains(text, "READY=1\nSTATUS=degraded: ")) << text;
  EXPECT_TRUE(contains(text, "/scratch/conf:2: VFS:x: no such setting")) << text;
  close(socket_fd);
  stop(*sweeper);
}

}  // namespace
}  // namespace tavrix::test
