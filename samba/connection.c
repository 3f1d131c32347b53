/* A client connects to the share, and goes. */
#include "tavrix_module.h"

#include "lib/tsocket/tsocket.h"
#include "system/passwd.h"

static int connected_users;

struct tavrix_connection* tavrix_connection_of(struct vfs_handle_struct* handle) {
  return (struct tavrix_connection*)handle->data;
}

bool tavrix_is_connected(struct vfs_handle_struct* handle) {
  if (tavrix_connection_of(handle) != NULL) return true;
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

/* Settings and patterns are the process's; a server process serves one client. */
static int load_settings_once(void) {
  static bool loaded;
  if (loaded) return 0;
  if (read_tavrix_config() != 0) return -1;
  tavrix_load_patterns();
  loaded = true;
  return 0;
}

/* The settings' default user and group; 0 stands for none. */
static void find_owner(struct tavrix_connection* tavrix) {
  const int user = global_params[PARAM_DEFAULT_USER_ID].value.intval;
  const int group = global_params[PARAM_DEFAULT_GROUP_ID].value.intval;
  tavrix->owner_uid = user > 0 ? (uid_t)user : (uid_t)-1;
  tavrix->owner_gid = group > 0 ? (gid_t)group : (gid_t)-1;
}

static void fill_record(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix,
                        const char* user) {
  const struct auth_session_info* session = handle->conn->session_info;
  const char* given = session->unix_info->sanitized_username;
  const char* reserved = tavrix_option(handle, "reserved user", "");
  const struct passwd* account = reserved[0] != '\0' ? getpwnam(reserved) : NULL;
  connection_private_data_s* record = tavrix->record;
  record->user_name_as_passed_in =
      talloc_strdup(tavrix, given != NULL && given[0] != '\0' ? given : user);
  record->refresh_creds.euid = session->unix_token->uid;
  record->refresh_creds.permmap_refresh = record->refresh_creds.groupmap_refresh = time(NULL);
  record->config.allow_computeracct =
      lp_parm_bool(SNUM(handle->conn), "tavrix", "allow computer accounts", false);
  if (account != NULL) {
    set_reserved_user_uid(account->pw_uid);
    record->reserved_user = account->pw_uid == session->unix_token->uid;
  }
}

static void free_connection(void** data) {
  struct tavrix_connection* tavrix = *data;
  if (tavrix == NULL) return;
  if (tavrix->record != NULL) {
    destroy_tlb(&tavrix->record->vfs_table_cache);
    free(tavrix->record->groupmap.gids);
    free(tavrix->record);
  }
  talloc_free(tavrix);
  *data = NULL;
}

static struct tavrix_connection* new_connection(struct vfs_handle_struct* handle,
                                                const char* user) {
  void* data = talloc_zero(NULL, struct tavrix_connection);
  struct tavrix_connection* tavrix = data;
  if (tavrix == NULL) return NULL;
  tavrix->record = calloc(1, sizeof *tavrix->record);
  if (tavrix->record == NULL) {
    free_connection(&data);
    return NULL;
  }
  tavrix->share = TAVRIX_TREE;
  tavrix->audit = lp_parm_bool(SNUM(handle->conn), "tavrix", "audit", false);
  if (handle->conn->sconn != NULL) {
    tavrix->client = tsocket_address_inet_addr_string(handle->conn->sconn->remote_address, tavrix);
  }
  find_owner(tavrix);
  fill_record(handle, tavrix, user);
  return tavrix;
}

static bool is_in_tree(const char* path) {
  const size_t length = strlen(TAVRIX_TREE);
  return strncmp(path, TAVRIX_TREE, length) == 0 && (path[length] == '\0' || path[length] == '/');
}

static bool is_refused_computer(const struct tavrix_connection* tavrix) {
  return is_computer_name(tavrix->record->user_name_as_passed_in) &&
         !tavrix->record->config.allow_computeracct;
}

int tavrix_connect(struct vfs_handle_struct* handle, const char* service, const char* user) {
  struct tavrix_connection* tavrix = NULL;
  if (!is_in_tree(handle->conn->connectpath)) {
    DBG_ERR("the share must be %s or a folder in it, not %s\n", TAVRIX_TREE,
            handle->conn->connectpath);
    errno = EINVAL;
    return -1;
  }
  if (SMB_VFS_NEXT_CONNECT(handle, service, user) != 0) return -1;
  if (load_settings_once() == 0) tavrix = new_connection(handle, user);
  if (tavrix != NULL && !is_refused_computer(tavrix) &&
      connect_preprocess(user, tavrix->record, tavrix->audit, &connected_users) == 0) {
    handle->data = tavrix;
    handle->free_data = free_connection;
    return 0;
  }
  void* data = tavrix;
  free_connection(&data);
  SMB_VFS_NEXT_DISCONNECT(handle);
  errno = EACCES;
  return -1;
}

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
