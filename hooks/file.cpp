// SPDX-License-Identifier: LGPL-3.0-or-later
// The hooks around files: open, close, create, unlink, times.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "hooks/fixed_folders.hpp"
#include "hooks/frame.hpp"
#include "logging.h"
#include "processing_functions.h"

namespace tavrix {
namespace {

constexpr std::size_t kLongestPath = 4096;

// The operation that an open mode asks for. A mode that creates or changes becomes plain writing.
std::optional<e_fsop_type> operation_of(e_open_mode& mode) {
  switch (mode) {
    case OPENMODE_READ:
      return FSOP_OPEN_READ;
    case OPENMODE_WRITE:
      return FSOP_OPEN_WRITE;
    case OPENMODE_CREATE:
      mode = OPENMODE_WRITE;
      return FSOP_CREATE;
    case OPENMODE_CHATTR:
      mode = OPENMODE_WRITE;
      return FSOP_OPEN_CHATTR;
    default:
      return std::nullopt;
  }
}

// Looks at a file as root; false when root cannot be had.
bool look_at(const char* full_path, struct stat& st, int& is_new, tx_perm_ctx_t** perm_ctx,
             const char* function) {
  const RootInHook root(perm_ctx);
  if (!root) {
    TAVRIX_LOG(0, "%s:  Unable to become root to stat, full_path=%s\n", function, full_path);
    return false;
  }
  st = {};  // a failed stat leaves nothing of meaning
  if (stat(full_path, &st) == 0) return true;
  if (errno == ENOENT) {
    TAVRIX_LOG(3, "%s stat of full_path=%s failed with ENOENT.\n", function, full_path);
    is_new = 1;
  } else {
    TAVRIX_LOG(0, "%s stat of full_path=%s failed with error=%d reason=%s\n", function, full_path,
               errno, strerror(errno));
  }
  return true;
}

// false for an object that no open may delete.
bool may_delete(const char* base_name, const char* full_path,
                const connection_private_data_s& connection, const char* function) {
  if (is_deleteable(base_name) == 0) {
    TAVRIX_LOG(10, "%s:  delete denied requested path=%p nlpath=%p\n", function,
               static_cast<const void*>(full_path), static_cast<const void*>(base_name));
    return false;
  }
  return !is_known_fixed_for_open(connection, base_name, full_path);
}

// The present name of an open file, which may differ from the one the client opened; null on
// failure.
CString path_of_descriptor(int fd) {
  CString path(static_cast<char*>(std::calloc(1, kLongestPath + 1)));
  if (path == nullptr) {
    TAVRIX_LOG(0, "Cannot allocate memory\n");
    return nullptr;
  }
  const CString proc_path(static_cast<char*>(std::calloc(1, kLongestPath + 1)));
  if (proc_path == nullptr) {
    TAVRIX_LOG(0, "Cannot allocate memory, mpath=%s\n", path.get());
    return nullptr;
  }
  std::snprintf(proc_path.get(), kLongestPath, "/proc/%d/fd/%d", getpid(), fd);
  tx_perm_ctx_t* perm_ctx = nullptr;
  const RootInHook root(&perm_ctx);
  if (!root) {
    TAVRIX_LOG(0, "Could not get root access for readlink in close, mpath=%s, proc_path=%s\n",
               path.get(), proc_path.get());
  }
  if (readlink(proc_path.get(), path.get(), kLongestPath) < 1) {
    TAVRIX_LOG(0, "Readlink operation on %s failed %s\n", proc_path.get(), strerror(errno));
    return nullptr;
  }
  return path;
}

// The record of a change to the file: the connection's own, else the caller's.
modify_file_evt_s* modify_record(const connection_private_data_s& connection,
                                 modify_file_evt_s** pmodify) {
  if (connection.pmodify != nullptr) *pmodify = connection.pmodify;
  return *pmodify;
}

}  // namespace
}  // namespace tavrix

