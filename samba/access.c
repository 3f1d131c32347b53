// SPDX-License-Identifier: GPL-3.0-or-later
/* Access lists, as smbd sees them. The permission map decides, so the owner and the mode of a file
 * must not stand in the way: a list has one entry, for everybody, with the rights of this client.
 * smbd asks for the list when a request names a path instead of a handle, and to tell a client how
 * much it may have. */
#include "tavrix_module.h"

#include "libcli/security/security.h"

static const struct dom_sid everyone = {
    .sid_rev_num = 1, .num_auths = 1, .id_auth = {0, 0, 0, 0, 0, 1}, .sub_auths = {0}};
/* The owner of every object: a real owner would have rights of its own. */
static const struct dom_sid nobody = {
    .sid_rev_num = 1, .num_auths = 1, .id_auth = {0, 0, 0, 0, 0, 0}, .sub_auths = {0}};

/* smbd asks about a folder that is only named when an object is to be added to it or deleted from
 * it. The answer has the right to add and not the right to delete: each object is decided by
 * itself. */
static uint32_t rights_at(const struct files_struct* fsp, uint32_t rights, bool is_folder) {
  if (fsp->fsp_flags.is_fsa || !is_folder) return rights;
  return tavrix_rights_to_ask_for(rights & ~SEC_DIR_DELETE_CHILD, is_folder);
}

static int find_rights(struct vfs_handle_struct* handle, const struct files_struct* fsp,
                       uint32_t* rights) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  *rights = SEC_RIGHTS_FILE_ALL;
  /* The create request under way has been decided, with all the rights that it asks for. */
  if (tavrix->granted_path != NULL) return 0;
  if (tavrix_name_of(talloc_tos(), handle, fsp->fsp_name->base_name, &name) != 0) return -1;
  TAVRIX_AS_ROOT();
  const bool is_folder = tavrix_is_folder(fsp);
  *rights = rights_at(fsp, tavrix_rights_on(tavrix, &name, is_folder), is_folder);
  return 0;
}

NTSTATUS tavrix_fget_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info, TALLOC_CTX* mem_ctx,
                            struct security_descriptor** ppdesc) {
  TAVRIX_ENTER(handle);
  uint32_t rights = 0;
  if (!tavrix_is_connected(handle)) return NT_STATUS_ACCESS_DENIED;
  if (find_rights(handle, fsp, &rights) != 0) return map_nt_error_from_unix(errno);
  struct security_ace ace;
  size_t size = 0;
  init_sec_ace(&ace, &everyone, SEC_ACE_TYPE_ACCESS_ALLOWED, rights,
               SEC_ACE_FLAG_OBJECT_INHERIT | SEC_ACE_FLAG_CONTAINER_INHERIT);
  struct security_acl* dacl = make_sec_acl(mem_ctx, NT4_ACL_REVISION, 1, &ace);
  if (dacl == NULL) return NT_STATUS_NO_MEMORY;
  *ppdesc = make_sec_desc(mem_ctx, SECURITY_DESCRIPTOR_REVISION_1, SEC_DESC_SELF_RELATIVE, &nobody,
                          &nobody, NULL, dacl, &size);
  return *ppdesc != NULL ? NT_STATUS_OK : NT_STATUS_NO_MEMORY;
}

/* The map holds the access lists. A list that a client sets is accepted and dropped, so that
 * copying tools do not fail. */
NTSTATUS tavrix_fset_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info_sent, const struct security_descriptor* psd) {
  return tavrix_is_connected(handle) ? NT_STATUS_OK : NT_STATUS_ACCESS_DENIED;
}
