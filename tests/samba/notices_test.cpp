// SPDX-License-Identifier: LGPL-3.0-or-later
// Change notices name only what the client could find by listing.

#include <fcntl.h>
#include <sys/stat.h>

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class Notices : public WireClients {
 protected:
  // Notices arrive in the order in which the servers acted.
  void SetUp() override {
    Appliance::SetUp();
    start("no");
  }
  static void start(const std::string& kernel_notify, const Lines& options = {}) {
    configure(options);
    bash("sed -i '/^\\[global\\]/a kernel change notify = " + kernel_notify +
         "' /scratch/samba/smb.conf");
    start_smbd();
  }
  // The notices that a user gets who watches the folder and everything below while "admin" acts.
  // The fence is the last change and shows that all notices arrived; a leading dash says that the
  // user must not see it.
  static Lines told(const Caller& caller, const std::string& folder, const std::string& fence,
                    const std::string& script) {
    const Outcome outcome =
        run_program({"/usr/bin/python3", TAVRIX_SOURCE_DIR "/tests/samba/notices.py", caller.name,
                     folder, fence},
                    script);
    EXPECT_TRUE(outcome.ok()) << outcome.err;
    Lines lines;
    std::istringstream in(outcome.out);
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with("MODIFIED")) lines.push_back(line);
    }
    return lines;
  }
  static std::string make(const std::string& name) {
    return "admin.close(admin.open('" + name + "', WRITE, FILE_CREATE))\n";
  }
  static std::string make_dir(const std::string& name) {
    return "admin.close(admin.open('" + name + "', READ, FILE_CREATE, FILE_DIRECTORY_FILE))\n";
  }
  static std::string remove(const std::string& name, const std::string& who = "admin") {
    return "h = " + who + ".open('" + name + "', DELETE); " + who + ".delete(h); " + who +
           ".close(h)\n";
  }
  static std::string rename(const std::string& from, const std::string& to) {
    return "h = admin.open('" + from + "', DELETE); admin.rename(h, '" + to +
           "'); admin.close(h)\n";
  }
};

constexpr const char* kFence = "Shared/Team/fence";
constexpr const char* kHiddenFence = "-Shared/Closed/fence";

TEST_F(Notices, OfWhatAReaderMaySeeArrive) {
  EXPECT_EQ(
      (Lines{"ADDED new.txt", "OLD new.txt", "NEW newer.txt", "REMOVED newer.txt", "ADDED Docs/Sub",
             "REMOVED Docs/Sub", "REMOVED Docs/plan.txt", "ADDED plan.txt"}),
      told(kBen, "Shared/Team", kFence,
           make("Shared/Team/new.txt") + rename("Shared/Team/new.txt", "Shared/Team/newer.txt") +
               remove("Shared/Team/newer.txt") + make_dir("Shared/Team/Docs/Sub") +
               remove("Shared/Team/Docs/Sub") +
               rename("Shared/Team/Docs/plan.txt", "Shared/Team/plan.txt")));
}

TEST_F(Notices, OfAHiddenFolderAndWhatIsInItAreKeptBack) {
  EXPECT_EQ(Lines{},
            told(kBen, "Shared", kFence,
                 make("Shared/Team/Secret/plan.txt") + make_dir("Shared/Team/Secret/Sub") +
                     make("Shared/Team/Secret/Sub/deep.txt") + make_dir("Shared/Closed/New") +
                     rename("Shared/Closed/New", "Shared/Closed/Newer")));
}

TEST_F(Notices, OfHiddenNamesThatAreGoneAreKeptBack) {
  make_file("Shared/Team/Secret/plan.txt");
  make_folder("Shared/Closed/Old");
  EXPECT_EQ(Lines{}, told(kBen, "", kFence,
                          remove("Shared/Team/Secret/plan.txt") + remove("Shared/Team/Secret") +
                              remove("Shared/Closed/Old") + remove("Shared/Closed")));
  EXPECT_FALSE(exists(full("Shared/Team/Secret")));
  EXPECT_FALSE(exists(full("Shared/Closed")));
}

TEST_F(Notices, OfAMoveTellTheSideThatTheReaderMaySee) {
  EXPECT_EQ((Lines{"REMOVED Team/report.txt", "ADDED Team/back.txt", "REMOVED Team/Docs",
                   "ADDED Team/Docs"}),
            told(kBen, "Shared", kFence,
                 rename("Shared/Team/report.txt", "Shared/Team/Secret/report.txt") +
                     rename("Shared/Team/Secret/report.txt", "Shared/Team/back.txt") +
                     // The map has an entry for Ghost that leaves Ben out.
                     rename("Shared/Team/Docs", "Shared/Team/Ghost") +
                     rename("Shared/Team/Ghost", "Shared/Team/Docs")));
}

