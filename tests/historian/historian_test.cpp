// SPDX-License-Identifier: LGPL-3.0-or-later
// The historian takes every dump file, and each one once.

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <cstdio>
#include <cstring>
#include <regex>

#include "tests/historian/historian.hpp"
#include "tests/support/stops.hpp"
#include "tests/tools/disk_model.hpp"

namespace tavrix::test {
namespace {

class Historian : public HistorianWorld {};

TEST_F(Historian, KeepsTheRecordsOfADump) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a", "b"});
  EXPECT_EQ(1U, links().size());
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"a", "b"}), kept());
  EXPECT_TRUE(links().empty());
  EXPECT_EQ(Paths{"2"}, ask("SELECT records FROM dumps"));
}

TEST_F(Historian, KeepsEveryFieldOfAnEvent) {
  ASSERT_EQ(0, keep().exit_code);
  VFSEvent event = VFSEVENT__INIT;
  char path[] = "Shared/Design/\xff old.txt";
  char target[] = "Shared/new.txt";
  char user[] = "anna";
  event.path = path;
  event.rename_path = target;
  event.tavrix_user = user;
  event.optype = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
  event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
  pop_vfs_event(&event, 1001);
  const Malloced<staging_data_s> record(create_staging_data_buf(&event));
  ASSERT_EQ(0, write_to_staging_buffer(record.get()));
  ASSERT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  ASSERT_EQ(0, keep().exit_code);
  const std::string time = std::to_string(event.time_sec * 1'000'000L + event.time_usec);
  EXPECT_EQ(Paths{time + "|7|1|1001|" + std::to_string(event.client_pid) + "|" + path + "|" +
                  target + "|anna|none|none"},
            ask("SELECT time || '|' || op || '|' || folder || '|' || uid || '|' || pid || '|' || "
                "path || '|' || target || '|' || user || '|' || ifnull(address, 'none') || '|' || "
                "ifnull(size, 'none') FROM records"));
}

TEST_F(Historian, KeepsReadsBesideChanges) {
  ASSERT_EQ(0, keep().exit_code);
  init_audit_buffer();
  AuditEvent audit = AUDIT_EVENT__INIT;
  char path[] = "Shared/plan.txt";
  char address[] = "10.0.0.7";
  audit.path = path;
  audit.ip_address = address;
  audit.size = 123456789012;
  pop_audit_event(&audit);
  ASSERT_EQ(0, send_audit_vfs_event(&audit, 1001));
  ASSERT_EQ(0, flush_audit_buffer());
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{std::to_string(audit.time_sec * 1'000'000L) +
                  "|64|0|1001|none|Shared/plan.txt|none|10.0.0.7|123456789012"},
            ask("SELECT time || '|' || op || '|' || folder || '|' || uid || '|' || ifnull(pid, "
                "'none') || '|' || path || '|' || ifnull(target, 'none') || '|' || address || '|' "
                "|| size FROM records"));
  EXPECT_EQ(Paths{"1"}, ask("SELECT kind FROM dumps"));
}

TEST_F(Historian, TakesDumpsInTheOrderOfTheirTimes) {
  ASSERT_EQ(0, keep().exit_code);
  const char* const names[] = {"events.pending_9_200.000001", "events.pending_10_100.000002",
                               "events.pending_100_100.000001.1", "events.pending_1_unk_time_x",
                               "events.node_7.pending_3_150.000001"};
  for (const char* name : names) {
    dump({name});
    ASSERT_EQ(0, std::rename((kLinks + ("/" + links().back())).c_str(),
                             (std::string("/scratch/") + name).c_str()));
  }
  for (const char* name : names) {
    std::rename((std::string("/scratch/") + name).c_str(),
                (kLinks + ("/" + std::string(name))).c_str());
  }
  ASSERT_EQ(0, keep().exit_code);
  // Without a time in its name a file goes by its own.
  EXPECT_EQ((Paths{names[2], names[1], names[4], names[0], names[3]}), kept());
}

// Names of folders mean nothing on a machine that is no node.
TEST_F(Historian, KnowsNoNodeOfAMachineAlone) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  ASSERT_EQ(1U, links().size());
  EXPECT_TRUE(links().at(0).starts_with("events.staging.pending_")) << links().at(0);
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"none"}, ask("SELECT ifnull(node, 'none') FROM dumps"));
}

