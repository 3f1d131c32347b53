// SPDX-License-Identifier: LGPL-3.0-or-later
/* Event records, the audit buffer of a process, and the stamps in extended attributes.
 *
 * A hook fills path, optype and fselem_type (and rename_path, tavrix_user), stamps the event with
 * pop_vfs_event() and sends it with send_modify_vfs_event(); for audit: path, ip_address and size,
 * pop_audit_event(), send_audit_vfs_event(). Events of uid 0 and of the reserved user are never
 * recorded. Not locked: one thread of a server process. */
#ifndef TAVRIX_VFS_COMMON_H
#define TAVRIX_VFS_COMMON_H

#include <sys/types.h>

#include "audit_events.pb-c.h"
#include "eventstore.h"
#include "samba.pb-c.h"
#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

/* --- records -------------------------------------------------------------------------------- */

/* A signed record with `size` zeroed payload bytes; its size field holds size + 8 until a builder
 * writes the payload's own. Null when size is below 1 or out of memory. The caller frees it. */
TAVRIX_API staging_data_s* alloc_staging_data(int size);
/* Stamp an event: who, which process, when. Always 0. */
TAVRIX_API int pop_vfs_event(VFSEvent* ve, uid_t uid);
TAVRIX_API int pop_audit_event(AuditEvent* ae);
/* The packed event in its frame; the caller frees it. Null when it is not to be recorded. */
TAVRIX_API staging_data_s* create_staging_data_buf(VFSEvent* ve);
TAVRIX_API staging_data_s* create_audit_data_buf(AuditEvent* ae);
/* Build, append, free. -1 when no record was built, else 0. The first may block for room. */
TAVRIX_API int send_modify_vfs_event(VFSEvent* ve);
TAVRIX_API int send_audit_vfs_event(AuditEvent* ve, uid_t uid);

/* --- the audit buffer of this process ------------------------------------------------------- */

/* PARAM_AUDITING_BUFFER_SIZE bytes; null before init_audit_buffer(). */
extern TAVRIX_API staging_buffer_s* global_read_audit_buffer;

/* Makes the buffer, or flushes and resets the one there is. */
TAVRIX_API void init_audit_buffer(void);
/* Appends a record, after a flush when one is due. -1 on failure; success carries no value. */
TAVRIX_API int write_to_audit_buffer(staging_data_s* rec);
/* 1 when there was nothing to write, 0 when written, -1 on failure: the records stay. */
TAVRIX_API int flush_audit_buffer(void);

/* --- stamps --------------------------------------------------------------------------------- */

extern TAVRIX_API const char XATTR_FIXED_FOLDER[];   /* empty value: clients keep their hands off */
extern TAVRIX_API const char XATTR_MODIFYING_USER[]; /* the user's name, without a NUL */

enum fixed_folder_res TAVRIX_ENUM_INT {
  NOT_FIXED_FOLDER = 0,
  FIXED_FOLDER = 1,
  FOLDER_EACCES = 2, /* no answer could be had: refuse */
};
typedef enum fixed_folder_res fixed_folder_res;

TAVRIX_API fixed_folder_res is_fixed_folder(const char* full_path);
/* 0, or -1 with errno set. */
TAVRIX_API int set_xattr_modifying_user(const char* file_path, const char* user_name);

TAVRIX_END_DECLS

#endif
