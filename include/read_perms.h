// SPDX-License-Identifier: LGPL-3.0-or-later
/* The second pass of an import: the data file into the image, and the local copy of the image.
 *
 * The pass is a machine of states on an explicit stack. The size file's counts set the size of the
 * image. A document that breaks the grammar, or needs more room than the counts give, aborts the
 * process: check a pair of files first when nobody vouches for it. Not reentrant. */
#ifndef TAVRIX_READ_PERMS_H
#define TAVRIX_READ_PERMS_H

#include <stddef.h>
#include <stdint.h>

#include "mkperms_shm.h"
#include "tavrix_api.h"
#include "tavrix_stack.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_PERMBE_MAP_PATH "/etc/tavrix/.permbe_map"

enum json_permdata_states TAVRIX_ENUM_INT {
  PERMDATA_STATE_STCHILDARRAY = 0,
  PERMDATA_STATE_STCHILDMAP = 1,
  PERMDATA_STATE_STACLARRAY = 2,
  PERMDATA_STATE_STUSERMAP = 3,
  PERMDATA_STATE_ENDUSERMAP = 4,
  PERMDATA_STATE_STGROUPMAP = 5,
  PERMDATA_STATE_ENDGROUPMAP = 6,
  PERMDATA_STATE_STNUMUSERMAP = 7,
  PERMDATA_STATE_ENDNUMUSERMAP = 8,
  PERMDATA_STATE_STNUMGROUPMAP = 9,
  PERMDATA_STATE_ENDNUMGROUPMAP = 10,
  PERMDATA_STATE_STUSERACLMAP = 11,
  PERMDATA_STATE_ENDUSERACLMAP = 12,
  PERMDATA_STATE_STGROUPACLMAP = 13,
  PERMDATA_STATE_ENDGROUPACLMAP = 14,
  PERMDATA_STATE_STNUMCHILDRENMAP = 15,
  PERMDATA_STATE_ENDNUMCHILDRENMAP = 16,
  PERMDATA_STATE_CHILDREN = 17,
  PERMDATA_STATE_NUMCHILDREN = 18,
  PERMDATA_STATE_NUMUSERS = 19,
  PERMDATA_STATE_NUMGROUPS = 20,
  PERMDATA_STATE_NAME = 21,
  PERMDATA_STATE_USERS = 22,
  PERMDATA_STATE_ACL = 23,
  PERMDATA_STATE_USERID = 24,
  PERMDATA_STATE_GROUPS = 25,
  PERMDATA_STATE_GROUPID = 26,
  PERMDATA_STATE_INVAL = 27,
};
typedef enum json_permdata_states json_permdata_states;

/* Fills the image of `msum` from its data file, saves it as the local copy and removes both JSON
 * files; without a data file path, reads the local copy into the image. The result tells whether a
 * valid image could be saved (or read), not whether the document parsed. */
TAVRIX_API membe_shm_err process_permmap(memsummary_s* msum);

/* The local copy's path as a new string; the caller frees it. Null when out of memory. */
TAVRIX_API char* get_permbe_map_location(void);

/* Writes `size` bytes of the image to the file / reads the file into the image of `size` bytes. */
TAVRIX_API membe_shm_err persist_perm_map(const char* perm_map_file, const tavrix_be_header* buf,
                                          unsigned int size);
TAVRIX_API membe_shm_err readperms_from_map(const char* perm_map_file, tavrix_be_header* buf,
                                            unsigned int size);

/* Dump an image to the system log, above debug level 6 (summary) and 9 (names). The image must be
 * sound: walk_tree follows its links and recurses with the depth of the tree. */
TAVRIX_API void print_tree(tavrix_be_header* beheader);
TAVRIX_API void walk_tree(tavrix_be_header* beheader, fs_elem_s* parent, int level);

/* The parse stack. create_stackelem: 0, or 1 when out of memory; `*stelem` must be null before.
 * get_cur_statewdata leaves the top in place; its three outputs must be zero before. pop_if_state
 * works on the summary of the running import: it frees the top and returns SHM_MEMBE_OK when the
 * top has that state. */
TAVRIX_API int create_stackelem(int state, jsonstack** stelem);
TAVRIX_API membe_shm_err push_stackelem_wstatedata(memsummary_s* msum, int state, uint32_t offset,
                                                   void* data, stelem_type type);
TAVRIX_API int get_cur_state(tavrix_stack_head_s* stack);
TAVRIX_API int get_cur_statewdata(tavrix_stack_head_s* stack, uint32_t* offset, void** data,
                                  stelem_type* type);
TAVRIX_API membe_shm_err pop_if_state(int state);

/* The data pass as the JSON parser sees it: each returns 1 to go on, 0 to cancel. */
TAVRIX_API int readperm_number(void* ctx, const char* number, size_t len);
TAVRIX_API int readperm_string(void* ctx, const unsigned char* string, size_t len);
TAVRIX_API int readperm_start_map(void* ctx);
TAVRIX_API int readperm_map_key(void* ctx, const unsigned char* key, size_t len);
TAVRIX_API int readperm_end_map(void* ctx);
TAVRIX_API int readperm_start_array(void* ctx);
TAVRIX_API int readperm_end_array(void* ctx);

TAVRIX_END_DECLS

#endif