// The first version had no nodes.
TEST_F(Historian, BringsAnOlderDatabaseUpToDateAndKeepsItsRecords) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  ASSERT_EQ(0, keep().exit_code);
  {
    sqlite3* raw = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(kDatabase, &raw));
    const history::Database database(raw);
    ASSERT_TRUE(
        history::execute(raw, "ALTER TABLE dumps DROP COLUMN node; PRAGMA user_version = 1"));
  }
  const Outcome outcome = ctl({"history", "search", "--database", kDatabase});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "is of an older version")) << outcome.err;
  dump({"b"});
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"a", "b"}), kept());
  EXPECT_EQ(Paths{"2"}, ask("SELECT user_version FROM pragma_user_version"));
  EXPECT_EQ(0, ctl({"history", "search", "--database", kDatabase}).exit_code);
}

TEST_F(Historian, TakesDumpsThatWaitedBeforeItsFirstStart) {
  dump({"a"});
  dump({"b"});
  EXPECT_FALSE(exists(kLinks));
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"a", "b"}), kept());
  EXPECT_EQ(2U, list(kStaging).size());
}

TEST_F(Historian, TakesAFileOnceWhateverItsNames) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  const std::string first = kLinks + ("/" + links().at(0));
  ASSERT_EQ(0, link(first.c_str(), "/scratch/kept"));
  for (const char* name : {"events.pending_1_1.000001", "events.pending_2_2.000002"}) {
    ASSERT_EQ(0, link(first.c_str(), (kLinks + ("/" + std::string(name))).c_str()));
  }
  ASSERT_EQ(0, keep().exit_code);
  ASSERT_EQ(0, link("/scratch/kept", first.c_str()));
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
  EXPECT_TRUE(links().empty());
}

TEST_F(Historian, TakesTwoFilesOfOneContent) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  const std::string bytes = read_file(kLinks + ("/" + links().at(0)));
  put_link("events.pending_1_1.000001", bytes);
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"a", "a"}), kept());
}

TEST_F(Historian, ComesForEachDumpWhileItRuns) {
  auto child = keeper();
  ASSERT_TRUE(comes([] { return exists(kLinks) && exists(kDatabase); }));
  for (const char* name : {"a", "b", "c"}) {
    dump({name});
    ASSERT_TRUE(comes([name] { return kept().size() > 0 && kept().back() == name; }));
  }
  EXPECT_EQ(0, stop(*child).exit_code);
  EXPECT_EQ((Paths{"a", "b", "c"}), kept());
}

TEST_F(Historian, TakesWhatWaitsBeforeItEnds) {
  auto child = keeper();
  ASSERT_TRUE(comes([] { return exists(kLinks) && exists(kDatabase); }));
  ::kill(child->pid(), SIGSTOP);
  for (int i = 0; i < 20; ++i) dump({std::to_string(i)});
  ::kill(child->pid(), SIGTERM);
  ::kill(child->pid(), SIGCONT);
  EXPECT_EQ(0, child->wait().exit_code);
  EXPECT_EQ(20U, kept().size());
}

TEST_F(Historian, MakesItsFoldersForRootAlone) {
  ASSERT_EQ(0, keep().exit_code);
  for (const char* path : {kLinks, "/scratch/db"}) {
    struct stat info {};
    ASSERT_EQ(0, stat(path, &info));
    EXPECT_EQ(0700U, info.st_mode & 07777) << path;
  }
  for (const char* ending : {"", "-wal", "-shm"}) {
    struct stat info {};
    ASSERT_EQ(0, stat((kDatabase + std::string(ending)).c_str(), &info)) << ending;
    EXPECT_EQ(0600U, info.st_mode & 07777) << ending;
  }
}

// --- who may read --------------------------------------------------------------------------------

class Readers : public HistorianWorld {
 protected:
  // The history as a user with that group reads it.
  static std::string read_as(uid_t uid, gid_t gid) {
    const Outcome outcome = in_child([uid, gid] {
      if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 ||
          setresuid(uid, uid, uid) != 0) {
        _exit(1);
      }
      for (const std::string& text : kept()) puts(text.c_str());
      std::fflush(stdout);
    });
    return outcome.out;
  }
  static constexpr gid_t kGroup = 4;  // adm
};

