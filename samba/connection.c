// SPDX-License-Identifier: GPL-3.0-or-later
/* A client connects to the share and disconnects. */
#include "tavrix_module.h"

#include "lib/tsocket/tsocket.h"

static int connected_users;

struct tavrix_connection* tavrix_connection_of(struct vfs_handle_struct* handle) {
  return (struct tavrix_connection*)handle->data;
}

bool tavrix_is_connected(struct vfs_handle_struct* handle) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix != NULL && !tavrix->is_lost) return true;
  errno = EACCES;
  return false;
}

struct tavrix_open* tavrix_open_of(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  return VFS_FETCH_FSP_EXTENSION(handle, fsp);
}

struct tavrix_open* tavrix_keep_open(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  struct tavrix_open* kept = tavrix_open_of(handle, fsp);
  if (kept != NULL) return kept;
  kept = VFS_ADD_FSP_EXTENSION(handle, fsp, struct tavrix_open, NULL);
  if (kept != NULL) ZERO_STRUCTP(kept);
  return kept;
}

const char* tavrix_option(struct vfs_handle_struct* handle, const char* name,
                          const char* otherwise) {
  return lp_parm_const_string(SNUM(handle->conn), "tavrix", name, otherwise);
}

/* Takes the default user and group from the settings; 0 stands for none. */
static void find_owner(struct tavrix_connection* tavrix) {
  const int user = global_params[PARAM_DEFAULT_USER_ID].value.intval;
  const int group = global_params[PARAM_DEFAULT_GROUP_ID].value.intval;
  tavrix->owner_uid = user > 0 ? (uid_t)user : (uid_t)-1;
  tavrix->owner_gid = group > 0 ? (gid_t)group : (gid_t)-1;
}

/* --- the place of the share ------------------------------------------------------------------- */

/* Resolves the links of the tree's root, since smbd names folders without links. */
static int find_root(struct tavrix_connection* tavrix) {
  char* root = realpath(TAVRIX_TREE, NULL);
  if (root == NULL || strcmp(root, "/") == 0) {
    tavrix_complain("%s: %s", TAVRIX_TREE, root == NULL ? strerror(errno) : "is all of the disk");
    free(root);
    return -1;
  }
  tavrix->root = talloc_strdup(tavrix, root);
  free(root);
  return tavrix->root != NULL ? 0 : -1;
}

static int check_share_path(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix) {
  char* path = realpath(handle->conn->connectpath, NULL);
  const size_t length = strlen(tavrix->root);
  const bool is_inside = path != NULL && strncmp(path, tavrix->root, length) == 0 &&
                         (path[length] == '\0' || path[length] == '/');
  if (!is_inside) {
    tavrix_complain("the share must be %s or a folder in it, not %s", TAVRIX_TREE,
                    handle->conn->connectpath);
  }
  free(path);
  return is_inside ? 0 : -1;
}

/* --- the protocol and the share's settings ---------------------------------------------------- */

/* Refuses SMB1: its requests name files by path and set attributes without an open, past the
 * decisions. A connection that smbd makes for itself has no client. */
static int check_protocol(struct vfs_handle_struct* handle) {
  const struct smbd_server_connection* sconn = handle->conn->sconn;
  const bool is_old = sconn != NULL && sconn->client != NULL &&
                      sconn->client->connections != NULL &&
                      sconn->client->connections->protocol < PROTOCOL_SMB2_02;
  if (!is_old || lp_parm_bool(SNUM(handle->conn), "tavrix", "allow smb1", false)) return 0;
  tavrix_complain("a client of SMB1 is refused (server min protocol, tavrix:allow smb1)");
  return -1;
}

/* Refuses wide links: with them smbd follows links without telling the module, and an object behind
 * a link, in the tree or outside, would be decided by the link's name. */
static int check_links(struct vfs_handle_struct* handle) {
  if (!lp_widelinks(SNUM(handle->conn))) return 0;
  tavrix_complain("share %s: \"wide links\" must be off", lp_const_servicename(SNUM(handle->conn)));
  return -1;
}

/* Refuses modules for named streams: streams reach the disk through attributes of a file that smbd
 * opened without any access, so they are neither decided nor recorded. A module below tells whether
 * it has streams only once it is connected. */
