// SPDX-License-Identifier: LGPL-3.0-or-later
/* Sessions: a thread keeps the current map table and the staging buffer attached between calls.
 *
 * Attaching is the dear part of a decision and of an event: each attachment starts without page
 * tables, and every page that is read costs a fault. A thread with an open session keeps what it
 * attached, and each call asks the kernel only whether that is still the current table or buffer.
 * Verdicts, events and messages are the same as without a session. A new map is seen by the next
 * call.
 *
 * A session belongs to its thread. Every function here is about the calling thread, and the end of
 * the thread closes its session. After fork() the child has the same session and may use it or
 * close it, but do not fork within a scope; what other threads had attached stays attached in the
 * child. An end without a beginning changes nothing. get_perm_map_addr(), put_perm_map_addr() and
 * the functions of the staging buffer take no part: they attach and detach as ever.
 *
 * A table that is no longer current stays in memory while a thread keeps it. So a thread that waits
 * calls tavrix_session_idle(): a server does so from a timer, well below a second after its last
 * request. When something cannot be kept, the call does what it does without a session. */
#ifndef TAVRIX_SESSION_H
#define TAVRIX_SESSION_H

#include <stddef.h>

#include "tavrix_api.h"
#include "tavrix_perms.h"
#include "tavrix_structs.h"

TAVRIX_BEGIN_DECLS

/* Opens the thread's session. Calls nest: a thread that opens twice closes twice. Attaches nothing
 * yet. 0, or -1 with errno ENOMEM; then calls work as without a session. */
TAVRIX_API int tavrix_session_begin(void);

/* Detaches what the session keeps; the session stays open, and the next call attaches afresh. Needs
 * no privilege and makes no system call when nothing is kept. Do not call it within a scope. errno
 * survives. */
TAVRIX_API void tavrix_session_idle(void);

/* Closes the session, and detaches what it keeps when this was the outermost. errno survives. */
TAVRIX_API void tavrix_session_end(void);

/* 1 when the thread's session keeps a table or a buffer attached, else 0: a timer that finds
 * nothing kept need not be set again. Makes no system call. */
TAVRIX_API int tavrix_session_is_holding(void);

/* A scope: the decisions between begin and end look for the current table once, so that all of them
 * answer from one map, and change the identity of the process once. Works with and without a
 * session. Scopes nest; only the outermost counts.
 *
 * Between the two the process may be the superuser (effective user and group). So a scope surrounds
 * decisions alone: no operation hook that leaves the process root, no call to other modules, no
 * wait, no fork. */
TAVRIX_API void tavrix_scope_begin(void);
TAVRIX_API void tavrix_scope_end(void);

/* A question about an entry of a folder, and its answer. */
typedef struct tavrix_entry_s {
  const char* name;            /*  0  the entry's name, without a slash */
  int path_type;               /*  8  its e_file_type if the caller knows it, or 0 to look */
  e_vfs_enforce_perms verdict; /* 12  the answer */
} tavrix_entry_s;

TAVRIX_ASSERT_OFFSET(struct tavrix_entry_s, path_type, 8);
TAVRIX_ASSERT_OFFSET(struct tavrix_entry_s, verdict, 12);
TAVRIX_ASSERT_SIZE(struct tavrix_entry_s, 16);

/* Decides `op` on each of `count` entries of a folder, in one scope. Each verdict is the one that
 * check_perms() gives for the path "folder/name" when its cache is empty; the connection's verdict
 * cache is neither read nor written. An entry with a null name gets TXPERMS_INVALID_ARGS.
 *
 * `folder` is relative to the share root, "." for the root itself. The first question stands at
 * `entries`, each next one `stride` bytes on, so that questions may lie in larger records. 0, or -1
 * with errno EINVAL for a null pointer or a stride below the size of a question; no question is
 * answered then. */
TAVRIX_API int tavrix_decide_entries(const char* share_root, const char* folder, e_fsop_type op,
                                     connection_private_data_s* connection, tavrix_entry_s* entries,
                                     size_t stride, size_t count);

TAVRIX_END_DECLS

#endif
