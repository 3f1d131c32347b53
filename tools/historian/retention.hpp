// SPDX-License-Identifier: LGPL-3.0-or-later
// Removes the oldest records, by age and by the size of the database.
#pragma once

#include <sqlite3.h>
#include <chrono>
#include <cstdint>

namespace tavrix::historian {

struct Limits {
  int days = 0;       // 0: no limit
  int megabytes = 0;  // 0: no limit
};

// Watches the clock for jumps. A clock that goes far ahead makes every record look old, so nothing
// is removed by age until it has run for a day without such a jump.
class TrustedClock {
 public:
  using Steady = std::chrono::steady_clock::time_point;

  // `known` is the last time that an earlier run trusted, in microseconds; 0 for none.
  void look(int64_t now, Steady steady, int64_t known);
  [[nodiscard]] bool is_trusted() const { return is_trusted_; }

 private:
  bool is_started_ = false;
  bool is_trusted_ = true;
  int64_t last_ = 0;
  Steady last_steady_;
  Steady trusted_from_;
};

enum class Pruned {
  kAll,     // nothing is left to remove
  kSome,    // call again: the work is cut into short transactions
  kFailed,  // the connection says why
};
// One short transaction. `now` is in microseconds; without a trusted time age counts for nothing.
[[nodiscard]] Pruned prune(sqlite3* database, const Limits& limits, int64_t now,
                           bool is_time_trusted);

// Bytes of the database without its free pages.
[[nodiscard]] int64_t used_bytes(sqlite3* database);

}  // namespace tavrix::historian
