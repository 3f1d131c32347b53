// SPDX-License-Identifier: LGPL-3.0-or-later
// Reports the failures of an import to developers, in the system log, and to operators, in the
// sweeper log, with the same text.
#pragma once

#include "internal/scoped.hpp"
#include "logging.h"
#include "sweeper_log.h"

namespace tavrix {

// The formatted text as a new string; null when out of memory.
[[nodiscard]] CString formatted(const char* format, ...) noexcept
    __attribute__((format(printf, 1, 2)));

// Writes a line into the sweeper log.
void tell_operator(log_msg_indx index, sweeper_logmsg_sev severity, const char* format,
                   ...) noexcept __attribute__((format(printf, 3, 4)));

}  // namespace tavrix

// Writes a line into each of the two logs. A macro, because a message carries its place in the
// code.
#define TAVRIX_REPORT(index, severity, format, ...)                              \
  do {                                                                           \
    TAVRIX_LOG(0, format __VA_OPT__(, ) __VA_ARGS__);                            \
    ::tavrix::tell_operator(index, severity, format __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)
