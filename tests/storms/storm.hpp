// SPDX-License-Identifier: LGPL-3.0-or-later
// A storm: rounds of random mishaps for some seconds, and a table of how they ended.
//
// TAVRIX_STORM_SEED and TAVRIX_STORM_SECONDS choose another one; scripts/storm.sh sets them.
// TAVRIX_STORM_SESSIONS says who has a session: nobody (off), all (on), or every other one (mixed).
#pragma once

#include <gtest/gtest.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>

namespace tavrix::test {

class Storm {
 public:
  // The storms of one kind share half a minute of the tests' time.
  Storm(std::string name, int storms_of_its_kind)
      : name_(std::move(name)),
        seconds_(setting("TAVRIX_STORM_SECONDS", (kIsSanitized ? 12 : 28) / storms_of_its_kind)) {}
  ~Storm() {
    std::printf("storm %s: seed %u, %ld seconds, %d rounds\n", name_.c_str(), seed_, passed(),
                rounds_);
    for (const auto& [outcome, times] : outcomes_) {
      std::printf("storm   %7d  %s\n", times, outcome.c_str());
    }
  }
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;

  // True until the time is over; a slow machine makes a few rounds all the same. It ends with the
  // first failure, for the state that the failure left says nothing about the next round.
  bool goes_on() {
    if (testing::Test::HasFailure()) return false;
    return ++rounds_ <= kLeastRounds || passed() < seconds_ ? true : (--rounds_, false);
  }
  void count(const std::string& outcome, int times = 1) { outcomes_[outcome] += times; }

  unsigned below(std::size_t end) { return static_cast<unsigned>(random() % end); }
  template <typename List>
  auto any_of(const List& list) {
    return *(std::begin(list) + below(std::size(list)));
  }
  // True if the next writer or decider has a session.
  bool gives_session() {
    if (sessions_ == "on") return true;
    return sessions_ != "off" && (++askers_ + rounds_) % 2 == 0;
  }
  [[nodiscard]] int rounds() const { return rounds_; }
  [[nodiscard]] std::string where() const {
    return name_ + ", seed " + std::to_string(seed_) + ", round " + std::to_string(rounds_);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kLeastRounds = 5;
  static constexpr bool kIsSanitized = std::string_view(TAVRIX_SANITIZED_BUILD) == "ON";

  static std::string sessions_setting() {
    const char* text = std::getenv("TAVRIX_STORM_SESSIONS");
    return text == nullptr ? "mixed" : text;
  }
  static long setting(const char* name, long otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::atol(text);
  }
  [[nodiscard]] long passed() const {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin_).count());
  }

  std::string name_;
  unsigned seed_ = static_cast<unsigned>(setting("TAVRIX_STORM_SEED", 1604));
  long seconds_;
  Clock::time_point begin_ = Clock::now();
  int rounds_ = 0;
  std::string sessions_ = sessions_setting();
  int askers_ = 0;
  std::map<std::string, int> outcomes_;

 public:
  std::mt19937 random{seed_};
};

}  // namespace tavrix::test