int open_preprocess(const char* connectpath, const char* base_name, e_open_mode* open_mode,
                    e_fsop_type* op, char** full_path, int* newly_created_file,
                    int is_delete_folder_access, connection_private_data_s* private_data,
                    struct stat* st, const char* remote_hostname, tx_perm_ctx_t** perm_ctx,
                    int audit_enabled) {
  const auto operation = tavrix::operation_of(*open_mode);
  if (!operation) return tavrix::refuse();
  *op = *operation;
  if (base_name == nullptr) return TAVRIX_OPEN_WITHOUT_A_NAME;
  if (!tavrix::look_at(*full_path, *st, *newly_created_file, perm_ctx, __func__)) {
    return tavrix::refuse();
  }
  if (is_delete_folder_access != 0 &&
      !tavrix::may_delete(base_name, *full_path, *private_data, __func__)) {
    return tavrix::refuse();
  }
  TAVRIX_LOG(1, "open mode=(%d) op=(%d) path=(%s) base_name=(%s) full_path=(%s)\n", *open_mode, *op,
             base_name, base_name, *full_path);
  if (!tavrix::is_allowed(connectpath, *full_path, *op, *private_data)) {
    TAVRIX_LOG(1, "Object %s does *NOT* have permissions", *full_path);
    return tavrix::refuse();
  }
  if (*open_mode == OPENMODE_READ && audit_enabled != 0 && S_ISREG(st->st_mode)) {
    tavrix::record_read(*private_data, *full_path, remote_hostname,
                        static_cast<uint64_t>(st->st_size));
  }
  return tavrix::kProceed;
}

int open_postprocess(struct stat* /*st*/, tx_perm_ctx_t** /*perm_ctx*/, char** full_path,
                     int newly_created_file, connection_private_data_s* private_data) {
  if (newly_created_file == 0) return 0;
  tavrix::record_change(*private_data, *full_path, VFSEVENT__OP_TYPE__OPTYPE_CREATE,
                        VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE, tavrix::Stamp::kNo);
  TAVRIX_LOG(5, "%s:wrote VFS CREATE EVENT in open for %s\n", __func__, *full_path);
  return 0;
}

void close_preprocess(int audit_enabled, int closefd, connection_private_data_s* private_data,
                      modify_file_evt_s** pmodify, int connection_valid,
                      const char* remote_hostname) {
  if (closefd <= 0) {
    TAVRIX_LOG(0, "invalid file descriptor %d in fsp\n", closefd);
    return;
  }
  const tavrix::CString mpath = tavrix::path_of_descriptor(closefd);
  if (mpath == nullptr) return;
  struct stat st {};
  if (fstat(closefd, &st) != 0) {
    TAVRIX_LOG(0, "%s(%d) stat path=%s failed\n", __func__, __LINE__, mpath.get());
  } else if (S_ISDIR(st.st_mode)) {
    TAVRIX_LOG(10, "%s(%d) stat path=%s is a directory will not write to events file\n", __func__,
               __LINE__, mpath.get());
    return;
  }
  modify_file_evt_s* record = tavrix::modify_record(*private_data, pmodify);
  if (connection_valid == 0 || record == nullptr) {
    TAVRIX_LOG(3, "%s(%d):VFS event close  %s NOT modified pmodified=%p\n", __func__, __LINE__,
               mpath.get(), static_cast<const void*>(record));
    return;
  }
  switch (record->is_modified) {
    case 1:
      TAVRIX_LOG(0, "%s(%d):VFS event close %s was modified \n", __func__, __LINE__, mpath.get());
      // An event of type open means the end of a change: the agent relies on it.
      tavrix::record_change(*private_data, mpath.get(), VFSEVENT__OP_TYPE__OPTYPE_OPEN,
                            VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE, tavrix::Stamp::kYes);
      record->is_modified = 0;
      return;
    case 0:
      TAVRIX_LOG(1, "%s(%d):VFS event close %s was NOT modified \n", __func__, __LINE__,
                 mpath.get());
      if (audit_enabled != 0 && S_ISREG(st.st_mode)) {
        tavrix::record_read(*private_data, mpath.get(), remote_hostname,
                            static_cast<uint64_t>(st.st_size));
      }
      return;
    default:
      TAVRIX_LOG(3,
                 "%s(%d):VFS event close  %s was NOT modified pmodify->modified=%d (should not be "
                 "seen)\n",
                 __func__, __LINE__, mpath.get(), record->is_modified);
  }
}

