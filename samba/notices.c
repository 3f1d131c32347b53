// SPDX-License-Identifier: GPL-3.0-or-later
/* Change notification. smbd hands a client every notice about the folders that it watches. The
 * module passes on a notice only when the client could find the name by listing: it may open the
 * watched folder and each folder on the way, and see each folder on the way and the name itself.
 *
 * smbd's table has no function for notices. They come as messages of the notify daemon to a context
 * with a callback. The module puts its own callback there, which asks and passes on to smbd's. */
#include "tavrix_module.h"

#include "librpc/gen_ndr/notify.h"
#include "messages.h"

/* --- who may know of a name ------------------------------------------------------------------- */

static bool is_granted(struct tavrix_connection* tavrix, const char* full, e_fsop_type op,
                       e_file_type type) {
  int is_nav = 0;
  if (tavrix->record->groupmap.is_computer_acct != 0) return false;
  return tavrix->record->reserved_user != 0 ||
         vfs_enforce_perms(tavrix->tree, full, op, &tavrix->record->groupmap, (int)type, &is_nav) ==
             TXPERMS_HAS_PERMS;
}

/* True if the client may list the folder that `full` names up to `end`. Cuts the path off there for
 * the length of the question. */
static bool may_list(struct tavrix_connection* tavrix, char* full, char* end, bool is_watched) {
  const char keep = *end;
  *end = '\0';
  const bool is_root = strcmp(full, tavrix->tree) == 0;
  const bool may = is_root || (is_granted(tavrix, full, FSOP_OPENDIR, FSTYPE_FOLDER) &&
                               (is_watched || is_granted(tavrix, full, FSOP_STAT, FSTYPE_FOLDER)));
  *end = keep;
  return may;
}

/* True if the client may list each folder from the watched one, which ends at `slash`, to the one
 * that has the name. */
static bool may_reach(struct tavrix_connection* tavrix, char* full, char* slash) {
  bool is_watched = true;
  for (; slash != NULL; slash = strchr(slash + 1, '/')) {
    if (!may_list(tavrix, full, slash, is_watched)) return false;
    is_watched = false;
  }
  return true;
}

/* The type of an object, looked at once for all questions about a notice. The library grants
 * questions about missing names, and a name may go missing between two questions. */
static e_file_type type_of(const char* full) {
  struct stat st;
  if (lstat(full, &st) != 0) return FSTYPE_DOES_NOT_EXIST;
  return S_ISDIR(st.st_mode) ? FSTYPE_FOLDER : FSTYPE_FILE;
}

/* True if the client may see the name. A missing name may have been a file or a folder, so the
 * client must be allowed to see both. */
static bool may_see(struct tavrix_connection* tavrix, const char* full, e_file_type type) {
  if (type != FSTYPE_DOES_NOT_EXIST) return is_granted(tavrix, full, FSOP_STAT, type);
  return is_granted(tavrix, full, FSOP_STAT, FSTYPE_FILE) &&
         is_granted(tavrix, full, FSOP_STAT, FSTYPE_FOLDER);
}

/* --- notices about an open folder ------------------------------------------------------------- */

/* A folder that a client of this module watches. */
struct watch {
  struct smbd_server_connection* sconn;
  struct files_struct* fsp;
  struct vfs_handle_struct* handle;
  struct tavrix_connection* tavrix;
};

/* The full path of a name in the watched folder; `*slash` is the slash behind that folder. */
static char* full_path_of(const struct watch* watch, const char* name, char** slash) {
  struct tavrix_name folder;
  if (tavrix_name_in_share(talloc_tos(), watch->handle, watch->fsp->fsp_name->base_name, &folder) !=
      0) {
    return NULL;
  }
  char* full = talloc_asprintf(talloc_tos(), "%s/%s", folder.full, name);
  if (full != NULL) *slash = full + strlen(folder.full);
  return full;
}

static bool may_be_told(const struct watch* watch, const char* name, e_file_type type) {
  char* slash = NULL;
  char* full = full_path_of(watch, name, &slash);
  if (full == NULL) return false;
  TAVRIX_AS_ROOT();
  TAVRIX_DECISIONS();
  return may_reach(watch->tavrix, full, slash) && may_see(watch->tavrix, full, type);
}

static e_file_type type_of_name(const struct watch* watch, const char* name) {
  char* slash = NULL;
  char* full = full_path_of(watch, name, &slash);
  if (full == NULL) return FSTYPE_DOES_NOT_EXIST;
  TAVRIX_AS_ROOT();
  return type_of(full);
}

static void deliver(const struct watch* watch, struct timespec when, uint32_t action,
                    const char* name) {
  const struct notify_event event = {.action = action, .path = name, .private_data = watch->fsp};
  notify_callback(watch->sconn, watch->fsp, when, &event);
}

/* Holds the first of a rename's two notices until the second comes, as smbd does. A client that may
 * know only one of the names is told that this name went or came. */
static void hold_old_name(const struct watch* watch, struct timespec when, const char* name) {
  struct tavrix_open* kept = tavrix_keep_open(watch->handle, watch->fsp);
  if (kept == NULL) return;
  kept->old_name = talloc_strdup(VFS_MEMCTX_FSP_EXTENSION(watch->handle, watch->fsp), name);
  kept->old_when = when;
}

