// SPDX-License-Identifier: LGPL-3.0-or-later
// The system log of a test program: messages are kept here instead of being sent.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix::test {

struct LogLine {
  int priority = 0;
  std::string text;  // as the system log would hold it
  std::string file;  // the prefix, taken apart
  int line = 0;
  std::string function;
  std::string message;  // what follows the prefix
};

const std::vector<LogLine>& log_lines();
std::vector<std::string> messages();
bool logged(std::string_view message);
int times_logged(std::string_view message);
void clear_log();

// Gives this process a parameter block of its own with that debug level; values set before stay.
void set_debug_level(int level);
void no_parameter_block();

constexpr int kNever = 99;
// The least debug level at which the action logs the message; kNever when none does.
int level_of(std::string_view message, const std::function<void()>& action);

}  // namespace tavrix::test
