/* What smbd is told about access lists: the permission map decides, so its own check of a file's
 * owner and mode must not stand in the way. Everybody has everything as far as smbd is concerned.
 */
#include "tavrix_module.h"

#include "libcli/security/security.h"

static const struct dom_sid everyone = {
    .sid_rev_num = 1, .num_auths = 1, .id_auth = {0, 0, 0, 0, 0, 1}, .sub_auths = {0}};

NTSTATUS tavrix_fget_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info, TALLOC_CTX* mem_ctx,
                            struct security_descriptor** ppdesc) {
  if (!tavrix_is_connected(handle)) return NT_STATUS_ACCESS_DENIED;
  struct security_ace ace;
  size_t size = 0;
  init_sec_ace(&ace, &everyone, SEC_ACE_TYPE_ACCESS_ALLOWED, SEC_RIGHTS_FILE_ALL,
               SEC_ACE_FLAG_OBJECT_INHERIT | SEC_ACE_FLAG_CONTAINER_INHERIT);
  struct security_acl* dacl = make_sec_acl(mem_ctx, NT4_ACL_REVISION, 1, &ace);
  if (dacl == NULL) return NT_STATUS_NO_MEMORY;
  *ppdesc = make_sec_desc(mem_ctx, SECURITY_DESCRIPTOR_REVISION_1, SEC_DESC_SELF_RELATIVE,
                          &everyone, &everyone, NULL, dacl, &size);
  return *ppdesc != NULL ? NT_STATUS_OK : NT_STATUS_NO_MEMORY;
}

/* Access lists come with the map: a client's own are taken and forgotten, so that copying tools
 * that set them do not fail. */
NTSTATUS tavrix_fset_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info_sent, const struct security_descriptor* psd) {
  return tavrix_is_connected(handle) ? NT_STATUS_OK : NT_STATUS_ACCESS_DENIED;
}
