// SPDX-License-Identifier: LGPL-3.0-or-later
/* The permission map: the records of its image, and the first pass of its import.
 *
 * An image is one block of bytes: a header, then four regions of records without gaps or alignment:
 * folders, names, ACLs, child lists. Nothing in it is a pointer; a link is the byte offset of a
 * record from the start of its region, and a region's start is in the header. Every record but an
 * ACE opens with, or holds, a signature that readers check. Integers are little-endian.
 *
 * The loader calls, in this order: get_permbe_shmsize(), create_perm_map_shm() (perm_map.h) for
 * memsize bytes, init_permbe_shm(), swap_maps(). The functions below write traces to standard
 * output and report failures three ways: the result, the system log and the sweeper log. They are
 * not reentrant: one import at a time in a process. Broken invariants of the size file abort. */
#ifndef TAVRIX_MKPERMS_SHM_H
#define TAVRIX_MKPERMS_SHM_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "tavrix_api.h"
#include "tavrix_lists.h"
#include "tavrix_stack.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_BE_HEADER_SIGNATURE 0x1EA78EAFU
#define FSELEMSIG 0x67896789U
#define NAMESIG 0xABCDABCDU
#define LISTSIG 0x789A789AU
#define ACLSIG 0xCDEFCDEFU

#define FSELEM_ROOT_OFFSET 0xFFFFFFFFU  /* parent of an unfinished root */
#define FSELEM_ROOT_OFFSET2 0xFFFFFFFEU /* parent of the root of a finished image */

#define FSELEM_FLAG_ROOT 1U          /* the element is the root */
#define FSELEM_FLAG_NO_CHILD_LIST 2U /* a leaf; clist_offset means nothing */

#define MAXMAP_NAMELEN 32         /* a map name has at most 31 characters */
#define MAXMAP_VERSION_NAMELEN 36 /* a version may fill its field, without a NUL then */

enum membe_shm_err TAVRIX_ENUM_INT {
  SHM_MEMBE_OK = 0,
  SHM_MEMBE_ERR_NOMEM = 1,
  SHM_MEMBE_ERR_LISTERR = 2,
  SHM_MEMBE_ERR_BADARGS = 3,
  SHM_MEMBE_ERR_STATE_MISMATCH = 4,
  SHM_MEMBE_ERR_VERSION_MISMATCH = 5,
  SHM_MEMBE_ERR_BAD_ACL = 6,
  SHM_MEMBE_ERR_NOPERM_SIZE_FILE = 7,
  SHM_MEMBE_ERR_NOPERM_FILE = 8,
  SHM_MEMBE_ERR_NOCACHE_FILE = 9,
  SHM_MEMBE_ERR_MAP_CORRUPTION = 10,
  SHM_MEMBE_ERR_PERMMAP_WRERR = 11,
  SHM_MEMBE_ERR_PERMMAP_RDERR = 12,
  SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL = 13,
  SHM_MEMBE_OK_NAMEREMAPPED = 14, /* a success: the lookup stopped at an ancestor */
};
typedef enum membe_shm_err membe_shm_err;

struct TAVRIX_PACKED tavrix_be_header {
  char mapname[MAXMAP_NAMELEN];         /*   0  NUL-terminated */
  char version[MAXMAP_VERSION_NAMELEN]; /*  32  not terminated when full */
  char nextmap[MAXMAP_NAMELEN];         /*  68  zero */
  uint32_t generationnum;               /* 100 */
  int64_t timestamp;                    /* 104  seconds since the epoch */
  uint32_t total_fselems;               /* 112 */
  uint32_t total_aces;                  /* 116 */
  uint32_t total_lists;                 /* 120 */
  uint32_t fselem_offset;               /* 124  a region: start from the image start, */
  uint32_t fselem_size;                 /* 128  bytes, */
  uint32_t next_free_fselem;            /* 132  first free byte from the region start */
  uint32_t nameelem_offset;             /* 136 */
  uint32_t nameelem_size;               /* 140 */
  uint32_t next_free_nameelem;          /* 144 */
  uint32_t acl_offset;                  /* 148 */
  uint32_t acl_size;                    /* 152 */
  uint32_t next_free_acl;               /* 156 */
  uint32_t list_offset;                 /* 160 */
  uint32_t list_size;                   /* 164 */
  uint32_t next_free_list;              /* 168 */
  uint32_t signature;                   /* 172  TAVRIX_BE_HEADER_SIGNATURE */
  /* be_buffer                             176  the regions */
};
typedef struct tavrix_be_header tavrix_be_header;
typedef struct tavrix_be_header tavrix_be_header_t;

