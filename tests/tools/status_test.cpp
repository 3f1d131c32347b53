// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl status in a private world.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <ctime>

#include "perm_map.h"
#include "tests/tools/appliance.hpp"

namespace tavrix::test {
namespace {

class Status : public Appliance {
 protected:
  static int map_set() { return semget(ftok("/dev/null", 7065), 0, 0); }
  static void set_semaphore(int set, int number, int value) {
    union {
      int val;
      void* other;
    } argument{.val = value};
    ASSERT_EQ(0, semctl(set, number, SETVAL, argument));
  }
  static void make_older(const std::string& path, int64_t seconds) {
    const timespec times[2] = {{std::time(nullptr) - seconds, 0},
                               {std::time(nullptr) - seconds, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  }
  // The command as a user without any right, into whose process the leak sanitizer may not look.
  static Outcome as_nobody() {
    return run_program({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
                        TAVRIX_BUILD_DIR "/tools/tavrixctl", "--json", "status", "--settings",
                        kConf, "--dir", kInbox},
                       "", {{"ASAN_OPTIONS", "detect_leaks=0"}});
  }
};

TEST_F(Status, IsWellWhenAllIsInOrder) {
  start_services();
  const Outcome outcome = status();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(outcome.out.starts_with("TAVRIX WELL\n\n")) << outcome.out;
  for (const char* text :
       {"\nsettings     loaded from /scratch/conf ",
        "\nmap          table 1 is current: 5 folders, ", "the local copy is the current map\n",
        "\ninbox        no map waits\n", "\ngroups       2 users, 0 reserved groups, written ",
        "\nsweeper      runs, process ", "flushing every second; last work ",
        "\nloader       runs, process ", ": Successfully processed permission map\n",
        "\nbuffer       0 records wait, 16 B of 64.0 KiB",
        "\ndumps        0 files wait for the agent\n", "\nalarms       none\n", "\nspace        ",
        "\nconnections  0 server processes; ", "\nversions     tools "}) {
    EXPECT_TRUE(contains(outcome.out, text)) << text << "\nin\n" << outcome.out;
  }
  EXPECT_EQ("well", status_json()["level"]);
}

TEST_F(Status, TellsOfServicesThatDoNotRun) {
  EXPECT_EQ((std::set<std::string>{"sweeper-stopped", "loader-stopped"}), problems());
  EXPECT_EQ(2, status().exit_code);
  start_services();
  loader_.reset();
  EXPECT_EQ((std::set<std::string>{"loader-stopped"}), problems());
  EXPECT_EQ(1, status().exit_code);
}

TEST_F(Status, CountsNoDeadProcess) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, "tavrix-sweeper");
    _exit(0);
  }
  siginfo_t end{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT));
  EXPECT_TRUE(is_a_problem("sweeper-stopped"));
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
}

TEST_F(Status, TellsWhenTheSweeperWorkedLast) {
  start_services();
  make_older(kRunning, 1000);
  EXPECT_TRUE(comes([] { return !is_a_problem("sweeper-stuck"); }));
  ::kill(sweeper_->pid(), SIGSTOP);
  make_older(kRunning, 1000);
  EXPECT_TRUE(is_a_problem("sweeper-stuck"));
  ::kill(sweeper_->pid(), SIGCONT);
}

TEST_F(Status, TellsOfSettings) {
  ctl({"config", "set", "VFS:debug level", "3"});
  EXPECT_EQ(nlohmann::json{"VFS:debug level"}, status_json()["settings"]["differing"]);
  write_file(kConf, "[VFS]\ndebug level = high\n");
  EXPECT_TRUE(contains(status().out, "degraded: the previous settings hold: /scratch/conf:2: "));
  EXPECT_TRUE(is_a_problem("settings-degraded"));
  ctl({"config", "remove", "--yes"});
  EXPECT_TRUE(is_a_problem("settings-missing"));
  const int id = shmget(ftok("/dev/null", 3456), 100, IPC_CREAT | 0666);
  EXPECT_TRUE(is_a_problem("settings-size"));
  shmctl(id, IPC_RMID, nullptr);
  ASSERT_NE(-1, shmget(ftok("/dev/null", 3456), 19760, IPC_CREAT | 0666));
  EXPECT_TRUE(is_a_problem("settings-not-loaded"));
}

TEST_F(Status, TellsOfTheSemaphoresOfTheMap) {
  set_semaphore(map_set(), 0, 0);
  EXPECT_TRUE(is_a_problem("map-missing"));
  set_semaphore(map_set(), 0, 7);
  EXPECT_TRUE(is_a_problem("map-index"));
  set_semaphore(map_set(), 0, 1);
  set_semaphore(map_set(), 1, 0);
  EXPECT_TRUE(is_a_problem("map-missing"));
  semctl(map_set(), 0, IPC_RMID);
  EXPECT_TRUE(is_a_problem("map-semaphores-missing"));
}

