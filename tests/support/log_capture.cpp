// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/log_capture.hpp"

#include <syslog.h>
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <regex>

#include "eventstore.h"

namespace tavrix::test {
namespace {

constexpr int kLowestLevel = -1;
constexpr int kHighestLevel = 12;

std::vector<LogLine>& lines() {
  static auto& kept = *new std::vector<LogLine>;  // outlives what runs at exit
  return kept;
}

std::string print(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

// "file:line(function) message"
LogLine parse(int priority, const std::string& text) {
  LogLine result{.priority = priority, .text = text, .message = text};
  const auto colon = text.find(':');
  const auto open = text.find('(', colon);
  const auto close = text.find(") ", open);
  if (colon == std::string::npos || open == std::string::npos || close == std::string::npos) {
    return result;
  }
  result.file = text.substr(0, colon);
  result.line = std::atoi(text.c_str() + colon + 1);
  result.function = text.substr(open + 1, close - open - 1);
  result.message = text.substr(close + 2);
  return result;
}

void keep(int priority, const char* format, va_list arguments) {
  lines().push_back(parse(priority, print(format, arguments)));
}

std::array<global_param_s, PARAM_MAX_INDEX> own_block;

}  // namespace

const std::vector<LogLine>& log_lines() { return lines(); }

std::vector<std::string> messages() {
  std::vector<std::string> texts;
  for (const LogLine& line : lines()) texts.push_back(line.message);
  return texts;
}

bool logged(std::string_view message) { return times_logged(message) > 0; }

int times_logged(std::string_view message) {
  return static_cast<int>(std::count_if(lines().begin(), lines().end(), [&](const LogLine& line) {
    return line.message == message;
  }));
}

void clear_log() { lines().clear(); }

void set_debug_level(int level) {
  if (global_params == nullptr) global_params = own_block.data();
  global_params[PARAM_DEBUG_LEVEL].value.intval = level;
}

void no_parameter_block() { global_params = nullptr; }

int level_of(std::string_view message, const std::function<void()>& action) {
  const int before = global_params == nullptr ? 0 : global_params[PARAM_DEBUG_LEVEL].value.intval;
  int found = kNever;
  for (int level = kLowestLevel; level <= kHighestLevel && found == kNever; ++level) {
    set_debug_level(level);
    clear_log();
    action();
    if (logged(message)) found = level;
  }
  set_debug_level(before);
  return found;
}

}  // namespace tavrix::test

// These definitions win over the C library's. A fortified build calls the "chk" forms.
extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tavrix::test::keep(priority, format, arguments);
  va_end(arguments);
}

void vsyslog(int priority, const char* format, va_list arguments) {
  tavrix::test::keep(priority, format, arguments);
}

void __syslog_chk(int priority, int flag, const char* format, ...);
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tavrix::test::keep(priority, format, arguments);
  va_end(arguments);
}
}