TAVRIX_ASSERT_SIZE(struct tavrix_be_header, 176);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, version, 32);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, nextmap, 68);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, generationnum, 100);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, timestamp, 104);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, total_fselems, 112);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, fselem_offset, 124);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, nameelem_offset, 136);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, acl_offset, 148);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, list_offset, 160);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, next_free_list, 168);
TAVRIX_ASSERT_OFFSET(struct tavrix_be_header, signature, 172);

struct TAVRIX_PACKED fs_elem_s {
  uint32_t signature;        /*  0  FSELEMSIG */
  uint32_t parent_offset;    /*  4  in the folder region, or one of FSELEM_ROOT_OFFSET* */
  uint32_t name_elem_offset; /*  8  in the name region; 0 until a name is attached */
  uint32_t clist_offset;     /* 12  in the child-list region */
  uint32_t acl_offset;       /* 16  in the ACL region */
  uint32_t flags;            /* 20  FSELEM_FLAG_* */
};
typedef struct fs_elem_s fs_elem_s;
typedef struct fs_elem_s fs_elem_t;

TAVRIX_ASSERT_SIZE(struct fs_elem_s, 24);
TAVRIX_ASSERT_OFFSET(struct fs_elem_s, parent_offset, 4);
TAVRIX_ASSERT_OFFSET(struct fs_elem_s, name_elem_offset, 8);
TAVRIX_ASSERT_OFFSET(struct fs_elem_s, clist_offset, 12);
TAVRIX_ASSERT_OFFSET(struct fs_elem_s, acl_offset, 16);
TAVRIX_ASSERT_OFFSET(struct fs_elem_s, flags, 20);

struct TAVRIX_PACKED name_elem_s {
  uint16_t name_len;  /*  0  bytes, without the NUL */
  uint16_t padding;   /*  2  zero */
  uint32_t signature; /*  4  NAMESIG */
  uint32_t hashval;   /*  8  process_namecomponent_4hash() of the name */
  /* char name[]         12  name_len + 1 bytes; the next record follows unaligned */
};
typedef struct name_elem_s name_elem_s;
typedef struct name_elem_s name_elem_t;

TAVRIX_ASSERT_SIZE(struct name_elem_s, 12);
TAVRIX_ASSERT_OFFSET(struct name_elem_s, signature, 4);
TAVRIX_ASSERT_OFFSET(struct name_elem_s, hashval, 8);

struct TAVRIX_PACKED child_list_s {
  uint32_t signature;    /*  0  LISTSIG */
  uint32_t num_children; /*  4  declared for the folder */
  uint32_t next_index;   /*  8  filled so far; equal to num_children in a finished image */
  /* uint32_t children_offsets[]  12  in the folder region, in the order they were added */
};
typedef struct child_list_s child_list_s;
typedef struct child_list_s child_list_t;

TAVRIX_ASSERT_SIZE(struct child_list_s, 12);
TAVRIX_ASSERT_OFFSET(struct child_list_s, num_children, 4);
TAVRIX_ASSERT_OFFSET(struct child_list_s, next_index, 8);

enum e_beace_idtype TAVRIX_ENUM_INT {
  IDTYPE_UID = 1,
  IDTYPE_GID = 2,
};
typedef enum e_beace_idtype e_beace_idtype;

struct TAVRIX_PACKED beace_s {
  uint32_t idtype;    /*  0  IDTYPE_UID or IDTYPE_GID */
  uint32_t id;        /*  4 */
  uint16_t perm_mask; /*  8 */
  uint16_t padding;   /* 10  zero */
};
typedef struct beace_s beace_s;
typedef struct beace_s beace_t;

TAVRIX_ASSERT_SIZE(struct beace_s, 12);
TAVRIX_ASSERT_OFFSET(struct beace_s, id, 4);
TAVRIX_ASSERT_OFFSET(struct beace_s, perm_mask, 8);

struct TAVRIX_PACKED beacl_s {
  uint32_t signature; /*  0  ACLSIG */
  uint32_t num_aces;  /*  4  0: the folder inherits */
  /* beace_s aces[]       8 */
};
typedef struct beacl_s beacl_s;
typedef struct beacl_s beacl_t;

TAVRIX_ASSERT_SIZE(struct beacl_s, 8);
TAVRIX_ASSERT_OFFSET(struct beacl_s, num_aces, 4);

