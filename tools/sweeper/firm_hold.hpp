// SPDX-License-Identifier: LGPL-3.0-or-later
// Holds the staging semaphore so that the holder's death does not give it back.
//
// A writer that finds a segment without a header ends its process; a writer that finds no segment
// loses an event. So a process that makes or replaces the segment keeps writers waiting until the
// segment is complete. When it is killed on the way, the next start of the sweeper finds the
// semaphore taken by a dead process and finishes the work. A set that was made and never got its
// value has the value 0 and is treated the same way.
#pragma once

namespace tavrix::sweeper {

class [[nodiscard]] FirmHold {
 public:
  FirmHold() noexcept = default;
  ~FirmHold() { release(); }
  FirmHold(const FirmHold&) = delete;
  FirmHold& operator=(const FirmHold&) = delete;

  // Takes the semaphore, and makes it when there is none. Waits for a living holder; takes it from
  // a dead one. Returns false and sets errno when it cannot be taken.
  [[nodiscard]] bool take();
  void release() noexcept;

 private:
  int set_ = -1;
};

// True if the semaphore exists, has its value, and is not held by a dead process.
[[nodiscard]] bool has_sound_semaphore();

// Takes turns with other processes that make or replace the segment. The lock ends with its holder.
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
