// SPDX-License-Identifier: LGPL-3.0-or-later
// Loads the pairs of an inbox one after the other. After a failure that may pass by itself, a pair
// is tried again, a little later each time. A pair that cannot be loaded is set aside.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "tools/loader/inbox.hpp"
#include "tools/loader/keeper.hpp"
#include "tools/loader/pair_import.hpp"

namespace tavrix::loader {

class Worker {
 public:
  // With a hand-over, pairs are put up for all nodes of a cluster, and none is published here.
  Worker(Inbox& inbox, Keeper& keeper, std::optional<cluster::HandOver> hand_over = {})
      : inbox_(inbox), keeper_(keeper), hand_over_(std::move(hand_over)) {}

  enum class Step {
    kNothing,    // there is no pair
    kPublished,  // a map became current, or is put up for all nodes
    kRefused,    // a pair was set aside
    kHeld,       // a map waits until an operator approves it
    kWaiting,    // a pair waits for its next try, or for the lock
    kStopped
  };
  // Does the next thing, if its time has come. With `may_wait` it also waits for the lock.
  Step step(bool may_wait, const std::function<bool()>& should_stop);
  // The time until the next step is due.
  [[nodiscard]] std::chrono::milliseconds pause() const;

 private:
  using Clock = std::chrono::steady_clock;
  Step load(const std::function<bool()>& should_stop);
  Outcome load_or_put_up(const std::function<bool()>& should_stop);
  Step end_well(const Outcome& outcome);
  Step try_again(const std::string& text);
  Step hold(const std::string& reason);
  void end_pair();
  Step refuse(const Refusal& refusal);
  void wait(std::chrono::milliseconds time) { next_ = Clock::now() + time; }

  Inbox& inbox_;
  Keeper& keeper_;
  std::optional<cluster::HandOver> hand_over_;
  bool is_resumed_ = false;
  std::optional<Pair> pair_;
  std::optional<Refusal> refusal_;  // of a pair that cannot be set aside yet
  unsigned tries_ = 0;
  Clock::time_point next_{};
};

}  // namespace tavrix::loader