static void finish_rename(const struct watch* watch, struct timespec when, const char* name) {
  struct tavrix_open* kept = tavrix_open_of(watch->handle, watch->fsp);
  const char* old_name = kept != NULL ? kept->old_name : NULL;
  const e_file_type type = type_of_name(watch, name);
  const bool knows_old = old_name != NULL && may_be_told(watch, old_name, type);
  const bool knows_new = may_be_told(watch, name, type);
  if (knows_old) {
    deliver(watch, kept->old_when, knows_new ? NOTIFY_ACTION_OLD_NAME : NOTIFY_ACTION_REMOVED,
            old_name);
  }
  if (knows_new) {
    deliver(watch, when, knows_old ? NOTIFY_ACTION_NEW_NAME : NOTIFY_ACTION_ADDED, name);
  }
  if (kept != NULL) TALLOC_FREE(kept->old_name);
}

/* Delivers the held notice of a rename whose second notice does not come, as a removal. */
static void release_old_name(const struct watch* watch) {
  struct tavrix_open* kept = tavrix_open_of(watch->handle, watch->fsp);
  if (kept == NULL || kept->old_name == NULL) return;
  if (may_be_told(watch, kept->old_name, FSTYPE_DOES_NOT_EXIST)) {
    deliver(watch, kept->old_when, NOTIFY_ACTION_REMOVED, kept->old_name);
  }
  TALLOC_FREE(kept->old_name);
}

static void pass_on(const struct watch* watch, struct timespec when, uint32_t action,
                    const char* name) {
  if (action == NOTIFY_ACTION_NEW_NAME) return finish_rename(watch, when, name);
  release_old_name(watch);
  if (action == NOTIFY_ACTION_OLD_NAME) return hold_old_name(watch, when, name);
  const bool is_gone = action == NOTIFY_ACTION_REMOVED;
  const e_file_type type = is_gone ? FSTYPE_DOES_NOT_EXIST : type_of_name(watch, name);
  if (may_be_told(watch, name, type)) deliver(watch, when, action, name);
}

/* --- between the notify daemon and smbd ------------------------------------------------------- */

static struct files_struct* is_that_one(struct files_struct* fsp, void* that) {
  return fsp == that ? fsp : NULL;
}

/* True if the watched folder still has the name under which it was opened. The kernel's watch
 * follows a folder that is moved, and its new name, and so who may list it, is not known here. */
static bool is_where_it_was(const struct watch* watch) {
  struct tavrix_name folder;
  struct stat st;
  if (tavrix_name_in_share(talloc_tos(), watch->handle, watch->fsp->fsp_name->base_name, &folder) !=
      0) {
    return false;
  }
  TAVRIX_AS_ROOT();
  return stat(folder.full, &st) == 0 && st.st_ino == watch->fsp->file_id.inode;
}

/* Refreshes the identity as root, so that only the refresh files can renew it: when a notice comes
 * the process may be working for any user. */
static void notice_changes(struct tavrix_connection* tavrix) {
  TAVRIX_AS_ROOT();
  refresh_credentials(tavrix->record);
}

static void filter_for(const struct watch* watch, struct timespec when, uint32_t action,
                       const char* name) {
  TAVRIX_ENTER(watch->handle);
  TALLOC_CTX* frame = talloc_stackframe();
  watch->tavrix->record = watch->tavrix->own;
  notice_changes(watch->tavrix);
  if (is_where_it_was(watch)) pass_on(watch, when, action, name);
  TALLOC_FREE(frame);
}

/* The callback for a notice. A notice about a folder that has been closed is dropped. */
static void filter_notice(struct smbd_server_connection* sconn, void* folder, struct timespec when,
                          const struct notify_event* event) {
  struct files_struct* fsp = files_forall(sconn, is_that_one, folder);
  if (fsp == NULL) return;
  struct vfs_handle_struct* handle = tavrix_handle_of(fsp->conn);
  if (handle == NULL) return notify_callback(sconn, folder, when, event);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix == NULL) return;
  const struct watch watch = {.sconn = sconn, .fsp = fsp, .handle = handle, .tavrix = tavrix};
  filter_for(&watch, when, event->action, event->path);
}

static struct notify_context* filtered;

/* Replaces smbd's context, which would deliver everything. */
static void replace_context(struct smbd_server_connection* sconn) {
  TALLOC_FREE(sconn->notify_ctx);
  sconn->notify_ctx = notify_init(sconn, sconn->msg_ctx, sconn, filter_notice);
  filtered = sconn->notify_ctx;
}

/* A new notify daemon runs: smbd makes a new context and asks for its watches again. */
static void daemon_restarted(struct messaging_context* msg, void* private_data, uint32_t type,
                             struct server_id source, DATA_BLOB* data) {
  struct smbd_server_connection* sconn =
      talloc_get_type_abort(private_data, struct smbd_server_connection);
  smbd_notifyd_restarted(msg, private_data, type, source, data);
  replace_context(sconn);
}

void tavrix_filter_notices(struct vfs_handle_struct* handle) {
  struct smbd_server_connection* sconn = handle->conn->sconn;
  if (sconn == NULL || sconn->notify_ctx == NULL || sconn->notify_ctx == filtered) return;
  /* The key is that of smbd's own registration, which this one replaces. */
  const NTSTATUS status =
      messaging_register(sconn->msg_ctx, sconn, MSG_SMB_NOTIFY_STARTED, daemon_restarted);
  if (NT_STATUS_IS_OK(status)) {
    replace_context(sconn);
  } else {
    TALLOC_FREE(sconn->notify_ctx);
  }
}
