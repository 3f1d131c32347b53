// SPDX-License-Identifier: LGPL-3.0-or-later
/* The verdict for one operation on one path by one caller.
 *
 * vfs_enforce_perms() must run in a process that can become the superuser (real or saved uid 0, as
 * a Samba server process has). It changes the identity of the whole process for moments and gives
 * it back before it returns; one decision at a time in a process. */
#ifndef TAVRIX_PERM_ENFORCER_H
#define TAVRIX_PERM_ENFORCER_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "tavrix_api.h"
#include "tavrix_perms.h"
#include "tavrix_structs.h"

TAVRIX_BEGIN_DECLS

/* Decides `op` on `in_path`, the share root itself or an absolute path below TAVRIX_TREE.
 * `force_path_type` is the e_file_type that the caller knows, or 0 to look. `*is_nav` becomes 1
 * when the grant rests on a navigate-only or viewer-only mask: let the client see the object, not
 * open it. Writes the admin and poweruser fields of `in_pts`. Ask only operations that
 * enforce_tavrix_permissions() has a rule for, unless the path is the share root. */
TAVRIX_API e_vfs_enforce_perms vfs_enforce_perms(const char* share_root, const char* in_path,
                                                 e_fsop_type op, process_trustees_s* in_pts,
                                                 int force_path_type, int* is_nav);

/* Tells this process the gids of the groups "tavrix-admins" and "tavrix-powerusers". */
TAVRIX_API void vfs_set_admins_powerusers(gid_t admins, gid_t powerusers);

/* The rule table: allow or deny `op` on an object of that type, by the caller's masks on the object
 * and on its parent folder. Touches nothing but the log. Operations without a rule abort. */
TAVRIX_API e_vfs_enforce_perms enforce_tavrix_permissions(e_fsop_type op, e_file_type type,
                                                          uint32_t self, uint32_t parent);

/* 1 when the path, relative to the share root, is a bookkeeping file of a desktop client. */
TAVRIX_API int is_special_folder_file(const char* path);

/* 1 when the strings, or their first n bytes, are equal ignoring case. */
TAVRIX_API int _paths_match(const char* a, const char* b);
TAVRIX_API int _paths_match_len(const char* a, const char* b, size_t n);

#define TAVRIX_CHANGE_ID_ROOT 5
#define TAVRIX_CHANGE_ID_BACK 6
/* 5: makes the effective uid and gid the superuser's; anything else: gives back what they were.
 * Does not nest: a 5 that follows a 5, or a 6 without one, aborts. */
TAVRIX_API void _change_id(int which);

TAVRIX_END_DECLS

#endif
