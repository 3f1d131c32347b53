// SPDX-License-Identifier: LGPL-3.0-or-later
// The staging semaphore, held so firmly that its holder's death does not give it back.
//
// Writers end the process when they find a segment without a header, and lose an event when they
// find none. So whoever makes or replaces the segment keeps them waiting until it is whole, and
// when it is killed on the way, the next start of the sweeper finds the semaphore taken by a dead
// process, and finishes the work. A set that was made and never given its value is the same: its
// value is 0.
#pragma once

namespace tavrix::sweeper {

class [[nodiscard]] FirmHold {
 public:
  FirmHold() noexcept = default;
  ~FirmHold() { release(); }
  FirmHold(const FirmHold&) = delete;
  FirmHold& operator=(const FirmHold&) = delete;

  // Makes the semaphore when there is none; waits for its holder, but not for a dead one. false
  // with errno when it cannot be had.
  [[nodiscard]] bool take();
  void release() noexcept;

 private:
  int set_ = -1;
};

// True if the semaphore is there and somebody lives who can give it back.
[[nodiscard]] bool has_sound_semaphore();

// Takes turns with other processes that make or replace the segment; the lock goes with its owner.
class [[nodiscard]] OwnersTurn {
 public:
  OwnersTurn();
  ~OwnersTurn();
  OwnersTurn(const OwnersTurn&) = delete;
  OwnersTurn& operator=(const OwnersTurn&) = delete;

 private:
  int folder_;
};

}  // namespace tavrix::sweeper
