// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/library_log.hpp"

#include <syslog.h>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "eventstore.h"
#include "tools/service/journal.hpp"

namespace tavrix::ctl {
namespace {

LogTo log_to = LogTo::kSystemLog;
std::array<global_param_s, PARAM_MAX_INDEX> own_block;

void take(int priority, const char* format, va_list arguments) {
  if (log_to == LogTo::kSystemLog) {
    vsyslog(priority, format, arguments);
    return;
  }
  char text[8192];
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::size_t length = std::strlen(text);
  if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';
  service::say(service::Tone::kInfo, text);
}

}  // namespace

void send_library_log(LogTo where) { log_to = where; }

void set_debug_level(int level) {
  if (global_params == nullptr) global_params = own_block.data();
  global_params[PARAM_DEBUG_LEVEL].value.intval = level;
}

}  // namespace tavrix::ctl

extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tavrix::ctl::take(priority, format, arguments);
  va_end(arguments);
}

void __syslog_chk(int priority, int flag, const char* format, ...);
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tavrix::ctl::take(priority, format, arguments);
  va_end(arguments);
}
}
