// SPDX-License-Identifier: LGPL-3.0-or-later
// Times as people type and read them, in the time zone of the process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix::text {

// Microseconds since 1970. A text may mean more than an instant: a day lasts until the next one
// begins, and an hour that comes twice, when clocks are put back, has two of each of its minutes.
// A search takes `first` for its beginning and `last` for its end.
struct Moment {
  int64_t first, last;
};

// The forms that are understood, for help texts and complaints.
constexpr const char* kMomentForms =
    "such as \"2026-11-20 14:00\", \"yesterday\", \"7d\" or \"2h ago\"";

// Understands, with `now` as the time of the question:
//   now, today, yesterday, and the last two with a time of day behind them;
//   14:00, 14:00:05 (today's);
//   2026-11-20, 2026-11-20 14:00:05.25, 2026-11-20T14:00:05Z, ... +01:00, ... CET;
//   7d, -2h, "90m ago", 1h30m: that long ago, in weeks, days of 24 hours, hours, minutes, seconds;
//   1795183200, @1795183200.5: seconds since 1970.
// Nothing for any other text.
[[nodiscard]] std::optional<Moment> moment_of(std::string_view text, int64_t now);

// The time of the clock, in microseconds since 1970.
[[nodiscard]] int64_t now_in_microseconds();

// "2026-11-20 14:00:05 CET"
[[nodiscard]] std::string local_time(int64_t microseconds);

}  // namespace tavrix::text