TEST_F(Readers, OfTheGroupReadWhileTheHistorianRunsAndAfter) {
  configure_history("group = adm\n");
  auto child = keeper();
  ASSERT_TRUE(comes([] { return exists(kLinks) && exists(kDatabase); }));
  dump({"a"});
  ASSERT_TRUE(comes([] { return kept() == Paths{"a"}; }));
  EXPECT_EQ("a\n", read_as(1001, kGroup));
  EXPECT_EQ(0, stop(*child).exit_code);
  EXPECT_EQ("a\n", read_as(1001, kGroup));
}

TEST_F(Readers, OfNoGroupAreRefusedWithASentence) {
  ASSERT_EQ(0, keep().exit_code);
  const std::string refused =
      std::string(kDatabase) + ": only root and the group of the settings may use the history\n";
  EXPECT_EQ(refused, read_as(1001, kGroup));
  configure_history("group = adm\n");
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ("", read_as(1001, kGroup));
  EXPECT_EQ(refused, read_as(1001, 5));
  configure_history();
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(refused, read_as(1001, kGroup));
}

TEST_F(Readers, OfAGroupThatIsMissingAreNobody) {
  configure_history("group = nosuchgroup\n");
  const Outcome outcome = keep();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(
      contains(outcome.err, "there is no group nosuchgroup: root alone may read the history"))
      << outcome.err;
}

TEST_F(Readers, NeverMakeTheWriterWait) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  ASSERT_EQ(0, keep().exit_code);
  history::Problem problem;
  const auto reader = history::open_to_read(kDatabase, problem);
  history::Statement all(reader.get(), "SELECT path FROM records");
  ASSERT_TRUE(all.step());
  dump({"b"});
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ((Paths{"a", "b"}), kept());
  EXPECT_FALSE(all.step());  // the open transaction sees the state of its start
}

// --- two of them ---------------------------------------------------------------------------------

TEST_F(Historian, WaitsForAnother) {
  auto first = keeper();
  ASSERT_TRUE(comes([] { return exists(kLinks) && exists(kDatabase); }));
  const Outcome second = keep();
  EXPECT_EQ(1, second.exit_code);
  EXPECT_TRUE(contains(second.err, "waiting: another historian is at work")) << second.err;
  auto third = keeper(10);
  ASSERT_TRUE(comes([&] { return contains(third->err_so_far(), "another historian"); }));
  first->kill();
  dump({"a"});
  ASSERT_TRUE(comes([] { return kept() == Paths{"a"}; }));
}

// --- bytes that no flush wrote -------------------------------------------------------------------

TEST_F(Historian, SetsForeignBytesAside) {
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  const std::string bytes = read_file(kLinks + ("/" + links().at(0)));
  put_link("events.pending_1_1.000001", bytes.substr(0, bytes.size() - 1));
  put_link("events.pending_1_1.000002", std::string(100, '\0'));
  put_link("events.pending_1_1.000003", "");
  put_link("audit.pending_1_1.000004", bytes);
  const Outcome outcome = keep();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_EQ(Paths{"a"}, kept());
  EXPECT_TRUE(links().empty());
  EXPECT_EQ(8U, list(kRefused).size());
  EXPECT_EQ("the file is empty\n",
            read_file(kRefused + std::string("/events.pending_1_1.000003.reason")));
  EXPECT_TRUE(contains(outcome.err,
                       "audit.pending_1_1.000004 is set aside in "
                       "/tavrix/.conf/history/refused: the record before byte"))
      << outcome.err;
  EXPECT_EQ(4U, notices("refused").size());
}

TEST_F(Historian, SetsLinksAndFoldersAsideUnread) {
  ASSERT_EQ(0, keep().exit_code);
  make_dirs(kLinks + std::string("/events.pending_1_1.000001"));
  ASSERT_EQ(0,
            symlink("/etc/passwd", (kLinks + std::string("/events.pending_1_1.000002")).c_str()));
  ASSERT_EQ(0, mkfifo((kLinks + std::string("/events.pending_1_1.000003")).c_str(), 0600));
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_TRUE(links().empty());
  EXPECT_EQ(6U, list(kRefused).size());
}

TEST_F(Historian, RefusesAWaitingDumpOnce) {
  write_file(std::string(kStaging) + "/pending_1_1.000001", "foreign");
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(2U, list(kRefused).size());
}

TEST_F(Historian, LeavesOtherFilesInTheFolderAlone) {
  put_link("notes.txt", "mine");
  EXPECT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"notes.txt"}, links());
}

