// SPDX-License-Identifier: LGPL-3.0-or-later
#include "permissions/import/report.hpp"

#include <cstdarg>
#include <cstdio>

namespace tavrix {
namespace {

CString vformatted(const char* format, va_list arguments) noexcept {
  char* text = nullptr;
  return CString(vasprintf(&text, format, arguments) < 0 ? nullptr : text);
}

}  // namespace

CString formatted(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  CString text = vformatted(format, arguments);
  va_end(arguments);
  return text;
}

void tell_operator(log_msg_indx index, sweeper_logmsg_sev severity, const char* format,
                   ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const CString text = vformatted(format, arguments);
  va_end(arguments);
  // Without memory for the details the format alone says what failed.
  log_perm_error(text != nullptr ? text.get() : format, index, severity);
}

}  // namespace tavrix
