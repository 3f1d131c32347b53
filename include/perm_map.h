// SPDX-License-Identifier: LGPL-3.0-or-later
/* The two tables that hold permission maps, and the semaphores that say which one is current.
 *
 * A table is a System V segment without permission bits: attach it as the superuser. Semaphore 0 of
 * the set is the current table (0 or 1), semaphore 1 tells whether a map was ever loaded; both
 * outlive the processes that write them. Nothing locks a table: the loader fills only the one that
 * is not current, and a reader looks at the index again after it has attached.
 *
 * Loader: create_perm_map_semaphore(), c = get_current_perm_table_index_for_fill(),
 * create_perm_map_shm(get_next_perm_table_key(c), ...), fill it, swap_maps(c), map_initialized(1).
 * Reader: init_perm_map_semaphore() once, then get_perm_map_addr() ... put_perm_map_addr() for each
 * decision. Nothing here waits. -1 is failure, after a line in the system log; an index or a flag
 * outside 0 and 1 aborts. The identifier of the set is kept per process, without a lock. Keys are
 * key_t values, spelled int because strict C11 hides that name. */
#ifndef TAVRIX_PERM_MAP_H
#define TAVRIX_PERM_MAP_H

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_PERM_MAP_SEM_KEY_PATH "/dev/null" /* both arguments of ftok() for the set's key */
#define TAVRIX_PERM_MAP_SEM_KEY_ID 7065
#define TAVRIX_PERM_TABLE0_KEY 0x70657269
#define TAVRIX_PERM_TABLE1_KEY 0x7065726a

struct perm_map_sem_s {
  int sem;                  /* identifier of the set; -1 before any init */
  unsigned short sarray[2]; /* current table, initialized */
};
typedef struct perm_map_sem_s perm_map_sem_s;
typedef struct perm_map_sem_s perm_map_sem_t;

/* Creates the set and resets it to table 0, no map, even when it existed. For the loader. */
TAVRIX_API int create_perm_map_semaphore(void);
/* Gets the set, recreating it at zero when it is missing. For a reader, once a connection. */
TAVRIX_API int init_perm_map_semaphore(void);
TAVRIX_API int _init_perm_map_semaphore(int create);
TAVRIX_API int _recreate_perm_map_semaphore(int* semid, int* key);
/* Removes the set; the tables stay. */
TAVRIX_API void destroy_perm_map(void);

/* Creates and attaches a new table; null when the key is taken, for a stale table must not be
 * reused. The new segment is advised to use huge pages, which is harmless where the kernel has
 * none. */
TAVRIX_API void* create_perm_map_shm(int key, unsigned int size, int* shmid);
/* The key of the table that is not `current`. */
TAVRIX_API int get_next_perm_table_key(int current);
/* Makes the other table current and marks the old one, if a map was ever loaded, for removal: it
 * goes when its last reader detaches. */
TAVRIX_API int swap_maps(unsigned int current);
/* With 0, returns the initialized flag, or -1. With any other value, sets it: 0, or -1. */
TAVRIX_API int map_initialized(int set);

/* The current table, or -1. The first looks the set up afresh; the second, for the loader, reads
 * the set that create_perm_map_semaphore() or init_perm_map_semaphore() found. */
TAVRIX_API int get_current_perm_table_index(void);
TAVRIX_API int get_current_perm_table_index_for_fill(void);

/* Attaches the current table; null when there is no local copy of a map, no table, or no right to
 * it. Hold it only for one decision: an old table lives as long as its last reader. */
TAVRIX_API void* get_perm_map_addr(void);
TAVRIX_API void put_perm_map_addr(void* addr);

TAVRIX_END_DECLS

#endif
