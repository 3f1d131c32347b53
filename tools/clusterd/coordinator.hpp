// SPDX-License-Identifier: LGPL-3.0-or-later
// Commits maps: the one node that leads does so when the others have prepared them.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "tools/cluster/proposal.hpp"
#include "tools/clusterd/state.hpp"

namespace tavrix::clusterd {

// The right to commit: a lock in the shared tree, which the kernel drops with its process. With a
// leader file only the node that the file names tries to get the lock, so the lock decides in any
// case. The file of the lock has the leader's name. When a leader hangs, its lock does not go; then
// another node takes the file away, and a lock on a file that is gone is none.
class Leadership {
 public:
  Leadership(std::string node, std::string leader_file)
      : node_(std::move(node)), leader_file_(std::move(leader_file)) {}
  // Takes the lock if it is free or its holder is silent, and gives it up when another node is to
  // lead.
  bool look(const Others& others);
  [[nodiscard]] bool is_held() const { return static_cast<bool>(lock_); }

 private:
  [[nodiscard]] bool may_lead() const;
  [[nodiscard]] bool is_lock_in_place() const;
  void take();
  void depose(const Others& others);
  std::string node_, leader_file_;
  Fd lock_;
};

// The proposal that is next: the lowest number behind the committed one that nobody refuses.
// Nothing when none waits.
[[nodiscard]] const cluster::Proposal* next_proposal(const std::vector<cluster::Proposal>& all,
                                                     const cluster::Committed& committed);

class Coordinator {
 public:
  Coordinator(std::string node, std::chrono::seconds patience)
      : node_(std::move(node)), patience_(patience) {}

  void set_patience(std::chrono::seconds patience) { patience_ = patience; }

  // Called by the leader. True when it has changed something that all nodes look at.
  bool look(const cluster::Committed& committed, const std::vector<cluster::Proposal>& proposals,
            const std::vector<State>& living);

 private:
  using Clock = std::chrono::steady_clock;
  bool decide(const cluster::Proposal& next, bool has_later, const std::vector<State>& living,
              const cluster::Committed& before);
  bool refuse(const cluster::Proposal& proposal, const std::string& why);
  bool commit(const cluster::Proposal& proposal, const cluster::Answer& answer,
              const std::vector<std::string>& missing, const cluster::Committed& before);
  void remove_old(const cluster::Committed& committed,
                  const std::vector<cluster::Proposal>& proposals,
                  const std::vector<State>& living) const;

  std::string node_;
  std::chrono::seconds patience_;
  uint32_t waits_for_ = 0;  // the proposal of the time below
  Clock::time_point since_;
};

}  // namespace tavrix::clusterd
