// SPDX-License-Identifier: LGPL-3.0-or-later
// Failures on demand, and counts, of the C library's calls that this program makes. The program is
// linked with --wrap for each of them; calls that the C library makes of itself are not seen.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tavrix::test {

// The nth call from now on, and `times` - 1 after it, fail with that errno without being made.
void fail_call(const std::string& name, int error, int nth = 1, int times = 1);
// Runs the action before the nth call from now on.
void run_before(const std::string& name, std::function<void()> action, int nth = 1);
// The next read() or write() moves at most that many bytes.
void cut_short(const std::string& name, long bytes);

// From now on sleep() returns at once, in this process and in children that it makes later. For
// tests of what follows a wait; the seconds that each call asked for are kept, oldest first.
void skip_sleeps();
const std::vector<unsigned>& skipped_sleeps();

// From now on the coarse clock shows that second, in this process and in children that it makes
// later: for tests of what lasts for a second.
void show_second(long second);

// Calls since the last reset.
int calls(const std::string& name);
void reset_calls();

// Blocks that came from malloc and its like and were not freed; only differences mean something.
long live_allocations();
long allocations();  // made so far

}  // namespace tavrix::test