// --- the switch ----------------------------------------------------------------------------------

TEST_F(Historian, IsOffWhileItsFolderIsGone) {
  auto child = keeper(10);
  ASSERT_TRUE(comes([] { return exists(kDatabase) && exists(kLinks); }));
  dump({"a"});
  ASSERT_TRUE(comes([] { return kept() == Paths{"a"}; }));
  remove_all(kLinks);
  ASSERT_TRUE(
      comes([&] { return contains(child->err_so_far(), "/tavrix/.conf/history is gone"); }));
  dump({"b"});
  empty_staging_dir();  // the agent takes it
  dump({"c"});
  ::kill(child->pid(), SIGHUP);
  ASSERT_TRUE(comes([] { return kept() == Paths{"a", "c"}; }));
  EXPECT_EQ(1U, notices("gap").size());
  EXPECT_EQ(0, stop(*child).exit_code);
}

TEST_F(Historian, NotesEachAlarmOnce) {
  ASSERT_EQ(0, write_sync_off());
  ASSERT_EQ(0, keep().exit_code);
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(Paths{"events were lost before this time: the sync-off alarm was raised"},
            notices("gap"));
  ASSERT_EQ(0, mark_event_db_as_rescan_needed("x"));
  ASSERT_EQ(0, keep().exit_code);
  EXPECT_EQ(2U, notices("gap").size());
}

// --- the service ---------------------------------------------------------------------------------

TEST_F(Historian, TellsTheServiceManagerWhenItIsReadyAndWhatIsWrong) {
  const Fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/scratch/notify");
  ASSERT_EQ(0, bind(manager.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
  make_dirs("/scratch/db");
  write_file(kDatabase, "");
  sqlite3* raw = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(kDatabase, &raw));
  const history::Database database(raw);
  ASSERT_TRUE(history::execute(raw, "PRAGMA user_version = 99"));
  setenv("NOTIFY_SOCKET", "/scratch/notify", 1);
  const auto child = keeper();
  unsetenv("NOTIFY_SOCKET");
  std::string told;
  while (!contains(told, "newer version")) {
    char text[1024] = "";
    ASSERT_GT(recv(manager.get(), text, sizeof text - 1, 0), 0);
    told += text;
  }
  EXPECT_TRUE(told.starts_with("READY=1\n")) << told;
  EXPECT_EQ(0, stop(*child).exit_code);
}

TEST_F(Historian, TakesNewSettingsOnAReload) {
  auto child = keeper();
  ASSERT_TRUE(comes([] { return exists(kLinks) && exists(kDatabase); }));
  configure_history();
  write_file(kConf,
             std::regex_replace(read_file(kConf), std::regex("/scratch/db"), "/scratch/new"));
  ::kill(child->pid(), SIGHUP);
  ASSERT_TRUE(comes([] { return exists("/scratch/new/history.db"); }));
  empty_staging_dir();
  dump({"a"});
  ASSERT_TRUE(comes(
      [] { return ask("SELECT path FROM records", "/scratch/new/history.db") == Paths{"a"}; }));
  EXPECT_EQ(0, stop(*child).exit_code);
  EXPECT_EQ(Paths{}, kept());
}

TEST_F(Historian, WarnsOfAWrongSettingAndGoesOn) {
  configure_history("keep days = never\n");
  const Outcome outcome = keep();
  EXPECT_EQ(0, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "keep days")) << outcome.err;
}

TEST_F(Historian, IsInTheStatusOfTheAppliance) {
  EXPECT_FALSE(json({"status", "--settings", kConf}).contains("history"));
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  const auto history = json({"status", "--settings", kConf})["history"];
  EXPECT_EQ(true, history["on"]);
  EXPECT_EQ(1, history["waiting"]);
  EXPECT_EQ(kDatabase, history["database"]);
  EXPECT_GT(history["database_bytes"], 0);
  EXPECT_TRUE(
      contains(ctl({"status", "--settings", kConf}).out, "1 dump file waits for the historian"));
  EXPECT_TRUE(contains(ctl({"status", "--settings", kConf, "--metrics"}).out,
                       "tavrix_history_waiting_files 1\n"));
}

// --- power cuts ----------------------------------------------------------------------------------