TEST_F(Status, TellsOfASecondTable) {
  ASSERT_NE(-1, shmget(TAVRIX_PERM_TABLE0_KEY, 4096, IPC_CREAT));
  EXPECT_TRUE(is_a_problem("map-second-table"));
  set_semaphore(map_set(), 0, 0);
  EXPECT_TRUE(is_a_problem("map-not-published"));
}

TEST_F(Status, TellsOfTheLocalCopy) {
  const char* copy = "/etc/tavrix/.permbe_map";
  write_file(copy, read_file(copy).replace(100, 1, "?"));
  EXPECT_TRUE(is_a_problem("map-copy-differs"));
  write_file(copy, read_file(copy) + "more");
  EXPECT_TRUE(is_a_problem("map-copy-differs"));
  remove_all(copy);
  EXPECT_TRUE(is_a_problem("map-copy-missing"));
}

TEST_F(Status, ExpectsNothingOfTheCopyDuringAnImport) {
  remove_all("/etc/tavrix/.permbe_map");
  const Fd lock(open("/etc/tavrix/.map.lock", O_RDWR | O_CREAT, 0600));
  ASSERT_EQ(0, flock(lock.get(), LOCK_EX));
  EXPECT_FALSE(is_a_problem("map-copy-missing"));
  EXPECT_EQ(true, status_json()["map"]["importing"]);
}

TEST_F(Status, TellsOfMapsOnTheirWay) {
  const std::string refused = std::string(kInbox) + "/refused/20300101T000000.000000Z";
  make_dirs(refused);
  write_file(refused + "/reason.txt", "3 errors\nerror byte 7\n");
  make_older(refused + "/reason.txt", -2);
  const std::string out = status().out;  // "0 seconds", or more on a busy machine
  EXPECT_TRUE(contains(out, "the newest map was refused ") && contains(out, " ago: 3 errors\n"));
  make_older(refused + "/reason.txt", 1000);
  EXPECT_FALSE(is_a_problem("map-refused"));  // a map became current since then
  write_file(std::string(kInbox) + "/size.json", "");
  write_file(std::string(kInbox) + "/data.json", "");
  EXPECT_FALSE(is_a_problem("map-waits"));
  make_older(std::string(kInbox) + "/size.json", 1000);
  make_older(std::string(kInbox) + "/data.json", 1000);
  EXPECT_TRUE(is_a_problem("map-waits"));
}

TEST_F(Status, TellsOfGroups) {
  write_file(std::string(kGroups) + ".sha256", std::string(64, '0') + "  groupmap_refresh\n");
  EXPECT_TRUE(is_a_problem("groups-checksum"));
  write_file(kGroups, "short");
  EXPECT_TRUE(is_a_problem("groups-broken"));
  remove_all(kGroups);
  EXPECT_TRUE(is_a_problem("groups-missing"));
}

TEST_F(Status, TellsOfTheStagingBuffer) {
  const ShmAttachment buffer(shmat(segment(), nullptr, 0));
  static_cast<staging_buffer_s*>(buffer.get())->next_offset = 7;
  EXPECT_TRUE(is_a_problem("buffer-damaged"));
  shmctl(segment(), IPC_RMID, nullptr);
  EXPECT_TRUE(is_a_problem("buffer-missing"));
  ASSERT_NE(-1, shmget(ftok("/dev/null", 1234), 4096, IPC_CREAT | 0666));
  initialize_staging_buffer();
  semctl(semaphore(), 0, IPC_RMID);
  EXPECT_TRUE(is_a_problem("buffer-semaphore-missing"));
}

TEST_F(Status, TellsOfASemaphoreThatADeadProcessHolds) {
  in_child([] {
    sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = 0};
    semop(semaphore(), &take, 1);
  });
  EXPECT_TRUE(is_a_problem("buffer-semaphore-held"));
}

TEST_F(Status, DoesNotWaitForTheSemaphore) {
  ASSERT_EQ(0, append("/tavrix/waits"));
  int cause = 0;
  ASSERT_EQ(0, wait_eventstore_semaphore(&cause));
  const auto buffer = status_json()["buffer"];
  EXPECT_EQ(1, buffer["records"]);
  EXPECT_EQ(false, buffer["semaphore_free"]);
  EXPECT_EQ(getpid(), buffer["last_process"]);
}

