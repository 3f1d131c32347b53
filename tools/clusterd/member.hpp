// SPDX-License-Identifier: LGPL-3.0-or-later
// This node's part in the cluster: it prepares and publishes maps, says how it is, leads if it has
// the lock, and renews its lease.
//
// A look touches the shared tree and waits for it. While the tree hangs, the look hangs, and the
// lease ends by itself: nothing renews it but the end of a look that went well.
#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>

#include "tools/cluster/lease.hpp"
#include "tools/clusterd/coordinator.hpp"
#include "tools/clusterd/job.hpp"
#include "tools/clusterd/settings.hpp"
#include "tools/clusterd/state.hpp"

namespace tavrix::clusterd {

class Member {
 public:
  explicit Member(Settings settings);

  void look();

  // True while a map is on its way, so that another look soon makes sense.
  [[nodiscard]] bool is_busy() const { return job_.is_running() || is_pending_; }
  // True when the last look went well and the committed map is in force here.
  [[nodiscard]] bool is_current() const { return is_current_; }
  // Why it is not.
  [[nodiscard]] std::string problem() const;
  // One line.
  [[nodiscard]] std::string status() const;
  // The next look is due after that long.
  [[nodiscard]] std::chrono::milliseconds period() const { return settings_.period(); }

 private:
  using Clock = std::chrono::steady_clock;
  // Work that failed is tried again, a little later each time.
  struct Retry {
    Clock::time_point next;
    std::chrono::seconds pause{1};
  };

  void look_at_settings();
  bool look_at_tree();
  void begin_work();
  void start(const std::string& what, const std::function<Outcome()>& work);
  void finish_work();
  void lead();
  void put_back();
  [[nodiscard]] State own_state();
  void tell_differences();
  void tell_problems();
  void renew(int64_t start);

  Settings settings_;
  std::string boot_;
  std::set<std::string> problems_;       // of this look
  std::set<std::string> told_problems_;  // each is told once, until it is over
  std::set<std::string> told_differences_;

  cluster::Committed committed_;
  OwnMap own_;
  std::vector<cluster::Proposal> proposals_;
  std::set<uint32_t> answered_;
  Others others_;
  Leadership leadership_;
  Coordinator coordinator_;
  cluster::Lease lease_;
  FileHash settings_hash_, smb_conf_hash_, group_map_hash_;
  std::optional<std::string> read_settings_;  // the hash of the file when it was read

  Job job_;
  std::string work_;  // of the job
  std::string failure_;
  Retry retry_;
  uint64_t beat_ = 0;
  bool is_pending_ = false;
  bool is_current_ = false;
};

}  // namespace tavrix::clusterd