/* The working summary of one import. Zero-filled by its maker; the strings are heap copies. */
struct memsummary_s {
  struct tavrix_stack_head_s sth; /* the parse stack, of jsonstack */
  char mapname[MAXMAP_NAMELEN];
  char* perm_map_name_size; /* path of the size file; null with perm_map_name_data: restore */
  char* perm_map_name_data; /* path of the data file */
  char version[MAXMAP_VERSION_NAMELEN]; /* not necessarily terminated when full */
  uint32_t generationnum;
  time_t timestamp;
  uint32_t total_fselems; /* the counts come from the size file */
  uint32_t total_aces;
  uint32_t total_namelen; /* bytes, one NUL a name included */
  uint32_t fselem_offset; /* the layout is in the image header; these stay unset */
  uint32_t nameelem_offset;
  uint32_t acl_offset;
  uint32_t list_offset;
  uint32_t memsize; /* bytes of the image */
  void* membuf;     /* the attached image, memsize writable bytes; set by the caller */
};
typedef struct memsummary_s memsummary_s;
typedef struct memsummary_s memsummary_t;

enum stelem_type TAVRIX_ENUM_INT {
  STELEM_TYPE_FSELEM = 0,
  STELEM_TYPE_NAMEELEM = 1,
  STELEM_TYPE_ACLELEM = 2,
  STELEM_TYPE_LISTELEM = 3,
  STELEM_TYPE_INVALID = 4,
};
typedef enum stelem_type stelem_type;

/* One element of the import's parse stack. */
struct jsonstack_s {
  struct oneway_list_elem_s list; /* first: an element pointer is a record pointer */
  int state;                      /* json_mapsize_states or json_permdata_states */
  stelem_type stetype;
  uint32_t jsonoffset; /* of the folder it belongs to, in the folder region */
  void* data;          /* the in-memory ACL being built, where there is one */
};
typedef struct jsonstack_s jsonstack_s;
typedef struct jsonstack_s jsonstack;
typedef struct jsonstack_s jsonstack_t;

enum json_mapsize_states TAVRIX_ENUM_INT {
  SHMMAPSZ_STATE_STARTMAP = 0,
  SHMMAPSZ_STATE_ENDMAP = 1,
  SHMMAPSZ_STATE_MAPNAME = 2,
  SHMMAPSZ_STATE_VERSION = 3,
  SHMMAPSZ_STATE_GENERATIONNUM = 4,
  SHMMAPSZ_STATE_TIMESTAMP = 5,
  SHMMAPSZ_STATE_TOTALFSELEMS = 6,
  SHMMAPSZ_STATE_TOTALACES = 7,
  SHMMAPSZ_STATE_TOTALNAMELEN = 8,
  SHMMAPSZ_STATE_INVAL = 9,
};
typedef enum json_mapsize_states json_mapsize_states;

/* Reads the size file, makes a summary in `*msum` (the caller frees it and its two path copies) and
 * computes memsize. Both files must exist. With neither path given, `*msum` is the caller's own
 * summary, and memsize becomes the size of the local copy of the image. A size file that does not
 * parse to its end is not a failure: what was read counts. */
TAVRIX_API membe_shm_err get_permbe_shmsize(const char* perm_size_file, const char* perm_file_data,
                                            memsummary_s** msum);

/* Lays out the header of the image at `perm_be_shm->membuf` and fills the image: from the data
 * file, or from the local copy when the summary names none. The caller owns the segment and
 * publishes it. */
TAVRIX_API membe_shm_err init_permbe_shm(memsummary_s* perm_be_shm);

/* Steps of the two functions above. */
TAVRIX_API membe_shm_err init_mem_summary(memsummary_s** summary);
TAVRIX_API void estimate_shmbe_size(memsummary_s* sum);
TAVRIX_API membe_shm_err init_shmbe(memsummary_s* sum);

/* The size pass as the JSON parser sees it: each returns 1 to go on, 0 to cancel. They reach the
 * summary through a variable of the library, not through `ctx`. */
TAVRIX_API int beshm_start_map(void* ctx);
TAVRIX_API int beshm_map_key(void* ctx, const unsigned char* key, size_t len);
TAVRIX_API int beshm_number(void* ctx, const char* number, size_t len);
TAVRIX_API int beshm_string(void* ctx, const unsigned char* string, size_t len);
TAVRIX_API int beshm_end_map(void* ctx);

TAVRIX_END_DECLS

#endif