TEST_F(Status, TellsHowLongEventsWait) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>("/tavrix/old");
  pop_vfs_event(&event, 1001);
  event.time_sec = static_cast<int32_t>(std::time(nullptr) - 600);
  const Malloced<staging_data_s> record(create_staging_data_buf(&event));
  ASSERT_EQ(0, write_to_staging_buffer(record.get()));
  EXPECT_TRUE(contains(status().out, "WARNING: events wait in memory for 10 minutes: nobody"));
  ctl({"config", "set", "SWEEPER:disable sweeper flush", "yes"});
  EXPECT_TRUE(is_a_problem("flush-disabled"));
  EXPECT_FALSE(is_a_problem("events-wait"));
}

TEST_F(Status, TellsThatTheAgentIsNotCollecting) {
  const std::string dump = std::string(kStaging) + "/pending_1_2.3";
  write_file(dump, "12345");
  EXPECT_EQ(5, status_json()["events"]["bytes"]);
  EXPECT_FALSE(is_a_problem("agent-not-collecting"));
  make_older(dump, 7200);
  EXPECT_TRUE(contains(status().out,
                       "the agent is not collecting: 1 dump file waits, the oldest for 2 hours"));
  write_file(std::string(kStaging) + "/aside_txtempAAAAAA", "");
  EXPECT_TRUE(is_a_problem("dumps-set-aside"));
  remove_all(kStaging);
  EXPECT_TRUE(is_a_problem("staging-dir-missing"));
}

TEST_F(Status, TellsOfAlarms) {
  mark_event_db_as_rescan_needed("the machine stopped");
  const std::string out = status().out;  // "0 seconds", or more on a busy machine
  EXPECT_TRUE(contains(out, "asked for a rescan ") && contains(out, " ago: the machine stopped\n"));
  EXPECT_EQ((std::set<std::string>{"rescan", "sweeper-stopped", "loader-stopped"}), problems());
  write_sync_off();
  EXPECT_TRUE(is_a_problem("sync-off"));
}

TEST_F(Status, TellsOfAFullDisk) {
  mount_small_disk(kStaging, 1 << 20);
  EXPECT_FALSE(is_a_problem("space-events"));
  write_file(std::string(kStaging) + "/filler", std::string(1000 << 10, 'x'));
  EXPECT_TRUE(is_a_problem("space-events"));
}

TEST_F(Status, NamesWhoHoldsAnEarlierMap) {
  const int id = shmget(TAVRIX_PERM_TABLE1_KEY, 0, 0);
  const ShmAttachment attached(shmat(id, nullptr, SHM_RDONLY));
  EXPECT_EQ(1, status_json()["map"]["tables"][1]["attached"]);
  EXPECT_TRUE(status_json()["connections"]["earlier_maps"].empty());
  import(team());
  const auto earlier = status_json()["connections"]["earlier_maps"];
  ASSERT_EQ(1U, earlier.size());
  ASSERT_TRUE(earlier[0].contains("processes")) << earlier;
  EXPECT_EQ(getpid(), earlier[0]["processes"][0]["pid"]);
  EXPECT_EQ("tools_test", earlier[0]["processes"][0]["name"]);
}

TEST_F(Status, ChangesNothing) {
  enter_private_world();  // an empty one
  const auto state = [] {
    return std::tuple(segments_in_use(), map_set(), semaphore(), list("/etc/tavrix"),
                      list("/tavrix"), list("/scratch"));
  };
  const auto before = state();
  EXPECT_EQ(2, ctl({"status"}).exit_code);
  EXPECT_EQ(2, ctl({"doctor"}).exit_code);
  EXPECT_EQ(before, state());
  EXPECT_EQ(0, segments_in_use());
  EXPECT_EQ(-1, map_set());
}

TEST_F(Status, ShowsOthersWhatTheyMaySee) {
  start_services();
  ASSERT_EQ(0, chmod("/tavrix/.conf", 0700));
  const Outcome outcome = as_nobody();
  const auto seen = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(0, outcome.exit_code) << outcome.err << outcome.out;
  EXPECT_EQ(true, seen["settings"]["loaded"]);
  EXPECT_EQ(562, seen["map"]["tables"][1]["bytes"]);
  EXPECT_EQ(65536, seen["buffer"]["bytes"]);
  EXPECT_EQ(true, seen["services"][0]["running"]);
  EXPECT_FALSE(seen["map"].contains("map"));
  EXPECT_FALSE(seen["alarms"][0].contains("raised"));
  std::set<std::string> topics;
  for (const auto& unread : seen["unread"]) topics.insert(unread["topic"]);
  EXPECT_EQ((std::set<std::string>{"alarms", "connections", "dumps", "map"}), topics);
}

