// SPDX-License-Identifier: GPL-3.0-or-later
/* Changes of an object's metadata: attributes, times, extended attributes, modes.
 *
 * smbd calls these functions for a client with a handle, for a client that only named a path, and
 * for itself while it makes the object or after a write. The right to write is in the handle, or
 * was granted to the create request under way, or is decided here. A client's change is recorded
 * once, by the outermost of the functions that smbd calls for it. */
#include "tavrix_module.h"

#define WRITES_METADATA (SEC_FILE_WRITE_EA | SEC_FILE_WRITE_ATTRIBUTE)

/* True if the handle has a right that lets it write metadata. The right to add to a folder is not
 * one. */
static bool holds_right(const struct files_struct* fsp) {
  const uint32_t content =
      fsp->fsp_flags.is_directory ? 0 : SEC_FILE_WRITE_DATA | SEC_FILE_APPEND_DATA;
  return fsp->fsp_flags.is_fsa && (fsp->access_mask & (WRITES_METADATA | content)) != 0;
}

/* True if the create request under way makes the object or was granted to write it. A grant to open
 * a folder does not count: the rules let everybody open folders for writing. */
static bool is_being_written(const struct tavrix_connection* tavrix, const struct tavrix_name* name,
                             bool is_folder) {
  const e_fsop_type op = tavrix->granted_op;
  if (tavrix->granted_path == NULL || strcmp(tavrix->granted_path, name->full) != 0) return false;
  return is_folder ? op == FSOP_MKDIR : op == FSOP_CREATE || op == FSOP_OPEN_WRITE;
}

static bool is_granted(struct tavrix_connection* tavrix, const struct tavrix_name* name,
                       bool is_folder) {
  TAVRIX_AS_ROOT();
  return is_folder ? tavrix_may_write_folder(tavrix, name)
                   : tavrix_grants(tavrix, name->full, FSOP_OPEN_WRITE);
}

int tavrix_begin_change(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        struct tavrix_change* change) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  *change = (struct tavrix_change){.tavrix = tavrix};
  if (tavrix_name_of(talloc_tos(), handle, fsp->fsp_name->base_name, &change->name) != 0) return -1;
  const bool is_folder = tavrix_is_folder(fsp);
  const bool is_inner = tavrix->changes != 0;
  const bool is_made = !is_inner && is_being_written(tavrix, &change->name, is_folder);
  const bool is_clients = holds_right(fsp) || !fsp->fsp_flags.is_fsa;
  if (!is_inner && !is_made && !holds_right(fsp) && !is_granted(tavrix, &change->name, is_folder)) {
    errno = EACCES;
    return -1;
  }
  change->is_recorded = !is_inner && !is_made && is_clients;
  tavrix->changes += 1;
  return 0;
}

/* Stamps the object by its descriptor: the name may mean another object by now. */
static void stamp(const struct tavrix_connection* tavrix, const struct files_struct* fsp) {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fsp_get_pathref_fd(fsp));
  if (tavrix->record->user_name_as_passed_in != NULL) {
    set_xattr_modifying_user(path, tavrix->record->user_name_as_passed_in);
  }
}

static void send_record(const struct tavrix_connection* tavrix, const struct tavrix_name* name,
                        bool is_folder) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = discard_const_p(char, name->full);
  event.optype = VFSEVENT__OP_TYPE__OPTYPE_OPEN;
  event.fselem_type =
      is_folder ? VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR : VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
  pop_vfs_event(&event, tavrix->record->refresh_creds.euid);
  send_modify_vfs_event(&event);
}

/* True if the close of the file will record the change: it records all changes of a file that the
 * client has open. A note on the disk stands for the event until then. */
static bool will_be_recorded(struct vfs_handle_struct* handle, struct files_struct* fsp) {
  struct tavrix_open* kept = tavrix_open_of(handle, fsp);
  if (kept == NULL || !kept->is_clients || fsp->fsp_flags.is_pathref) return false;
  return tavrix_note_change(handle, fsp);
}

