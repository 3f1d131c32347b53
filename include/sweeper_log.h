// SPDX-License-Identifier: LGPL-3.0-or-later
/* The operator's log of permission map imports, "/var/log/tavrix_perms.log": a comma-separated line
 * an event (seconds since the epoch, the same as text, severity, message, message index). Nothing
 * here fails an import: its own failures are lines in the system log. */
#ifndef TAVRIX_SWEEPER_LOG_H
#define TAVRIX_SWEEPER_LOG_H

#include <stddef.h>
#include <stdio.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_SWEEPER_LOG_PATH "/var/log/tavrix_perms.log"

enum sweeper_logmsg_sev TAVRIX_ENUM_INT {
  SWEEPER_LOGSEV_OK = 0,
  SWEEPER_LOGSEV_INFO = 1,
  SWEEPER_LOGSEV_WARN = 2,
  SWEEPER_LOGSEV_ERR = 3,
  SWEEPER_LOGSEV_CRIT = 4,
  SWEEPER_LOGSEV_FATAL = 5,
};
typedef enum sweeper_logmsg_sev sweeper_logmsg_sev;

enum log_msg_indx TAVRIX_ENUM_INT {
  PERMISSION_MAP_SUCCESS = 0,
  MISSING_JSON_FILES = 1,
  CORRUPTED_PERMISSION_MAP = 2,
  OUT_OF_MEMORY = 3,
  CONFIG_FILE_ERROR = 4,
  CANNOT_READ_JSON_FILE = 5,
  CANNOT_UNLINK_JSON_FILES = 6,
};
typedef enum log_msg_indx log_msg_indx;

/* The texts that a reader of the log shows for the first three indexes. */
extern TAVRIX_API const char* const messgage_dictionary[3];

struct sweeper_log_s {
  FILE* fp;
};
typedef struct sweeper_log_s sweeper_log_s;
typedef struct sweeper_log_s sweeper_log;

/* Opens for appending, creating the file. Null on failure. The caller closes, then frees. */
TAVRIX_API sweeper_log* open_sweeper_log(const char* path);
/* Closes the stream; does not free the handle. */
TAVRIX_API void close_sweeper_log(sweeper_log* log);
/* Formats a line into `*message`, which is reallocated to `*meslen` bytes. 0 or -1. */
TAVRIX_API int create_sweeperlog_msg(unsigned int severity, const char* txt, int indx,
                                     char** message, unsigned int* meslen);
/* Writes a NUL-terminated line; `len` is only tested against 0. 0 or -1. */
TAVRIX_API int write_sweeper_log(sweeper_log* log, size_t len, const char* message);
/* Appends one line to the log: open, format, write, close. */
TAVRIX_API void log_perm_error(const char* txt, int indx, sweeper_logmsg_sev severity);

TAVRIX_END_DECLS

#endif