TEST_F(Status, WatchPrintsBlocksUntilASignal) {
  Child watch([] {
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "status", "--watch", "1", "--settings",
          kConf, "--dir", kInbox, nullptr);
    _exit(127);
  });
  const auto blocks = [&watch] {
    const std::string text = watch.out_so_far();
    return contains(text.substr(std::min<std::size_t>(1, text.size())), "\nTAVRIX CRITICAL - ");
  };
  EXPECT_TRUE(comes(blocks));
  ::kill(watch.pid(), SIGINT);
  const Outcome outcome = watch.wait();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_FALSE(contains(outcome.out, "\033"));
}

TEST_F(Status, WatchRedrawsATerminalUntilQ) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "status", "--watch", "--settings",
          kConf, "--dir", kInbox, nullptr);
    _exit(127);
  }
  ASSERT_GT(child, 0);
  const Fd end(terminal);
  std::string text;
  char chunk[4096];
  while (!contains(text, "tavrix-loader\"")) {
    const ssize_t got = read(terminal, chunk, sizeof chunk);
    ASSERT_GT(got, 0) << text;
    text.append(chunk, static_cast<std::size_t>(got));
  }
  EXPECT_TRUE(contains(text, "\033[H\033[2JTAVRIX ")) << text;
  ASSERT_EQ(1, write(terminal, "q", 1));
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(2, WEXITSTATUS(status));
}

// --- metrics -------------------------------------------------------------------------------------

// A strict reader: the library's own parser, and the rules of names and heads.
constexpr const char* kReader = R"py(
import re, sys
from prometheus_client.parser import text_string_to_metric_families
text = sys.stdin.read()
assert text.endswith("\n") and "\n\n" not in text
seen = set()
for family in text_string_to_metric_families(text):
    assert re.fullmatch(r"tavrix_[a-z_]+", family.name), family.name
    assert family.type == "gauge" and family.documentation.endswith("."), family.name
    assert family.name not in seen and family.samples, family.name
    seen.add(family.name)
    labels = [tuple(sorted(s.labels.items())) for s in family.samples]
    assert len(labels) == len(set(labels)), family.name
    for sample in family.samples:
        print(sample.name, dict(sample.labels), sample.value)
)py";

Outcome read_metrics(const std::string& text) {
  return run_program({"/usr/bin/python3", "-c", kReader}, text);
}

TEST_F(Status, MetricsAreInTheTextFormat) {
  start_services();
  const Outcome outcome = status("--metrics");
  EXPECT_EQ(0, outcome.exit_code);
  const Outcome read = read_metrics(outcome.out);
  EXPECT_EQ(0, read.exit_code) << read.err << outcome.out;
  for (const char* line :
       {"tavrix_status {'level': 'well'} 1.0\n", "tavrix_status {'level': 'critical'} 0.0\n",
        "tavrix_map_folders {} 5.0\n", "tavrix_map_bytes {} 562.0\n",
        "tavrix_buffer_bytes {} 65536.0\n", "tavrix_groups_users {} 2.0\n",
        "tavrix_service_running {'service': 'sweeper'} 1.0\n",
        "tavrix_dump_files {'kind': 'events'} 0.0\n", "tavrix_alarm {'alarm': 'sync-off'} 0.0\n"}) {
    EXPECT_TRUE(contains(read.out, line)) << line << "\nin\n" << read.out;
  }
  EXPECT_FALSE(contains(read.out, "tavrix_problem"));
}

TEST_F(Status, MetricsNameEachProblem) {
  const Outcome outcome = status("--metrics");
  EXPECT_EQ(2, outcome.exit_code);
  const std::string read = read_metrics(outcome.out).out;
  EXPECT_TRUE(
      contains(read, "tavrix_problem {'id': 'sweeper-stopped', 'level': 'critical'} 1.0\n"));
}

TEST_F(Status, MetricsReplaceAFile) {
  std::vector<std::string> words = with(status_words(), "--metrics");
  words.insert(words.end(), {"--output", "/scratch/tavrix.prom"});
  write_file("/scratch/tavrix.prom", "old");
  const Outcome outcome = ctl(words);
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;  // written, whatever the level
  EXPECT_EQ("", outcome.out);
  EXPECT_EQ(0, read_metrics(read_file("/scratch/tavrix.prom")).exit_code);
  EXPECT_FALSE(exists("/scratch/tavrix.prom.tmp"));
  words.back() = "/none/tavrix.prom";
  EXPECT_EQ(2, ctl(words).exit_code);
}

TEST_F(Status, NeedsMetricsForAFile) {
  EXPECT_EQ(2, ctl({"status", "--output", "/scratch/file"}).exit_code);
  EXPECT_EQ(2, ctl({"status", "--watch", "0"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