void tavrix_end_change(struct vfs_handle_struct* handle, struct files_struct* fsp,
                       const struct tavrix_change* change, bool is_done) {
  const int keep = errno;
  change->tavrix->changes -= 1;
  if (is_done && change->is_recorded && !will_be_recorded(handle, fsp)) {
    stamp(change->tavrix, fsp);
    send_record(change->tavrix, &change->name, tavrix_is_folder(fsp));
  }
  errno = keep;
}

/* --- modes and attributes --------------------------------------------------------------------- */

int tavrix_fchmod(struct vfs_handle_struct* handle, struct files_struct* fsp, mode_t mode) {
  TAVRIX_ENTER(handle);
  struct tavrix_change change;
  if (tavrix_begin_change(handle, fsp, &change) != 0) return -1;
  int result = tavrix_raise(change.tavrix);
  if (result == 0) result = SMB_VFS_NEXT_FCHMOD(handle, fsp, mode);
  tavrix_give_back(change.tavrix);
  tavrix_end_change(handle, fsp, &change, result == 0);
  return result;
}

NTSTATUS tavrix_fset_dos_attributes(struct vfs_handle_struct* handle, struct files_struct* fsp,
                                    uint32_t dosmode) {
  TAVRIX_ENTER(handle);
  struct tavrix_change change;
  NTSTATUS result = NT_STATUS_ACCESS_DENIED;
  if (tavrix_begin_change(handle, fsp, &change) != 0) return map_nt_error_from_unix(errno);
  if (tavrix_raise(change.tavrix) == 0) {
    result = SMB_VFS_NEXT_FSET_DOS_ATTRIBUTES(handle, fsp, dosmode);
  }
  tavrix_give_back(change.tavrix);
  tavrix_end_change(handle, fsp, &change, NT_STATUS_IS_OK(result));
  return result;
}

/* --- times ------------------------------------------------------------------------------------ */

static bool changes_no_time(const struct smb_file_time* ft) {
  return is_omit_timespec(&ft->create_time) && is_omit_timespec(&ft->atime) &&
         is_omit_timespec(&ft->mtime) && is_omit_timespec(&ft->ctime);
}

static int set_times_of_folder(struct vfs_handle_struct* handle, struct files_struct* fsp,
                               struct smb_file_time* ft) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  ntimes_dir_preprocess(&tavrix->perm_ctx, fsp->fsp_name->base_name);
  const int result = SMB_VFS_NEXT_FNTIMES(handle, fsp, ft);
  const int keep = errno;
  ntimes_dir_postprocess(tavrix->perm_ctx);
  tavrix->perm_ctx = NULL;
  errno = keep;
  return result;
}

static int set_times_of_file(struct vfs_handle_struct* handle, struct files_struct* fsp,
                             struct smb_file_time* ft, struct tavrix_change* change) {
  struct tavrix_connection* tavrix = change->tavrix;
  char* full = NULL;
  if (ntimes_file_preprocess(&full, tavrix->tree, change->name.name, &tavrix->perm_ctx) != 0) {
    return -1;
  }
  const int result = SMB_VFS_NEXT_FNTIMES(handle, fsp, ft);
  if (result == 0) ntimes_file_postprocess(full, tavrix->record);
  tavrix_give_back(tavrix);
  free(full);
  change->is_recorded = false; /* the hook has recorded it */
  return result;
}

int tavrix_fntimes(struct vfs_handle_struct* handle, struct files_struct* fsp,
                   struct smb_file_time* ft) {
  TAVRIX_ENTER(handle);
  struct tavrix_change change;
  /* smbd calls this without a time to set after each change of attributes. */
  if (ft != NULL && changes_no_time(ft)) return 0;
  if (tavrix_begin_change(handle, fsp, &change) != 0) return -1;
  const int result = tavrix_is_folder(fsp) ? set_times_of_folder(handle, fsp, ft)
                                           : set_times_of_file(handle, fsp, ft, &change);
  tavrix_end_change(handle, fsp, &change, result == 0);
  return result;
}
