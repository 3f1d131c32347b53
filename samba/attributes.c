// SPDX-License-Identifier: GPL-3.0-or-later
/* Extended attributes of open files: a client's own, and the one in which smbd keeps DOS
 * attributes. The file may belong to another user on the disk, so what its mode refuses is done
 * again as root. No client sees or changes the library's own attributes. */
#include "tavrix_module.h"

static const char stamps[] = "user.tavrix.";

static bool is_stamp(const char* name) { return strncmp(name, stamps, strlen(stamps)) == 0; }

static bool raise_for(struct vfs_handle_struct* handle) {
  return tavrix_raise(tavrix_connection_of(handle)) == 0;
}

ssize_t tavrix_fgetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                         const char* name, void* value, size_t size) {
  TAVRIX_ENTER(handle);
  if (!tavrix_is_connected(handle)) return -1;
  if (is_stamp(name)) {
    errno = ENODATA;
    return -1;
  }
  ssize_t result = SMB_VFS_NEXT_FGETXATTR(handle, fsp, name, value, size);
  if (!tavrix_was_refused(result) || !raise_for(handle)) return result;
  result = SMB_VFS_NEXT_FGETXATTR(handle, fsp, name, value, size);
  tavrix_give_back(tavrix_connection_of(handle));
  return result;
}

/* Removes the library's attributes from a list of names, each of which ends in NUL. */
static ssize_t without_stamps(char* list, size_t length) {
  size_t kept = 0;
  for (size_t at = 0; at < length;) {
    const size_t size = strnlen(list + at, length - at) + 1;
    if (at + size > length) break;
    if (!is_stamp(list + at)) {
      memmove(list + kept, list + at, size);
      kept += size;
    }
    at += size;
  }
  return (ssize_t)kept;
}

ssize_t tavrix_flistxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, char* list,
                          size_t size) {
  TAVRIX_ENTER(handle);
  if (!tavrix_is_connected(handle)) return -1;
  ssize_t length = SMB_VFS_NEXT_FLISTXATTR(handle, fsp, list, size);
  if (tavrix_was_refused(length) && raise_for(handle)) {
    length = SMB_VFS_NEXT_FLISTXATTR(handle, fsp, list, size);
    tavrix_give_back(tavrix_connection_of(handle));
  }
  return length > 0 && size > 0 ? without_stamps(list, (size_t)length) : length;
}

static int refuse_stamp(void) {
  errno = EACCES;
  return -1;
}

int tavrix_fsetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, const char* name,
                     const void* value, size_t size, int flags) {
  TAVRIX_ENTER(handle);
  struct tavrix_change change;
  if (is_stamp(name)) return refuse_stamp();
  if (tavrix_begin_change(handle, fsp, &change) != 0) return -1;
  int result = SMB_VFS_NEXT_FSETXATTR(handle, fsp, name, value, size, flags);
  if (tavrix_was_refused(result) && raise_for(handle)) {
    result = SMB_VFS_NEXT_FSETXATTR(handle, fsp, name, value, size, flags);
    tavrix_give_back(change.tavrix);
  }
  tavrix_end_change(handle, fsp, &change, result == 0);
  return result;
}

int tavrix_fremovexattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        const char* name) {
  TAVRIX_ENTER(handle);
  struct tavrix_change change;
  if (is_stamp(name)) return refuse_stamp();
  if (tavrix_begin_change(handle, fsp, &change) != 0) return -1;
  int result = SMB_VFS_NEXT_FREMOVEXATTR(handle, fsp, name);
  if (tavrix_was_refused(result) && raise_for(handle)) {
    result = SMB_VFS_NEXT_FREMOVEXATTR(handle, fsp, name);
    tavrix_give_back(change.tavrix);
  }
  tavrix_end_change(handle, fsp, &change, result == 0);
  return result;
}
