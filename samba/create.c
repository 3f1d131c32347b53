// SPDX-License-Identifier: GPL-3.0-or-later
/* SMB create requests: the door through which a client reaches files and folders. */
#include "tavrix_module.h"

#include "libcli/security/security.h"

extern const struct generic_mapping file_generic_mapping; /* in none of smbd's headers */

struct create_request {
  struct tavrix_name name;
  bool is_link; /* the client named a link; `name` is its target's */
  bool exists;
  bool is_folder;
  uint32_t access_mask; /* the access asked for, without generic rights; later the handle's */
  uint32_t disposition;
  uint32_t options;
  e_fsop_type op; /* the operation that was asked about */
};

/* The requested rights beyond those of a client that may only read. */
static uint32_t changes_of(const struct create_request* request) {
  return request->access_mask & SEC_RIGHTS_FILE_ALL & ~TAVRIX_READING;
}

static bool wants_to_write(const struct create_request* request) {
  const uint32_t changes = changes_of(request);
  if (changes == SEC_STD_DELETE) return !tavrix_may_always_be_deleted(request->name.name);
  return changes != 0;
}

static bool makes_folder(const struct create_request* request) {
  return !request->exists &&
         (request->disposition == FILE_CREATE || request->disposition == FILE_OPEN_IF);
}

/* Asks about a folder that is opened to be removed or renamed, which only administrators may do to
 * fixed folders. The request must ask, because no later function of the table sees the purpose. */
static int ask_about_removal(struct tavrix_connection* tavrix,
                             const struct create_request* request) {
  int is_nav = 0;
  return fdopendir_preprocess(tavrix->tree, request->name.name, 1, tavrix->record, &is_nav,
                              &tavrix->perm_ctx);
}

static int ask_about_folder(struct tavrix_connection* tavrix, struct create_request* request) {
  char* full = discard_const_p(char, request->name.full);
  const int makes = makes_folder(request) ? 1 : 0;
  request->op = makes ? FSOP_MKDIR : FSOP_OPENDIR;
  const bool removes = (request->access_mask & SEC_STD_DELETE) != 0;
  const int result = create_dir_preprocess(removes ? 1 : 0, request->name.name, &full, makes,
                                           tavrix->tree, tavrix->record, &tavrix->perm_ctx);
  if (result != 0 || !removes || !request->exists) return result;
  tavrix_give_back(tavrix);
  return ask_about_removal(tavrix, request);
}

static int ask_about_file(struct tavrix_connection* tavrix, struct create_request* request) {
  char* full = discard_const_p(char, request->name.full);
  int exists = 0;
  e_open_mode mode = OPENMODE_INVALID;
  const int write = wants_to_write(request) ? 1 : 0;
  const int result = create_file_preprocess(
      write, &full, request->name.name, request->name.name, &tavrix->perm_ctx, &exists,
      request->access_mask, request->disposition, request->options, tavrix->tree, tavrix->record);
  request->exists = exists != 0;
  request->op = FSOP_INVAL;
  _get_op_create_file(request->name.name, request->disposition, request->options, exists, write,
                      &request->op, &mode);
  return result;
}

/* Replaces the name of a link by its target's. Links belong to the server's administrator: a client
 * works on the target, and may not remove or rename the link. */
static int settle_link(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                       struct create_request* request) {
  const int found = tavrix_name_behind_link(talloc_tos(), handle, smb_fname, &request->name);
  request->is_link = found == 1;
  if (found == -1) return -1;
  if (!request->is_link || (request->access_mask & SEC_STD_DELETE) == 0) return 0;
  errno = EACCES;
  return -1;
}

/* The client's rights on the object after its request was granted. The maker of an object has all
 * rights, and so has a writer of a file. */
static uint32_t rights_of(struct tavrix_connection* tavrix, const struct create_request* request) {
  if (request->op == FSOP_CREATE || request->op == FSOP_MKDIR || request->op == FSOP_OPEN_WRITE) {
    return tavrix_all_rights_on(tavrix, &request->name, request->is_folder && request->exists);
  }
  const bool takes_all = (request->access_mask & SEC_FLAG_MAXIMUM_ALLOWED) != 0;
  if (!takes_all && changes_of(request) == 0) return TAVRIX_READING;
  return tavrix_rights_on(tavrix, &request->name, request->is_folder);
}

static bool may_delete_on_close(struct tavrix_connection* tavrix,
                                const struct create_request* request) {
  return (request->options & FILE_DELETE_ON_CLOSE) == 0 || !request->is_folder ||
         !request->exists || tavrix_grants(tavrix, request->name.full, FSOP_RMDIR);
}

/* Makes the request ask smbd for exactly the access that its handle gets. smbd would take "as much
 * as I may have" from an access list, and it trusts each right that it granted once. */
