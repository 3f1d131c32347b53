// SPDX-License-Identifier: LGPL-3.0-or-later
/* Diagnostics: the system log at LOG_INFO, gated on the process's debug level.
 *
 * A message carries the source file, the line and the function in front of its own text. It is
 * written when the debug level reaches the message's level: errors at 0 (so a level of -1 silences
 * everything), traces at 1 and above. A silent message evaluates none of its arguments. */
#ifndef TAVRIX_LOGGING_H
#define TAVRIX_LOGGING_H

#include <syslog.h>

#include "parameter_block.h"
#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

/* The debug level of this process; 0 before the parameter block is attached, so that errors made
 * that early are still seen. */
static inline int tavrix_debug_level(void) {
  const struct global_param_s* params = global_params;
  return params == NULL ? 0 : params[PARAM_DEBUG_LEVEL].value.intval;
}

TAVRIX_END_DECLS

/* TAVRIX_LOG(level, "text with %s", argument): "level" is the least debug level that shows it, so a
 * trace "above 3" has level 4. TAVRIX_LOG_IF takes the debug level from the caller, for code that
 * logs often between two looks at it. */
#ifdef __cplusplus
#define TAVRIX_LOG_IF(debug_level, level, format, ...)            \
  do {                                                            \
    if (__builtin_expect((debug_level) >= (level), 0))            \
      ::syslog(LOG_INFO, "%s:%d(%s) " format, __FILE__, __LINE__, \
               __func__ __VA_OPT__(, ) __VA_ARGS__);              \
  } while (0)
#define TAVRIX_LOG(level, format, ...) \
  TAVRIX_LOG_IF(tavrix_debug_level(), level, format __VA_OPT__(, ) __VA_ARGS__)
#else
#define TAVRIX_LOG_IF(debug_level, level, format, ...)                                    \
  do {                                                                                    \
    if (__builtin_expect((debug_level) >= (level), 0))                                    \
      syslog(LOG_INFO, "%s:%d(%s) " format, __FILE__, __LINE__, __func__, ##__VA_ARGS__); \
  } while (0)
#define TAVRIX_LOG(level, format, ...) \
  TAVRIX_LOG_IF(tavrix_debug_level(), level, format, ##__VA_ARGS__)
#endif

#endif