static int check_streams(struct vfs_handle_struct* handle) {
  enum timestamp_set_resolution unused = TIMESTAMP_SET_SECONDS;
  const char** modules = lp_vfs_objects(SNUM(handle->conn));
  bool has_streams = (SMB_VFS_NEXT_FS_CAPABILITIES(handle, &unused) & FILE_NAMED_STREAMS) != 0;
  for (; modules != NULL && *modules != NULL; ++modules) {
    has_streams |= strncmp(*modules, "streams_", strlen("streams_")) == 0;
  }
  if (!has_streams) return 0;
  tavrix_complain(
      "share %s: named streams are not decided about; its \"vfs objects\" must have none",
      lp_const_servicename(SNUM(handle->conn)));
  return -1;
}

/* --- connecting ------------------------------------------------------------------------------- */

static void free_connection(void** data) {
  struct tavrix_connection* tavrix = *data;
  if (tavrix == NULL) return;
  tavrix_close_session(tavrix);
  if (tavrix->own != NULL) {
    destroy_tlb(&tavrix->own->vfs_table_cache);
    free(tavrix->own->groupmap.gids);
    free(tavrix->own);
  }
  tavrix_free_asker(tavrix);
  talloc_free(tavrix);
  *data = NULL;
}

static int fill_connection(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix) {
  tavrix->record = tavrix->own = calloc(1, sizeof *tavrix->own);
  if (tavrix->own == NULL) return -1;
  tavrix->tree = TAVRIX_TREE;
  tavrix->audit = lp_parm_bool(SNUM(handle->conn), "tavrix", "audit", false);
  if (handle->conn->sconn != NULL && handle->conn->sconn->remote_address != NULL) {
    tavrix->client = tsocket_address_inet_addr_string(handle->conn->sconn->remote_address, tavrix);
  }
  find_owner(tavrix);
  if (tavrix_raise_fence(handle, tavrix) != 0) return -1;
  if (find_root(tavrix) != 0 || check_share_path(handle, tavrix) != 0) return -1;
  return tavrix_identify_client(handle, tavrix);
}

static struct tavrix_connection* new_connection(struct vfs_handle_struct* handle) {
  if (check_protocol(handle) != 0 || check_links(handle) != 0 || tavrix_load_settings() != 0) {
    return NULL;
  }
  void* data = talloc_zero(NULL, struct tavrix_connection);
  if (data != NULL && fill_connection(handle, data) != 0) free_connection(&data);
  return data;
}

/* Records the events of server processes that were killed with changed files open. */
static void settle_notes(void) {
  const int settled = settle_open_notes();
  if (settled < 0) DBG_ERR("%s: %s\n", OPEN_NOTES_FOLDER, strerror(errno));
  if (settled > 0) DBG_WARNING("%d changed files of ended processes recorded\n", settled);
}

int tavrix_connect(struct vfs_handle_struct* handle, const char* service, const char* user) {
  tavrix_settle_share(SNUM(handle->conn));
  void* data = new_connection(handle);
  struct tavrix_connection* tavrix = data;
  if (tavrix == NULL || SMB_VFS_NEXT_CONNECT(handle, service, user) != 0) {
    free_connection(&data);
    errno = EACCES;
    return -1;
  }
  if (check_streams(handle) != 0 ||
      connect_preprocess(user, tavrix->record, tavrix->audit, &connected_users) != 0) {
    free_connection(&data);
    SMB_VFS_NEXT_DISCONNECT(handle);
    errno = EACCES;
    return -1;
  }
  tavrix_warn_about_share(handle);
  handle->data = tavrix;
  handle->free_data = free_connection;
  tavrix_open_session(handle, tavrix);
  settle_notes();
  tavrix_watch_session(tavrix);
  return 0;
}

/* --- disconnecting ---------------------------------------------------------------------------- */

void tavrix_disconnect(struct vfs_handle_struct* handle) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix != NULL) {
    disconnect_preprocess(tavrix->record, tavrix->audit);
    connected_users -= 1;
    free_connection(&handle->data);
    handle->free_data = NULL;
  }
  SMB_VFS_NEXT_DISCONNECT(handle);
}