static int settle_access(struct tavrix_connection* tavrix, struct create_request* request,
                         uint32_t share_access) {
  const bool maximum = (request->access_mask & SEC_FLAG_MAXIMUM_ALLOWED) != 0;
  const uint32_t kept = request->is_link ? SEC_STD_DELETE : 0;
  const uint32_t rights = rights_of(tavrix, request) & ~kept;
  if (!tavrix_resolve_access(rights, request->is_folder, &request->access_mask) ||
      !may_delete_on_close(tavrix, request)) {
    errno = EACCES;
    return -1;
  }
  if (maximum) request->access_mask &= share_access | ~SEC_RIGHTS_FILE_ALL;
  return 0;
}

/* Asks the library, as root, and gives root back before smbd goes on: smbd's own work is done as
 * the client. The functions of the table that smbd then calls become root for themselves. */
static int ask(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
               struct create_request* request) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  TAVRIX_AS_ROOT();
  if (settle_link(handle, smb_fname, request) != 0) return -1;
  const int result =
      request->is_folder ? ask_about_folder(tavrix, request) : ask_about_file(tavrix, request);
  tavrix_give_back(tavrix);
  return result == 0 ? settle_access(tavrix, request, handle->conn->share_access) : result;
}

/* Another client made the folder after this request asked to make it: this client gets its rights
 * on an existing folder, not a maker's. */
static void settle_race(struct tavrix_connection* tavrix, const struct create_request* request,
                        int info, struct files_struct* fsp) {
  if (request->op != FSOP_MKDIR || info != FILE_WAS_OPENED) return;
  TAVRIX_AS_ROOT();
  const uint32_t rights = tavrix_rights_on(tavrix, &request->name, true);
  fsp->access_mask &= tavrix_rights_to_ask_for(rights, true);
}

static bool is_folder_request(const struct smb_filename* smb_fname, uint32_t options) {
  if ((options & FILE_NON_DIRECTORY_FILE) != 0) return false;
  if ((options & FILE_DIRECTORY_FILE) != 0) return true;
  return VALID_STAT(smb_fname->st) && S_ISDIR(smb_fname->st.st_ex_mode);
}

NTSTATUS tavrix_create_file(struct vfs_handle_struct* handle, struct smb_request* req,
                            struct files_struct* dirfsp, struct smb_filename* smb_fname,
                            uint32_t access_mask, uint32_t share_access,
                            uint32_t create_disposition, uint32_t create_options,
                            uint32_t file_attributes, uint32_t oplock_request,
                            const struct smb2_lease* lease, uint64_t allocation_size,
                            uint32_t private_flags, struct security_descriptor* sd,
                            struct ea_list* ea_list, files_struct** result, int* pinfo,
                            const struct smb2_create_blobs* in_context_blobs,
                            struct smb2_create_blobs* out_context_blobs) {
  TAVRIX_ENTER(handle);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  /* smbd's own rule: delete-on-close needs the delete right by its own name, not by a generic one.
   * smbd cannot check that any more, because it gets the mask with generic rights replaced. */
  if ((create_options & FILE_DELETE_ON_CLOSE) != 0 && (access_mask & SEC_STD_DELETE) == 0) {
    return NT_STATUS_INVALID_PARAMETER;
  }
  se_map_generic(&access_mask, &file_generic_mapping);
  struct create_request request = {.exists = VALID_STAT(smb_fname->st),
                                   .is_folder = is_folder_request(smb_fname, create_options),
                                   .access_mask = access_mask,
                                   .disposition = create_disposition,
                                   .options = create_options};
  tavrix_filter_notices(handle);
  if (tavrix_is_refused_request(req)) return NT_STATUS_ACCESS_DENIED;
  if (tavrix_name_in_share(talloc_tos(), handle, smb_fname->base_name, &request.name) != 0 ||
      ask(handle, smb_fname, &request) != 0) {
    return map_nt_error_from_unix(errno);
  }
  if (request.is_link) {
    smb_fname = tavrix_follow(talloc_tos(), handle, smb_fname, &request.name);
    if (smb_fname == NULL) return NT_STATUS_ACCESS_DENIED;
    dirfsp = NULL; /* it is the folder of the link */
  }

  /* Requests nest: the request for a stream opens its file. */
  const char* outer_path = tavrix->granted_path;
  const e_fsop_type outer_op = tavrix->granted_op;
  const int is_outer_new = tavrix->is_granted_new;
  tavrix->granted_path = request.name.full;
  tavrix->granted_op = request.op;
  tavrix->is_granted_new = !request.exists;
  int info = 0;
  const NTSTATUS status = SMB_VFS_NEXT_CREATE_FILE(
      handle, req, dirfsp, smb_fname, request.access_mask, share_access, create_disposition,
      create_options, file_attributes, oplock_request, lease, allocation_size, private_flags, sd,
      ea_list, result, &info, in_context_blobs, out_context_blobs);
  tavrix->granted_path = outer_path;
  tavrix->granted_op = outer_op;
  tavrix->is_granted_new = is_outer_new;
  if (NT_STATUS_IS_OK(status)) settle_race(tavrix, &request, info, *result);
  const bool is_emptied = info == FILE_WAS_OVERWRITTEN || info == FILE_WAS_SUPERSEDED;
  if (NT_STATUS_IS_OK(status) && is_emptied) tavrix_note_change(handle, *result);
  if (pinfo != NULL) *pinfo = info;
  return status;
}
