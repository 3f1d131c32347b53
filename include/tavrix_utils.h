// SPDX-License-Identifier: LGPL-3.0-or-later
/* Paths, names and privilege. */
#ifndef TAVRIX_UTILS_H
#define TAVRIX_UTILS_H

#include <stddef.h>
#include <sys/types.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

/* --- paths: lexical, no file is looked at; the caller frees the results -------------------- */

/* The canonical spelling of a path: single slashes, no "." or "..". Null with errno ENOENT for a
 * relative path that climbs above its start, with ENOMEM when out of memory. "a/.." is "". */
TAVRIX_API char* normalize_path(const char* path);
/* The folder of a path: "/" of "/a", "" of "a". Null for null or when out of memory. */
TAVRIX_API char* parent_dir_from_path(const char* path);

/* --- names: case-insensitive comparison ---------------------------------------------------- */

/* -1 (a sorts first), 0 (equal), 1 (a sorts last) or 2: at the first place where they differ in
 * kind both names have a byte above 0x7f, which only strcasecmp_m_wrapper() can judge. */
TAVRIX_API int tavrix_strncasecmp(const char* a, const char* b, int n);
/* As above, except that it does not look at the first byte of either name; 0 for a null b. `a` must
 * not be empty. Kept for callers outside the library. */
TAVRIX_API int tavrix_strcasecmp(const char* a, const char* b);
/* The same comparison from the first byte, traced above debug level 3. */
TAVRIX_API int __tavrix_strcasecmp(const char* a, const char* b);
/* As above over at most n bytes; but -1 when a ends within them, even where b ends at the same
 * place: callers ask whether b begins with the whole of n bytes of a. */
TAVRIX_API int __tavrix_strncasecmp(const char* a, const char* b, size_t n);

/* Samba's Unicode comparison; 0 is equal. A missing Samba library ends the process with status 1,
 * for no comparison may silently become one of bytes. */
TAVRIX_API int strcasecmp_m_wrapper(const char* a, const char* b);
TAVRIX_API int strncasecmp_m_wrapper(const char* a, const char* b, size_t n);
/* Loads the Samba library unless it is loaded. Unguarded: call it before there are threads. */
TAVRIX_API void init_samba_lib_handle(void);

/* --- privilege: the user ids of the whole process; not to be used from two threads ---------- */

/* The identity before a switch. The group ids are filled only by a switch that happens, and are
 * recorded, not restored: the switch never changes group ids. */
struct tx_permctx_s {
  uid_t real_uid;
  uid_t effective_uid;
  uid_t saved_uid;
  gid_t real_gid;
  gid_t effective_gid;
  gid_t saved_gid;
};
typedef struct tx_permctx_s tx_permctx_s;
typedef struct tx_permctx_s tx_permctx_t;
typedef struct tx_permctx_s tx_perm_ctx_t;

TAVRIX_ASSERT_SIZE(struct tx_permctx_s, 24);
TAVRIX_ASSERT_OFFSET(struct tx_permctx_s, real_gid, 12);

/* Makes the process root and keeps the way back in `*perm_ctx`, which is allocated when null and
 * stays the caller's to free, after a failure too. 0 or -1. Pair with exactly one unbecome. */
TAVRIX_API int tavrix_become_root(tx_permctx_s** perm_ctx);
/* Gives back the user ids of `perm_ctx`, which it does not free. 0 or -1. */
TAVRIX_API int tavrix_unbecome_root(tx_permctx_s* perm_ctx);
/* The same pair, which also allocates and frees the context. Null on failure; the second frees it
 * in every case. */
TAVRIX_API tx_permctx_s* tavrix_vfs_become_root(void);
TAVRIX_API int tavrix_vfs_unbecome_root(tx_permctx_s* perm_ctx);

TAVRIX_END_DECLS

#endif