// A viewer sees folders and no files. The server cannot tell which of them a removed name was.
TEST_F(Notices, TellAViewerOfFoldersOnly) {
  EXPECT_EQ((Lines{"ADDED Sub", "OLD Sub", "NEW Sub2"}),
            told(kBen, "Shared/Team/Gallery", "Shared/Team/Gallery/fence",
                 make("Shared/Team/Gallery/new.jpg") + make_dir("Shared/Team/Gallery/Sub") +
                     make("Shared/Team/Gallery/Sub/deep.jpg") +
                     rename("Shared/Team/Gallery/new.jpg", "Shared/Team/Gallery/newer.jpg") +
                     rename("Shared/Team/Gallery/Sub", "Shared/Team/Gallery/Sub2") +
                     remove("Shared/Team/Gallery/picture.jpg")));
}

TEST_F(Notices, AreNoneForAStranger) {
  EXPECT_EQ(Lines{}, told(kStandardUser, "", kHiddenFence,
                          make("Shared/Team/new.txt") + remove("Shared/Team/new.txt") +
                              remove("Shared/Team/report.txt") + make_dir("Shared/New")));
  EXPECT_EQ(Lines{}, told(kOlga, "", "-Shared/Closed/fence2",
                          make("Shared/Team/new.txt") + remove("Shared/Team/new.txt")));
}

TEST_F(Notices, OfPrivateFoldersAreTheirOwners) {
  const std::string acts =
      "pat = Client('Pat'); pat.close(pat.open('Private/pat/poem.txt', WRITE, FILE_CREATE))\n" +
      ("pat = Client('Pat'); " + remove("Private/pat/diary.txt", "pat"));
  EXPECT_EQ(Lines{}, told(kOlga, "", kHiddenFence, acts));
  make_file("Private/pat/diary.txt", kPat.uid);
  remove_all(full("Private/pat/poem.txt"));
  EXPECT_EQ((Lines{"ADDED Private/pat/poem.txt", "REMOVED Private/pat/diary.txt"}),
            told(kAdministrator, "", "Shared/Closed/fence2", acts));
}

TEST_F(Notices, EndWhenTheRightsDo) {
  Child map([] {
    while (!exists("/scratch/ready")) usleep(1000);
    publish_team({}, {{kWriters, 7}});
    const time_t when = time(nullptr) + 5;
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, "/etc/tavrix/permission_refresh", times, 0));
    write_file("/scratch/go", "");
  });
  EXPECT_EQ((Lines{"ADDED before.txt"}),
            told(kBen, "Shared/Team", kHiddenFence,
                 make("Shared/Team/before.txt") + "watch.settle()\n" +
                     "open('/scratch/ready', 'w').close()\n"
                     "while not os.path.exists('/scratch/go'): time.sleep(0.01)\n" +
                     make("Shared/Team/after.txt") + remove("Shared/Team/report.txt")));
  EXPECT_TRUE(map.wait().ok());
}

// The agent changes the disk directly; the server hears of it by inotify, for one folder only.
TEST_F(Notices, OfLocalChangesAreFilteredToo) {
  stop_smbd();
  start("yes");
  const Lines lines = told(kBen, "Shared/Team", kFence,
                           "os.rmdir('/tavrix/Shared/Team/Secret')\n"
                           "os.mkdir('/tavrix/Shared/Team/Ghost')\n"
                           "os.mkdir('/tavrix/Shared/Team/Open')\n");
  EXPECT_EQ((Lines{"ADDED Open"}), lines);
}

TEST_F(Notices, OfAWatchedFolderEndWhenItIsMovedOutOfSight) {
  stop_smbd();
  start("yes");
  EXPECT_EQ(Lines{}, told(kBen, "Shared/Team/Docs", kHiddenFence,
                          "os.rename('/tavrix/Shared/Team/Docs', '/tavrix/Shared/Closed/Docs')\n"
                          "os.mkdir('/tavrix/Shared/Closed/Docs/plans')\n"));
}

TEST_F(Notices, AreFilteredWhateverTheServersOwnSettingSays) {
  stop_smbd();
  start("no", {"honor change notify privilege = yes"});
  EXPECT_EQ((Lines{"ADDED Team/new.txt"}),
            told(kBen, "Shared", kFence,
                 make("Shared/Team/Secret/plan.txt") + remove("Shared/Team/Secret/plan.txt") +
                     remove("Shared/Team/Secret") + make_dir("Shared/Closed/New") +
                     make("Shared/Team/new.txt")));
}

TEST_F(Notices, AreFilteredWhenTheNotifyDaemonWasRestarted) {
  EXPECT_EQ((Lines{"ADDED Team/new.txt"}),
            told(kBen, "Shared", kFence,
                 "restart_daemon(admin, watch, witness)\n" + make("Shared/Team/Secret/plan.txt") +
                     remove("Shared/Team/Secret/plan.txt") + make("Shared/Team/new.txt")));
}

}  // namespace
}  // namespace tavrix::test
