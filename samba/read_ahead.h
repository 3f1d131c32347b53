// SPDX-License-Identifier: GPL-3.0-or-later
/* Batches: the entries of a listed folder that the module reads ahead and decides at once. */
#ifndef TAVRIX_READ_AHEAD_H
#define TAVRIX_READ_AHEAD_H

#include "tavrix_module.h"

struct tavrix_batch;

/* An entry that was read ahead. */
struct tavrix_read_entry {
  tavrix_entry_s question; /* without a name for "." and "..", which everybody sees */
  struct dirent* dirent;   /* valid until the next batch is read */
  long after;              /* the position behind the entry */
};

/* A folder that a client lists. A talloc child of its connection. */
struct tavrix_listing {
  struct tavrix_listing *next, *prev;
  DIR* dirp;
  struct files_struct* fsp;
  char* folder;                    /* its name, relative to the tree; "." for the tree's root */
  uint64_t request;                /* the request in which name and identity were checked */
  struct tavrix_batch* batch;      /* null: nothing is read ahead */
  struct tavrix_read_entry single; /* stands for the batch when there is no memory for one */
  const struct dirent* shown;      /* the entry handed out last; null: none, or it is forgotten */
  /* The user, the state of his rights, and the time that the verdicts are of; without a user there
   * are none. */
  const connection_private_data_s* record;
  uint64_t generation;
  struct timespec decided;
};

/* The next entry that the client may see, or null at the end of the folder. Reads and decides a
 * batch when the present one is used up. */
const struct tavrix_read_entry* tavrix_next_visible(struct vfs_handle_struct* handle,
                                                    struct tavrix_listing* listing);
/* True if the client may see the entry as an object of that type: the name may have come to mean
 * another object since the entry was read. */
bool tavrix_is_visible_as(struct tavrix_connection* tavrix, const struct tavrix_listing* listing,
                          const struct tavrix_read_entry* entry, int path_type);
/* True if the verdicts are about the present user with the present rights, and young. */
bool tavrix_verdicts_hold(struct tavrix_connection* tavrix, const struct tavrix_listing* listing);
/* The position behind the entry that was handed out last. */
long tavrix_position(struct vfs_handle_struct* handle, const struct tavrix_listing* listing);
/* Forgets what was read ahead. The next module's position stays where reading left it. */
void tavrix_drop_batch(struct tavrix_listing* listing);

#endif
