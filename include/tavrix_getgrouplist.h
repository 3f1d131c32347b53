// SPDX-License-Identifier: LGPL-3.0-or-later
/* The group list map file: which groups a user is in, and the gids of the reserved groups.
 *
 * A program outside the library writes the file and replaces it as a whole; a server process maps
 * it read-only and looks names up, ignoring case, in file order. All integers are 32-bit, unsigned
 * and little-endian, all offsets count from the start of the file, names are NUL-terminated. The
 * file has at least 8192 bytes and a multiple of 4096. A damaged file makes a user look like a
 * member of no group: nothing here fails but by null or 0, after a line on standard error. */
#ifndef TAVRIX_GETGROUPLIST_H
#define TAVRIX_GETGROUPLIST_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_GROUPMAP_PATH "/etc/tavrix/groupmap_refresh"
#define TAVRIX_GROUPMAP_MIN_SIZE 8192U /* bytes */
#define TAVRIX_GROUPMAP_ALIGNMENT 4096U

struct mapheader_s {
  uint32_t roffs; /*  0  the reserved groups: offset of the table, */
  uint32_t rnum;  /*  4  and its records (ritem) */
  uint32_t uoffs; /*  8  the users: offset of the table, */
  uint32_t unum;  /* 12  and its records (uitem) */
};
typedef struct mapheader_s mapheader_s;
typedef struct mapheader_s mapheader;

struct ritem_s {
  uint32_t noffs; /* 0  name */
  uint32_t gid;   /* 4 */
};
typedef struct ritem_s ritem_s;
typedef struct ritem_s ritem;

struct uitem_s {
  uint32_t noffs; /*  0  name */
  uint32_t nlen;  /*  4  bytes of the name */
  uint32_t goffs; /*  8  array of 32-bit gids */
  uint32_t glen;  /* 12  gids in it */
};
typedef struct uitem_s uitem_s;
typedef struct uitem_s uitem;

TAVRIX_ASSERT_SIZE(struct mapheader_s, 16);
TAVRIX_ASSERT_OFFSET(struct mapheader_s, uoffs, 8);
TAVRIX_ASSERT_SIZE(struct ritem_s, 8);
TAVRIX_ASSERT_OFFSET(struct ritem_s, gid, 4);
TAVRIX_ASSERT_SIZE(struct uitem_s, 16);
TAVRIX_ASSERT_OFFSET(struct uitem_s, goffs, 8);

/* Maps the whole file and stores its size. Null without a file, or for a file of an impossible
 * size. Beware: when the mapping itself fails, the result is all ones (MAP_FAILED) and the size is
 * set; callers rely on that. */
TAVRIX_API void* tavrix_mapfile(const char* path, unsigned int* mapsize);
TAVRIX_API void tavrix_unmap(void* map, unsigned int size);

/* The gid of a reserved group; 0 when there is none of that name. */
TAVRIX_API gid_t tavrix_reserved_gid(const mapheader* map, unsigned int mapsize,
                                     const char* groupname);
/* A new array of the user's gids and its length; the caller frees it. Null when not found. */
TAVRIX_API gid_t* tavrix_getgrouplist(const mapheader* map, unsigned int mapsize,
                                      const char* username, unsigned int* grouplen);

/* Formats to standard error. */
TAVRIX_API void debug_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

TAVRIX_END_DECLS

#endif
