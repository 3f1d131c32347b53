// SPDX-License-Identifier: LGPL-3.0-or-later
/* The events of all server processes on their way to the synchronisation agent: the staging buffer
 * and its flush to dump files. The settings come along, from parameter_block.h.
 *
 * One segment, excluded by one semaphore that its holder's death releases (SEM_UNDO). The sweeper
 * makes both; server processes append. Both are looked up afresh on every call, so a sweeper may
 * replace them. A missing semaphore or a damaged header means that events are lost: the library
 * then writes the sync-off alarm and aborts. Identities change during a flush: it runs as root. */
#ifndef TAVRIX_EVENTSTORE_H
#define TAVRIX_EVENTSTORE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "parameter_block.h"
#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

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

#define TAVRIX_STAGING_KEY_PATH "/dev/null" /* first argument of ftok(), for both keys */
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
/* Each dump file gets a second name in this folder if it exists, "events.NAME" or "audit.NAME",
 * before it gets its first one: for who keeps the records however fast the agent takes the files.
 */
#define TAVRIX_HISTORY_FOLDER TAVRIX_CONF_FOLDER "/history"

/* Moves the records into a new dump file and empties the buffer: written under a temporary name,
 * synced, renamed. 1 when done or there was nothing to do, -1 on a failure that the context
 * tolerates; on any other it writes the sync-off alarm and aborts. */
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
