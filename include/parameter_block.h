// SPDX-License-Identifier: LGPL-3.0-or-later
/* The global parameter block: the settings and the log level of every process.
 *
 * One process creates the block in shared memory and a configuration loader fills its values by
 * name; the others read a private snapshot of it by index. There is no lock: writers are the
 * creator and the loader only, and a reader that comes before them reads zeros. Entries are read as
 * global_params[index].value.intval or .strval; there is no accessor. Functions return 0 for
 * success and -1 for failure, after a line in the system log. */
#ifndef TAVRIX_PARAMETER_BLOCK_H
#define TAVRIX_PARAMETER_BLOCK_H

#include <stddef.h>
#include <stdint.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_PARAM_KEY_PATH "/dev/null" /* both arguments of ftok() for the block's key */
#define TAVRIX_PARAM_KEY_ID 3456
#define TAVRIX_PARAM_STRVAL_SIZE 1024 /* bytes, the terminating NUL included */

enum e_param_val_type TAVRIX_ENUM_INT {
  PARAM_VAL_TYPE_UNDEF = 0,
  PARAM_VAL_TYPE_INT = 1,
  PARAM_VAL_TYPE_STRING = 2,
  PARAM_VAL_TYPE_BOOLEAN = 3, /* held in intval */
};
typedef enum e_param_val_type e_param_val_type;
typedef enum e_param_val_type e_param_val_type_t;

enum e_tavrix_global_index TAVRIX_ENUM_INT {
  PARAM_MIN_INDEX = 0,
  PARAM_DEFAULT_USER_ID = 0,
  PARAM_DEFAULT_GROUP_ID = 1,
  PARAM_REGEX_FILE_NAME = 2,
  PARAM_DISABLE_SWEEPER_FLUSH = 3,
  PARAM_STAGING_BUFFER_SIZE = 4, /* bytes */
  PARAM_FLUSH_PERIOD = 5,        /* seconds */
  PARAM_STAGING_DIR = 6,
  PARAM_FLUSH_FILL_THRESHOLD = 7, /* per cent */
  PARAM_SOCKET_BACKLOG = 8,
  PARAM_SOCKET_MESSAGE_SIZE = 9,
  PARAM_SOCKET_PATH = 10,
  PARAM_PERMISSION_MAP_PATH = 11,     /* deliberately without a name or a type */
  PARAM_MESSENGER_LOCKFILE_PATH = 12, /* deliberately without a name or a type */
  PARAM_CHECK_REGEX_UNLINK = 13,
  PARAM_DEBUG_LEVEL = 14,
  PARAM_ENABLE_FORBIDDEN_RMDIR = 15,
  PARAM_AUDITING_DIR = 16,
  PARAM_AUDITING_BUFFER_SIZE = 17,    /* bytes */
  PARAM_AUDITING_FLUSH_INTERVAL = 18, /* seconds */
  PARAM_MAX_INDEX = 19,
};
typedef enum e_tavrix_global_index e_tavrix_global_index;

union global_param_value_u {
  char strval[TAVRIX_PARAM_STRVAL_SIZE]; /* NUL-terminated */
  int32_t intval;
};
typedef union global_param_value_u global_param_value_u;

struct global_param_s {
  e_param_val_type_t type;    /*  0 */
                              /*  4  padding, zero */
  const char* varname;        /*  8  "SECTION:key"; an address of the creating process only */
  global_param_value_u value; /* 16 */
};
typedef struct global_param_s global_param_s;
typedef struct global_param_s global_param_t;

TAVRIX_ASSERT_SIZE(struct global_param_s, 1040);
TAVRIX_ASSERT_OFFSET(struct global_param_s, type, 0);
TAVRIX_ASSERT_OFFSET(struct global_param_s, varname, 8);
TAVRIX_ASSERT_OFFSET(struct global_param_s, value, 16);

#define TAVRIX_PARAM_BLOCK_SIZE (PARAM_MAX_INDEX * sizeof(struct global_param_s))
TAVRIX_STATIC_ASSERT(PARAM_MAX_INDEX * sizeof(struct global_param_s) == 19760,
                     "size of the parameter block");

/* The PARAM_MAX_INDEX entries that this process reads: the segment itself in the process that
 * created the block, a private heap copy in every other, null before either. */
extern TAVRIX_API struct global_param_s* global_params;

/* Creates the block, attaches it, points global_params at it and writes names and types; every
 * value is zero. A stale block is removed and created anew, once (this sleeps two seconds). Called
 * by the configuration owner. */
TAVRIX_API int create_config_buffer(void);

/* Marks the block for removal; it goes when its last process detaches. -1 when there is none. */
TAVRIX_API int remove_config_buffer(void);

TAVRIX_END_DECLS

#endif