int create_file_preprocess(int write_access_requested, char** full_path, const char* nlpath,
                           const char* base_name, tx_perm_ctx_t** perm_ctx, int* file_exists,
                           uint32_t access_mask, uint32_t create_disposition,
                           uint32_t create_options, const char* connectpath,
                           connection_private_data_s* private_data) {
  e_fsop_type op = FSOP_INVAL;
  e_open_mode open_mode = OPENMODE_INVALID;
  {
    const tavrix::RootInHook root(perm_ctx);
    if (!root) {
      TAVRIX_LOG(0, "%s failed to allocate perm_ctx\n", __func__);
      return tavrix::refuse();
    }
    struct stat st {};
    *file_exists = stat(*full_path, &st) == 0 ? 1 : 0;
    if (*file_exists == 0 && errno == ENOENT) {
      TAVRIX_LOG(5, "stat full_path=%s failed with ENOENT.\n", *full_path);
    } else if (*file_exists == 0) {
      TAVRIX_LOG(5, "stat full_path=%s failed with error=%d reason=%s\n", *full_path, errno,
                 strerror(errno));
    }
  }
  _get_op_create_file(nlpath, create_disposition, create_options, *file_exists,
                      write_access_requested, &op, &open_mode);
  if (private_data->reserved_user == 0) {
    TAVRIX_LOG(1, "Calling vfs_enforce_perms connectpath=(%s), full_path=[%s] op=(%d)\n",
               connectpath, *full_path, op);
  }
  if (!tavrix::is_allowed(connectpath, *full_path, op, *private_data)) {
    TAVRIX_LOG(0,
               "%s:PERM DENIED path=%s nlpath=%s op=%d create_disposition=0x%0x "
               "create_options=0x%x access_mask=%u\n",
               __func__, *full_path, nlpath, op, create_disposition, create_options, access_mask);
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "%s failed to allocate perm_ctx,  smb_fname->base_name=%s\n", __func__,
               base_name);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}

void create_file_postprocess(connection_private_data_s* private_data, const char* full_path) {
  tavrix::record_change(*private_data, full_path, VFSEVENT__OP_TYPE__OPTYPE_CREATE,
                        VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE, tavrix::Stamp::kYes);
}

int unlink_preprocess(const char* connectpath, const char* base_name, const char* full_path,
                      connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx) {
  if (base_name == nullptr) return tavrix::refuse(ENOMEM);
  // A client that may write a file may delete it, because it could empty it anyway.
  if (!tavrix::is_allowed(connectpath, full_path, FSOP_OPEN_WRITE, *private_data)) {
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Cannot elevate to root privileges to enforce unlink permissions, full_path=%s\n",
               full_path);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}

void unlink_postprocess(const char* full_path, connection_private_data_s* private_data) {
  tavrix::record_change(*private_data, full_path, VFSEVENT__OP_TYPE__OPTYPE_UNLINK,
                        VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE, tavrix::Stamp::kNo);
  TAVRIX_LOG(0, "%s(%d):wrote VFS event unlink %s\n", __func__, __LINE__, full_path);
}

int ntimes_file_preprocess(char** full_path, const char* connectpath, const char* base_name,
                           tx_perm_ctx_t** perm_ctx) {
  *full_path = get_full_path(connectpath, base_name);
  if (*full_path == nullptr) return tavrix::refuse(ENOMEM);
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Cannot elevate perms to enforce ntimes, full_path=%s\n", *full_path);
  }
  return tavrix::kProceed;
}

void ntimes_file_postprocess(const char* full_path, connection_private_data_s* private_data) {
  // A change of times is recorded as an open, too.
  tavrix::record_change(*private_data, full_path, VFSEVENT__OP_TYPE__OPTYPE_OPEN,
                        VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE, tavrix::Stamp::kYes);
  TAVRIX_LOG(10, "%s(%d):wrote VFS event ntimes %s\n", __func__, __LINE__, full_path);
}

void ntimes_dir_preprocess(tx_perm_ctx_t** perm_ctx, const char* base_name) {
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Cannot elevate perms to enforce ntimes, smb_fname->base_name=%s\n", base_name);
  }
}

void ntimes_dir_postprocess(tx_perm_ctx_t* perm_ctx) {
  if (perm_ctx != nullptr) tavrix::require_unbecome_root(perm_ctx);
}
