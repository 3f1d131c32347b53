// SPDX-License-Identifier: LGPL-3.0-or-later
// Sessions in a storm, and the demand that a storm leaves nothing behind.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <random>
#include <string>
#include <vector>

#include "perm_enforcer.h"
#include "tavrix_session.h"
#include "tavrix_vfs_utils.h"
#include "tests/storms/storm.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {

// The session of a writer or decider, if it has one. It is idle now and then.
class StormSession {
 public:
  StormSession(bool is_wanted, unsigned seed) : is_open_(is_wanted), random_(seed) {
    if (is_open_) is_open_ = tavrix_session_begin() == 0;
  }
  explicit StormSession(Storm& storm)
      : StormSession(storm.gives_session(), static_cast<unsigned>(storm.rounds())) {}
  ~StormSession() {
    if (is_open_) tavrix_session_end();
  }
  StormSession(const StormSession&) = delete;
  StormSession& operator=(const StormSession&) = delete;

  void rest_at_times() {
    if (random_() % 10 == 0) tavrix_session_idle();
  }
  // Once in a while another process does the work, a child that goes on with the session. It dies
  // with its parent.
  template <typename Work>
  void do_or_fork(Work work) {
    const pid_t pid = random_() % 60 == 0 ? fork() : -1;
    if (pid == -1) return work();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (random_() % 2 == 0) tavrix_session_end();
      work();
      _exit(0);
    }
    while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
  }

 private:
  bool is_open_;
  std::mt19937 random_;
};

// A process's and the machine's state that every storm leaves as it was. Made after the first call
// of each kind, for those keep some blocks for good. Freed blocks are compared, not pages: the C
// library keeps pages as it likes.
class StormFootprint {
 public:
  void expect_same(const std::string& where) const {
    tavrix_session_idle();
    // A killed process detaches a moment after its end is told.
    for (int tries = 0; attachments() > attachments_ && tries < 500; ++tries) usleep(10'000);
    EXPECT_EQ(attachments_, attachments()) << where;
    EXPECT_EQ(segments_, segments_in_use()) << where;
    EXPECT_EQ(descriptors_, list("/proc/self/fd").size()) << where;
    EXPECT_EQ(blocks_, live_allocations()) << where;
  }

 private:
  int attachments_ = attachments();
  int segments_ = segments_in_use();
  std::size_t descriptors_ = list("/proc/self/fd").size();
  long blocks_ = live_allocations();
};

// --- maps that are known by their verdicts -------------------------------------------------------

constexpr uint32_t kNumberBits = 16;

// A map of that many folders, which lets one user into those of "Shared" that the number's bits
// choose.
inline Folder numbered_map(uint32_t folders) {
  Folder shared{.name = "Shared"};
  for (uint32_t bit = 0; bit < kNumberBits; ++bit) {
    const auto mask = static_cast<uint16_t>((folders >> bit & 1U) != 0 ? 7 : 0);
    shared.children.push_back({.name = "bit" + std::to_string(bit), .users = {{1001, mask}}});
  }
  Folder root{.name = "/", .groups = {{2000, 1}}, .children = {shared}};
  for (uint32_t i = kNumberBits + 2; i < folders; ++i) {
    root.children.push_back({.name = "f" + std::to_string(i)});
  }
  return root;
}
// The number of the map that answers, all its bits in one call; -1 without a map.
inline int number_by_verdicts() {
  constexpr gid_t kPowerUsersHere = 9002;
  vfs_set_admins_powerusers(9001, kPowerUsersHere);
  gid_t groups[] = {kPowerUsersHere};
  connection_private_data_s connection{};
  connection.groupmap.euid = 1001;
  connection.groupmap.egid = 1001;
  connection.groupmap.gids = groups;
  connection.groupmap.num_sup_gids = 1;
  std::vector<std::string> names;
  for (uint32_t bit = 0; bit < kNumberBits; ++bit) names.push_back("bit" + std::to_string(bit));
  std::vector<tavrix_entry_s> entries;
  for (const std::string& name : names) entries.push_back({name.c_str(), FSTYPE_FOLDER, {}});
  tavrix_decide_entries("/tavrix", "Shared", FSOP_STAT, &connection, entries.data(),
                        sizeof entries[0], entries.size());
  int number = 0;
  for (uint32_t bit = 0; bit < kNumberBits; ++bit) {
    const e_vfs_enforce_perms verdict = entries[bit].verdict;
    if (verdict != TXPERMS_HAS_PERMS && verdict != TXPERMS_NO_PERM) return -1;
    if (verdict == TXPERMS_HAS_PERMS) number |= 1 << bit;
  }
  return number;
}

// A process that decides until it is killed, and ends by itself at an answer of neither map.
inline std::unique_ptr<Child> decider_between(uint32_t one, uint32_t other, bool has_session,
                                              unsigned seed) {
  return std::make_unique<Child>([=] {
    StormSession session(has_session, seed);
    for (;;) {
      session.do_or_fork([=] {
        const int number = number_by_verdicts();
        if (number == static_cast<int>(one) || number == static_cast<int>(other)) return;
        std::fprintf(stderr, "map %d answers, not %u or %u\n", number, one, other);
        kill(getpid(), SIGUSR1);
      });
      session.rest_at_times();
    }
  });
}

}  // namespace tavrix::test