// On a file system that keeps the order of names: what the agent finds after a cut, the history
// has.
TEST_F(Historian, HasEachDumpOfTheAgentAfterAPowerCut) {
  ASSERT_EQ(0, keep().exit_code);
  send("a");
  Disk disk;
  disk.put_folder(kStaging);
  Environment environment = with_faults("");
  environment.emplace_back("TAVRIX_TRACE", "/scratch/trace");
  ASSERT_EQ(0, run_program({kSweeper, "--once"}, {}, environment).exit_code);
  std::mt19937 random(1604);
  std::set<State> states;
  for (const Operation& operation : read_trace("/scratch/trace")) {
    disk.apply(operation);
    disk.add_states(true, random, states);
  }
  int with_dump = 0;
  for (const State& state : states) {
    std::set<std::string> kept;
    for (const auto& [path, bytes] : state) {
      if (path.starts_with(kLinks)) kept.insert(bytes);
    }
    for (const auto& [path, bytes] : state) {
      if (!path.starts_with(kStaging + std::string("/pending_"))) continue;
      EXPECT_TRUE(kept.contains(bytes)) << text_of(state);
      EXPECT_EQ(Paths{"a"}, paths_in(bytes));
      ++with_dump;
    }
  }
  EXPECT_GT(with_dump, 0);
}

// --- kills ---------------------------------------------------------------------------------------

class KilledHistorian : public HistorianWorld {
 protected:
  // With sanitizers a start takes many times as long, and so some calls stand for all.
  static constexpr int kStep = std::string_view(TAVRIX_SANITIZED_BUILD) == "ON" ? 97 : 1;
  static bool run_killed(int call) {
    return killed_at_call(call, [] {
      execl(kHistorian, "tavrix-historian", "--once", "--settings", kConf, nullptr);
    });
  }
};

TEST_F(KilledHistorian, AtEachCallNeitherLosesNorDoublesARecord) {
  ASSERT_EQ(0, keep().exit_code);
  int kills = 0;
  std::size_t records = 0;
  // The program's start makes hundreds of calls before its own work.
  for (int call = 150;; call += kStep) {
    dump({"a", "b"});
    dump({"c"});
    if (call % 2 == 0) empty_staging_dir();
    records += 3;
    const bool was_killed = run_killed(call);
    kills += was_killed;
    if (call % 3 != 0 && was_killed) continue;  // two kills in a row
    ASSERT_EQ(0, keep().exit_code);
    ASSERT_EQ(records, kept().size()) << call;
    if (!was_killed) break;
  }
  EXPECT_TRUE(links().empty());
  EXPECT_GT(kills, 100 / kStep);
}

TEST_F(KilledHistorian, AtEachCallOfItsFirstStart) {
  for (int call = 150;; call += kStep) {
    remove_all("/scratch/db");
    remove_all(kLinks);
    empty_staging_dir();
    dump({"a"});
    const bool was_killed = run_killed(call);
    ASSERT_EQ(0, keep().exit_code);
    ASSERT_EQ(Paths{"a"}, kept()) << call;
    if (!was_killed) break;
  }
}

TEST_F(KilledHistorian, AtEachCallWhileItRemovesOldRecords) {
  configure_history("keep days = 10\n");
  ASSERT_EQ(0, keep().exit_code);
  dump({"a"});
  ASSERT_EQ(0, keep().exit_code);
  for (int call = 150;; call += 2 * kStep) {
    history::Problem problem;
    {
      const auto database = history::open_to_write(kDatabase, problem);
      ASSERT_TRUE(history::execute(
          database.get(),
          ("UPDATE dumps SET id = 1000000 + id; INSERT INTO dumps SELECT 1, 0, 'old', " +
           std::to_string(call) +
           ", 0, 0, x'', 1000, 5000, 1000, NULL;"
           "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000) "
           "INSERT INTO records (time, op, folder, uid, path, dump) "
           "SELECT 1000, 5, 0, 1, 'old', 1 FROM n")
              .c_str()))
          << sqlite3_errmsg(database.get());
    }
    const bool was_killed = run_killed(call);
    ASSERT_EQ(0, keep().exit_code);
    ASSERT_EQ(Paths{"a"}, kept()) << call;
    ASSERT_EQ(Paths{"1"}, ask("SELECT count(*) FROM dumps")) << call;
    if (!was_killed) break;
  }
}

}  // namespace
}  // namespace tavrix::test
