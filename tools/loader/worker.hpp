// SPDX-License-Identifier: LGPL-3.0-or-later
// Loads the pairs of an inbox, one after the other. A pair that met a failure which passes by
// itself is tried again, a little later each time; one that will not do is set aside.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "tools/loader/inbox.hpp"
#include "tools/loader/pair_import.hpp"

namespace tavrix::loader {

class Worker {
 public:
  explicit Worker(Inbox& inbox) : inbox_(inbox) {}

  enum class Step {
    kNothing,    // there is no pair
    kPublished,  // a map became current
    kRefused,    // a pair was set aside
    kWaiting,    // a pair waits for its next try, or for the lock
    kStopped
  };
  // The next thing to do, if its time has come. `may_wait`: for the lock too.
  Step step(bool may_wait, const std::function<bool()>& should_stop);
  // The time until there is something to do.
  [[nodiscard]] std::chrono::milliseconds pause() const;

 private:
  using Clock = std::chrono::steady_clock;
  Step load(const std::function<bool()>& should_stop);
  Step try_again(const std::string& text);
  Step refuse(const std::string& reason);
  void wait(std::chrono::milliseconds time) { next_ = Clock::now() + time; }

  Inbox& inbox_;
  bool is_resumed_ = false;
  std::optional<Pair> pair_;
  std::string reason_;  // of a pair that could not be set aside yet
  unsigned tries_ = 0;
  Clock::time_point next_{};
};

}  // namespace tavrix::loader
