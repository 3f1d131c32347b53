// SPDX-License-Identifier: GPL-3.0-or-later
/* The asker: a user whose deletion is carried out by another user's last close. */
#include "tavrix_module.h"

#include "system/passwd.h"

void tavrix_free_asker(struct tavrix_connection* tavrix) {
  connection_private_data_s* asker = &tavrix->asker;
  if (asker->refresh_creds.euid == 0) return; /* never filled */
  destroy_tlb(&asker->vfs_table_cache);
  free(asker->groupmap.gids);
  talloc_free(asker->user_name_as_passed_in);
  ZERO_STRUCTP(asker);
}

/* The key is the one that a session of that account would have. Without a key there are no groups,
 * and so no rights. */
static void fill_asker(struct vfs_handle_struct* handle, uid_t uid) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  connection_private_data_s* asker = &tavrix->asker;
  const struct passwd* account = getpwuid(uid);
  char* key = account != NULL ? tavrix_key_of_account(account->pw_name) : NULL;
  if (key != NULL) asker->user_name_as_passed_in = talloc_strdup(tavrix, key);
  free(key);
  asker->config = tavrix->own->config;
  asker->refresh_creds.euid = asker->refresh_creds.tlb_owner = uid;
  asker->refresh_creds.permmap_refresh = asker->refresh_creds.groupmap_refresh = time(NULL);
  asker->reserved_user = uid == tavrix->reserved_uid ? 1 : 0;
  init_tlb(&asker->vfs_table_cache);
  TAVRIX_AS_ROOT();
  reset_groupmap(asker);
}

connection_private_data_s* tavrix_record_of_asker(struct vfs_handle_struct* handle, uid_t uid) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix->asker.refresh_creds.euid != uid) {
    tavrix_free_asker(tavrix);
    fill_asker(handle, uid);
  }
  return &tavrix->asker;
}
