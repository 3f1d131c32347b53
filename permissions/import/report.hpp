// SPDX-License-Identifier: LGPL-3.0-or-later
// Failures of an import are told to two readers: developers (the system log) and operators (the
// sweeper log). Both get the same text.
#pragma once

#include "internal/scoped.hpp"
#include "logging.h"
#include "sweeper_log.h"

namespace tavrix {

// A new string; null when out of memory.
[[nodiscard]] CString formatted(const char* format, ...) noexcept
    __attribute__((format(printf, 1, 2)));

// One line of the sweeper log.
void tell_operator(log_msg_indx index, sweeper_logmsg_sev severity, const char* format,
                   ...) noexcept __attribute__((format(printf, 3, 4)));

}  // namespace tavrix

// A line in each of the two logs. A macro, because a message carries the place it comes from.
#define TAVRIX_REPORT(index, severity, format, ...)                              \
  do {                                                                           \
    TAVRIX_LOG(0, format __VA_OPT__(, ) __VA_ARGS__);                            \
    ::tavrix::tell_operator(index, severity, format __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)
