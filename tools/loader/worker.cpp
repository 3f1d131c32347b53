// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/worker.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/loader/words.hpp"
#include "tools/mapload/recovery.hpp"

namespace tavrix::loader {
namespace {

using std::chrono::milliseconds;

constexpr unsigned kTries = 6;
constexpr unsigned kMostStarts = 5;       // of runs that end while they load one pair
constexpr milliseconds kFirstPause{100};  // doubles with each try
constexpr milliseconds kPauseForLock{200};
constexpr milliseconds kPauseForRoom{10000};

}  // namespace

milliseconds Worker::pause() const {
  if (!pair_ && next_ == Clock::time_point{}) return milliseconds::max();
  return std::max(milliseconds{1}, std::chrono::duration_cast<milliseconds>(next_ - Clock::now()));
}

Worker::Step Worker::step(bool may_wait, const std::function<bool()>& should_stop) {
  if (Clock::now() < next_) return Step::kWaiting;
  next_ = {};
  // Taking a pair needs the lock too, because another loader may have one in the work folder.
  const Fd lock = may_wait ? mapload::lock_maps() : mapload::try_lock_maps();
  if (!lock) {
    if (errno != EWOULDBLOCK) {
      tell(Tone::kError, fmt::format("cannot take the lock of the maps: {}", std::strerror(errno)));
    }
    wait(kPauseForLock);
    return Step::kWaiting;
  }
  if (!is_resumed_) pair_ = inbox_.unfinished();
  is_resumed_ = true;
  if (!pair_) {
    std::string complaint;
    pair_ = inbox_.take(complaint);
    if (!complaint.empty()) tell(Tone::kError, complaint);
    if (!pair_ && !complaint.empty() && ++tries_ < kTries) {
      wait(kFirstPause * (1U << (tries_ - 1)));
      return Step::kWaiting;
    }
    tries_ = 0;
  }
  if (!pair_) return Step::kNothing;
  // Settings that were read anew before the pair came count for it.
  if (should_stop) should_stop();
  return refusal_ ? refuse(Refusal(*refusal_)) : load(should_stop);
}

Worker::Step Worker::load(const std::function<bool()>& should_stop) {
  if (tries_ == 0) {
    if (const unsigned ended = inbox_.note_start(); ended >= kMostStarts) {
      mapload::log_refused();
      return refuse(
          {fmt::format("the loader ended {} times while it loaded this pair", ended), {}});
    }
  }
  if (!mapload::is_well()) {
    const mapload::Recovery recovery = mapload::recover(mapload::Restore::kNo);
    tell(recovery.report);
    if (recovery.try_again) return try_again(recovery.status);
  }
  // The map of a run that died before it kept it.
  keeper_.keep(mapkeep::kFound);
  const Outcome outcome = load_or_put_up(should_stop);
  tell(outcome.report);
  if (outcome.is_tree_away) {
    tell(Tone::kWarning, outcome.text);
    inbox_.forget_starts();  // the pair is not to blame
    wait(kPauseForRoom);
    return Step::kWaiting;
  }
  switch (outcome.result) {
    case mapload::Result::kPublished:
      return end_well(outcome);
    case mapload::Result::kHeld:
      return hold(outcome.text);
    case mapload::Result::kTryAgain:
      return try_again(outcome.text);
    case mapload::Result::kStopped:
      inbox_.forget_starts();
      return Step::kStopped;
    default:
      return refuse({outcome.text, outcome.findings});
  }
}

Outcome Worker::load_or_put_up(const std::function<bool()>& should_stop) {
  const Guard guard{keeper_.limits(), inbox_.held_folder()};
  return hand_over_ ? put_up_pair(*pair_, guard, inbox_, *hand_over_, should_stop)
                    : load_pair(*pair_, guard, should_stop);
}

Worker::Step Worker::end_well(const Outcome& outcome) {
  inbox_.finish(*pair_);
  end_pair();
  tell(Tone::kInfo, outcome.text);
  set_status(outcome.text);
  if (outcome.is_put_up) return Step::kPublished;
  keeper_.keep(mapkeep::kByLoader);
  keeper_.drop_held();
  return Step::kPublished;
}

Worker::Step Worker::try_again(const std::string& text) {
  if (++tries_ >= kTries) {
    mapload::log_refused();
    return refuse({fmt::format("{}; given up after {} tries", text, tries_), {}});
  }
  tell(Tone::kWarning, text + "; trying again");
  wait(kFirstPause * (1U << (tries_ - 1)));
  return Step::kWaiting;
}

Worker::Step Worker::refuse(const Refusal& refusal) {
  const std::string where = inbox_.refuse(*pair_, refusal);
  if (where.empty()) {
    tell(Tone::kError, fmt::format("refused, and the pair cannot be set aside ({}): {}",
                                   std::strerror(errno), refusal.reason));
    refusal_ = refusal;
    wait(kPauseForRoom);
    return Step::kWaiting;
  }
  const std::string text = "refused, see " + where + ": " + refusal.reason;
  service::say(Tone::kWarning, text);
  set_status(text);
  refusal_.reset();
  end_pair();
  return Step::kRefused;
}

Worker::Step Worker::hold(const std::string& reason) {
  inbox_.hold(*pair_);
  end_pair();
  const std::string text = "held: " + reason;
  service::say(Tone::kWarning, text);
  set_status(text);
  return Step::kHeld;
}

void Worker::end_pair() {
  pair_.reset();
  tries_ = 0;
}

}  // namespace tavrix::loader
