// SPDX-License-Identifier: LGPL-3.0-or-later
/* What the processes of the appliance share: the global parameter block, the staging buffer of
 * events, and its flush to dump files.
 *
 * --- parameter block: the settings and the log level of every process -------------------------
 *
 * One process creates the block in shared memory and a configuration loader fills its values by
 * name; the others read a private snapshot of it by index. There is no lock: writers are the
 * creator and the loader only, and a reader that comes before them reads zeros. Entries are read as
 * global_params[index].value.intval or .strval; there is no accessor. Functions return 0 for
 * success and -1 for failure, after a line in the system log.
 *
 * --- staging buffer: the events of all server processes on their way to the synchronisation agent
 *
 * One segment, excluded by one semaphore that its holder's death releases (SEM_UNDO). The sweeper
 * makes both; server processes append. Both are looked up afresh on every call, so a sweeper may
 * replace them. A missing semaphore or a damaged header means that events are lost: the library
 * then writes the sync-off marker and aborts. Identities change during a flush: it runs as root. */
#ifndef TAVRIX_EVENTSTORE_H
#define TAVRIX_EVENTSTORE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

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

/* --- records -------------------------------------------------------------------------------- */

#define STAGING_DATA_SIGNATURE 0x04012010U

/* The frame of one packed message; in buffers and dump files frames follow one another unaligned.
 * A payload of `size` bytes comes behind it. */
struct staging_data_s {
  uint32_t size; /* 0  bytes of the payload, not counting this header */
  uint32_t sig;  /* 4  STAGING_DATA_SIGNATURE */
  /* buffer         8  */
};
typedef struct staging_data_s staging_data_s;
typedef struct staging_data_s staging_data_t;

TAVRIX_ASSERT_SIZE(struct staging_data_s, 8);
TAVRIX_ASSERT_OFFSET(struct staging_data_s, sig, 4);

/* --- the staging buffer --------------------------------------------------------------------- */

#define TAVRIX_STAGING_KEY_PATH "/dev/null" /* first argument of ftok() for both keys */
#define TAVRIX_STAGING_BUFFER_KEY_ID 1234
#define TAVRIX_STAGING_SEMAPHORE_KEY_ID 2345

/* The head of the segment, of PARAM_STAGING_BUFFER_SIZE bytes in all, and of the audit buffer. */
struct staging_buffer_s {
  uint32_t num_records;
  uint32_t next_offset;    /*  4  where the next record goes, from the start; 16 when empty */
  int64_t last_flush_time; /*  8  staging: 0; audit: seconds since the epoch */
  /* data                     16  staging_data_s records */
};
typedef struct staging_buffer_s staging_buffer_s;
typedef struct staging_buffer_s staging_buffer_t;

TAVRIX_ASSERT_SIZE(struct staging_buffer_s, 16);
TAVRIX_ASSERT_OFFSET(struct staging_buffer_s, next_offset, 4);
TAVRIX_ASSERT_OFFSET(struct staging_buffer_s, last_flush_time, 8);

/* The semaphore: 1 on success, -1 on failure (create fails when there is one). For the sweeper. */
TAVRIX_API int create_eventstore_staging_semaphore(void);
TAVRIX_API int destroy_eventstore_staging_buffer_semaphore(void);
/* Take it (blocks; EINTR is a failure, with its cause in `*err`) and give it back: 0 or -1. */
TAVRIX_API int wait_eventstore_semaphore(int* err);
TAVRIX_API int post_eventstore_semaphore(void);

/* The segment: 0 on success, -1 on failure. For the sweeper. Removal looks the segment up as one of
 * 20800 bytes, whatever its size: a smaller one is not found. */
TAVRIX_API int create_staging_buffer(void);
TAVRIX_API int initialize_staging_buffer(void);
TAVRIX_API int remove_staging_buffers(void);

/* Attach and detach; null on failure, and null is ignored. */
TAVRIX_API staging_buffer_s* get_eventstore_staging_buffer(void);
TAVRIX_API void put_eventstore_staging_buffer(staging_buffer_s* buffer);

/* Appends one record: 0, or -1 when it is not one or there is no segment. Blocks while the buffer
 * is filled past its threshold, for the sweeper to flush it: an event is never dropped. Without a
 * semaphore, or with a damaged header, it does not return. */
TAVRIX_API int write_to_staging_buffer(staging_data_s* data);

/* --- the flush ------------------------------------------------------------------------------ */

enum FB_CTX TAVRIX_ENUM_INT {
  FB_CTX_INVAL = 0,
  FB_CTX_SWPR = 1,   /* the sweeper's period */
  FB_CTX_DISCON = 2, /* a client disconnects */
  FB_CTX_EVT = 3,    /* a writer found the buffer past its threshold */
};
typedef enum FB_CTX FB_CTX;

enum FB_ERR TAVRIX_ENUM_INT {
  FB_OK = 0,
  FB_ERR_MISSING_STAGING_DIR = 1,
  FB_ERR_GET_DUMPFNAME_FAILED = 2,
  FB_ERR_MKSTEMP_FAILED = 3,
  FB_ERR_SEMAPHORE_WAIT_FAILED = 4,
  FB_ERR_SEMAPHORE_NOT_FOUND = 5,
  FB_ERR_STAGING_BUFFER_UNAVAILABLE = 6,
  FB_ERR_STAGING_BUFFER_OVERFLOW = 7,
  FB_ERR_BUFFER_WRITE_FAILED = 8,
  FB_ERR_FDATASYNC_FAILED = 9,
  FB_ERR_RENAME_FAILED = 10,
};
typedef enum FB_ERR FB_ERR;

#define TAVRIX_SYNC_OFF_PATH TAVRIX_CONF_FOLDER "/sync.off"
#define TAVRIX_RESCAN_PATH TAVRIX_CONF_FOLDER "/tavrix_event_status.dirty"
#define TAVRIX_DUMP_FILE_PREFIX "pending_"

/* Moves the records into a new dump file and empties the buffer: written under a temporary name,
 * synced, renamed. 1 when done or there was nothing to do, -1 on a failure that the context
 * tolerates; on any other it writes the sync-off marker and aborts. */
TAVRIX_API int flush_staging_buffer(FB_CTX ctx);
/* 1 when the error is fatal in the context. */
TAVRIX_API int fb_err_disp(FB_CTX ctx, FB_ERR err);

/* The name of a new dump file in the folder `prefix`, cut at 255 bytes; the caller frees it. Null
 * on failure. */
TAVRIX_API char* get_dumpfname(const char* prefix);
/* size - 1 random characters and a NUL; returns `s`. */
TAVRIX_API char* rand_string(char* s, size_t size);
/* Writes all n bytes, over short writes: n, or -1. */
TAVRIX_API ssize_t write_all(int fd, const void* buf, size_t n);

/* Tells the agent that events are lost: 0, or the errno of the open. */
TAVRIX_API int write_sync_off(void);
/* Tells the agent to scan the tree anew, and why: 0, or -1. */
TAVRIX_API int mark_event_db_as_rescan_needed(const char* reason);

TAVRIX_END_DECLS

#endif
