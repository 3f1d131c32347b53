// SPDX-License-Identifier: LGPL-3.0-or-later
// Old maps in memory: clients that sleep keep none, however many maps are imported, and the loader
// reports a process that keeps one.

#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <csignal>
#include <fstream>
#include <sstream>

#include "perm_enforcer.h"
#include "perm_map.h"
#include "tavrix_session.h"
#include "tests/support/share.hpp"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

constexpr int kClients = 1000;
constexpr uid_t kMember = 1001;

// Processes with a session that decide once and then wait for ever.
class Sleepers {
 public:
  enum class Afterwards { kIdle, kKeep };

  Sleepers(int count, Afterwards afterwards) {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    for (int i = 0; i < count; ++i) {
      const pid_t pid = fork();
      if (pid == 0) sleep_for_ever(afterwards, ready[1]);
      if (pid > 0) pids_.push_back(pid);
    }
    close(ready[1]);
    for (char word = 0; read(ready[0], &word, 1) == 1;) {
      well_ += word == 'y' ? 1 : 0;
      if (++answered_ == count) break;
    }
    close(ready[0]);
  }
  ~Sleepers() { end(); }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

  void end() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
    pids_.clear();
  }
  // Those that were granted what the map grants, and kept the table until then.
  [[nodiscard]] int well() const { return well_; }
  [[nodiscard]] int alive() const {
    int count = 0;
    for (const pid_t pid : pids_) count += waitpid(pid, nullptr, WNOHANG) == 0 ? 1 : 0;
    return count;
  }

 private:
  static bool decides() {
    gid_t groups[] = {kPowerUsers};
    process_trustees_s member{};
    member.euid = kMember;
    member.egid = kPeople;
    member.num_sup_gids = 1;
    member.gids = groups;
    int is_nav = 0;
    return vfs_enforce_perms("/tavrix", "/tavrix/Shared/Team/Docs", FSOP_OPENDIR, &member,
                             FSTYPE_FOLDER, &is_nav) == TXPERMS_HAS_PERMS;
  }
  [[noreturn]] static void sleep_for_ever(Afterwards afterwards, int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    become_samba_user(kMember, kPeople);
    vfs_set_admins_powerusers(kAdmins, kPowerUsers);
    const bool is_well =
        tavrix_session_begin() == 0 && decides() && tavrix_session_is_holding() == 1;
    if (afterwards == Afterwards::kIdle) tavrix_session_idle();
    static_cast<void>(!write(ready, is_well ? "y" : "n", 1));
    for (;;) pause();
  }

  std::vector<pid_t> pids_;
  int answered_ = 0;
  int well_ = 0;
};

// The tables in memory, the removed ones among them: no other segment is without permission bits.
int tables_in_memory() {
  std::ifstream segments("/proc/sysvipc/shm");
  std::string line;
  std::getline(segments, line);
  int count = 0;
  while (std::getline(segments, line)) {
    std::istringstream words(line);
    std::string key, id;
    unsigned mode = 0;
    words >> key >> id >> std::oct >> mode;
    count += (mode & 0777) == 0 ? 1 : 0;
  }
  return count;
}

std::size_t times_in(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

class PinnedTables : public Loader {
 protected:
  static constexpr const char* kReport = "an old map is still in memory: ";
  static constexpr const char* kEnd = "is no longer in memory";

  // A map that differs from the others and grants the member the same.
  static Folder team_and(int more) {
    Folder root = team();
    for (int i = 0; i < more; ++i) root.children.push_back({.name = "More" + std::to_string(i)});
    return root;
  }
  static bool says(const Child& service, const std::string& text) {
    return comes([&] { return contains(service.err_so_far(), text); });
  }
};

TEST_F(PinnedTables, AreNoneWhileAThousandClientsSleep) {
  hand_over(team());
  once();
  Child importer([] {
    for (int more = 1; more <= 6; ++more) {
      hand_over(team_and(more));
      EXPECT_EQ(0, once().exit_code);
    }
  });
  const Sleepers sleepers(kClients, Sleepers::Afterwards::kIdle);
  EXPECT_EQ(kClients, sleepers.well());
  EXPECT_TRUE(importer.wait().ok());
  EXPECT_EQ(1, tables_in_memory());
  for (int more = 7; more <= 9; ++more) {
    hand_over(team_and(more));
    EXPECT_EQ(0, once().exit_code);
    EXPECT_EQ(1, tables_in_memory());
  }
  EXPECT_EQ(kClients, sleepers.alive());
  EXPECT_EQ(5 + 9, folders_of_current());
}

TEST_F(PinnedTables, OfAProcessThatDoesNotSleepAreReportedOnceAndWhenTheyAreGone) {
  hand_over(team());
  const auto loader = service(in_haste(kHaste));
  wait_for_folders(5);
  const Sleepers sleepers(kClients - 1, Sleepers::Afterwards::kIdle);
  Sleepers sleepless(1, Sleepers::Afterwards::kKeep);
  EXPECT_EQ(1, sleepless.well());
  for (int more = 1; more <= 4; ++more) {
    hand_over(team_and(more));
    wait_for_folders(5 + more);
    EXPECT_LE(tables_in_memory(), 2 + 1) << "the one that is kept, and two during an import";
  }
  EXPECT_TRUE(comes([] { return tables_in_memory() == 2; }));
  EXPECT_TRUE(says(*loader, kReport)) << loader->err_so_far();
  EXPECT_TRUE(contains(loader->err_so_far(), "attached by 1 process (")) << loader->err_so_far();
  EXPECT_TRUE(contains(loader->err_so_far(), " ago, ")) << loader->err_so_far();
  EXPECT_FALSE(contains(loader->err_so_far(), kEnd));
  sleepless.end();
  EXPECT_TRUE(says(*loader, kEnd)) << loader->err_so_far();
  EXPECT_EQ(1U, times_in(loader->err_so_far(), kReport)) << loader->err_so_far();
  EXPECT_EQ(1U, times_in(loader->err_so_far(), kEnd)) << loader->err_so_far();
  EXPECT_EQ(1, tables_in_memory());
}

TEST_F(PinnedTables, AreCountedAndNoOtherSegmentIsTakenForOne) {
  hand_over(team());
  const auto loader = service(in_haste(kHaste));
  wait_for_folders(5);
  const int other = shmget(IPC_PRIVATE, 8192, IPC_CREAT);
  void* address = shmat(other, nullptr, 0);
  ASSERT_NE(reinterpret_cast<void*>(-1), address);
  ASSERT_EQ(0, shmctl(other, IPC_RMID, nullptr));
  const Sleepers sleepless(3, Sleepers::Afterwards::kKeep);
  EXPECT_EQ(3, sleepless.well());
  hand_over(team_and(1));
  wait_for_folders(6);
  EXPECT_TRUE(says(*loader, "attached by 3 processes (")) << loader->err_so_far();
  EXPECT_EQ(1U, times_in(loader->err_so_far(), kReport)) << loader->err_so_far();
  shmdt(address);
}

// A loader that starts later finds them too.
TEST_F(PinnedTables, OfEarlierRunsAreReported) {
  hand_over(team());
  once();
  const Sleepers sleepless(1, Sleepers::Afterwards::kKeep);
  hand_over(team_and(1));
  once();
  const auto loader = service(in_haste(kHaste));
  EXPECT_TRUE(says(*loader, kReport)) << loader->err_so_far();
}

}  // namespace
}  // namespace tavrix::test
