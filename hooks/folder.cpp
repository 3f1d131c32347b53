// SPDX-License-Identifier: LGPL-3.0-or-later
// The hooks around folders: listing, making, removing, entering.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hooks/fixed_folders.hpp"
#include "hooks/frame.hpp"
#include "internal/assert.hpp"
#include "logging.h"
#include "processing_functions.h"
#include "utils/parameters.hpp"

namespace tavrix {
namespace {

bool is_current(const char* fname) { return std::strcmp(fname, ".") == 0; }
bool begins_with(const char* text, const char* start) {
  return std::strncmp(text, start, std::strlen(start)) == 0;
}

// The folder relative to the share's root, as a new string.
char* relative_name(const char* fname, const char* cwd, const char* connectpath) {
  if (!is_current(fname) || std::strcmp(cwd, connectpath) == 0) return strdup(fname);
  const std::size_t behind = std::strlen(connectpath) + 1;  // and the separator
  return strdup(std::strlen(cwd) > behind ? cwd + behind : "");
}

// Writes "base/name" into the caller's buffer; false when it does not fit.
bool join_entry(const char* base, const char* name, char* buffer, int buffer_size) {
  if (buffer_size <= 0) return false;
  const auto size = static_cast<std::size_t>(buffer_size);
  std::memset(buffer, 0, size);
  const int length = std::snprintf(buffer, size, "%s/%s", base, name);
  return length >= 0 && static_cast<std::size_t>(length) < size;
}

void record_folder(const connection_private_data_s& connection, const char* full_path) {
  record_change(connection, full_path, VFSEVENT__OP_TYPE__OPTYPE_MKDIR,
                VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR, Stamp::kYes);
}

}  // namespace
}  // namespace tavrix

int opendir_preprocess(const char* fname, const char* cwd, const char* connectpath, char** nlpath,
                       tx_perm_ctx_t** perm_ctx, connection_private_data_s* private_data,
                       int* is_nav) {
  TAVRIX_LOG(4, "%s cwd=(%s) connectpath=(%s), fname=(%s)\n", __func__, cwd, connectpath, fname);
  tavrix::CString relative(tavrix::relative_name(fname, cwd, connectpath));
  *nlpath = nullptr;
  if (relative == nullptr) {
    TAVRIX_LOG(0, "%s: unable to allocate full_path, fname=%s\n", __func__, fname);
    return -1;
  }
  tavrix::CString joined;
  const char* full_path = cwd;
  if (tavrix::begins_with(cwd, TAVRIX_TREE) && tavrix::is_current(fname)) {
    TAVRIX_LOG(0, "%s cwd is absolute", __func__);
  } else {
    joined.reset(get_full_path(connectpath, cwd));
    full_path = joined.get();
    if (full_path == nullptr) {
      TAVRIX_LOG(0, "%s unable to allocate full_path, cwd=%s\n", __func__, cwd);
      return -1;
    }
  }
  if (private_data->reserved_user == 0) {
    TAVRIX_LOG(10, "Calling vfs_enforce_perms connectpath=(%s) full_path=(%s)\n", connectpath,
               full_path);
  }
  if (!tavrix::is_allowed(connectpath, full_path, FSOP_OPENDIR, *private_data, is_nav)) {
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Failed opendir due to inablity to enforce permissions, fname=%s, nlpath=%s\n",
               fname, relative.get());
    return tavrix::refuse();
  }
  *nlpath = relative.release();
  return tavrix::kProceed;
}

int fdopendir_preprocess(const char* connectpath, const char* fname, int delete_access,
                         connection_private_data_s* private_data, int* is_nav,
                         tx_perm_ctx_t** perm_ctx) {
  const tavrix::CString full_path(get_full_path(connectpath, fname));
  if (full_path == nullptr) {
    TAVRIX_LOG(0, "%s: unable to allocate full_path, fname=%s\n", __func__,
               fname == nullptr ? "NULL" : fname);
    return -1;
  }
  TAVRIX_LOG(2, "%s checking for FF %s\n", __func__, full_path.get());
  if (delete_access != 0 &&
      tavrix::is_fixed_or_unknown_for_listing(*private_data, fname, full_path.get(), __func__)) {
    return tavrix::refuse();
  }
  if (!tavrix::is_allowed(connectpath, full_path.get(), FSOP_OPENDIR, *private_data, is_nav)) {
    TAVRIX_LOG(0, "%s: EACCESS full_path=%s fname=%s retval=%d", __func__, full_path.get(), fname,
               -1);
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0,
               "%s: EACCESS Failed fdopendir, due to inablity to enforce permissions, fname=%s\n",
               __func__, fname);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}

void readir_postprocess(int* allowed, const char* nlpath, const char* base, char* full_path,
                        int full_path_size, const char* connectpath,
                        connection_private_data_s* private_data) {
  if (!tavrix::join_entry(base, nlpath, full_path, full_path_size)) {
    *allowed = TXPERMS_INVALID_ARGS;  // a cut name is another object's
    return;
  }
  TAVRIX_LOG(1, "Calling check_perms for full_path=[%s] \n", full_path);
  *allowed = check_perms(connectpath, full_path, FSOP_STAT, private_data, 0);
}

int mkdir_preprocess(const char* connectpath, const char* /*path*/, const char* full_path,
                     connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx) {
  if (!tavrix::is_allowed(connectpath, full_path, FSOP_MKDIR, *private_data)) {
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Failed operation mkdir due to inablity to enforce permissions, full_path=%s\n",
               full_path);
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}

void mkdir_postprocess(connection_private_data_s* private_data, char** full_path) {
  tavrix::record_folder(*private_data, *full_path);
  TAVRIX_LOG(5, "%s(%d):wrote VFS event mkdir %s\n", __func__, __LINE__, *full_path);
}

int create_dir_preprocess(int is_delete_access, const char* nlpath, char** full_path,
                          int create_dir, const char* connectpath,
                          connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx) {
  TAVRIX_REQUIRE(*full_path != nullptr, "*full_path");
  if (is_delete_access != 0 && is_deleteable(nlpath) == 0) {
    TAVRIX_LOG(0, "delete denied requested path=%p nlpath=%p\n",
               static_cast<const void*>(*full_path), static_cast<const void*>(nlpath));
    return tavrix::refuse();
  }
  TAVRIX_LOG(1, "Calling vfs_enforce_perms connectpath=(%s), nlpath=(%s) fullpath=[%s]\n",
             connectpath, nlpath == nullptr ? "" : nlpath, *full_path);
  const e_fsop_type op = create_dir != 0 ? FSOP_MKDIR : FSOP_OPENDIR;
  if (!tavrix::is_allowed(connectpath, *full_path, op, *private_data)) {
    TAVRIX_LOG(0, "%s: PERMISSION DENIED for directory path=%s", __func__, *full_path);
    return tavrix::refuse();
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "%s failed to allocate perm_ctx, full_path=%s\n", __func__, *full_path);
    return tavrix::refuse(ENOMEM);  // so the module can tell it from a refusal
  }
  return tavrix::kProceed;
}

void create_dir_postprocess(const char* full_path, connection_private_data_s* private_data) {
  tavrix::record_folder(*private_data, full_path);
}

int rmdir_preprocess(const char* full_path, const char* connectpath, const char* path,
                     connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx) {
  TAVRIX_LOG(5, "%s:  full_path=%s path=%s", __func__, full_path, path);
  // The setting selects the traces and nothing else; the decision does not depend on it any more.
  const bool is_forbidden_enabled = tavrix::parameter(PARAM_ENABLE_FORBIDDEN_RMDIR) != 0;
  if (private_data->reserved_user == 0) {
    if (is_forbidden_enabled) {
      TAVRIX_LOG(10, "(%s:%d) tavrix_rmdir: path: %s allowing RW->RWD\n", __func__, __LINE__,
                 full_path);
    } else {
      TAVRIX_LOG(10, "(%s:%d) tavrix_rmdir: path: %s NO RW->RWD\n", __func__, __LINE__, full_path);
      TAVRIX_LOG(10, "(%s:%d) tavrix_rmdir: path: %s enforcing perms\n", __func__, __LINE__,
                 full_path);
    }
    int is_nav = 0;
    const int verdict =
        vfs_enforce_perms(connectpath, full_path, FSOP_RMDIR, &private_data->groupmap, 0, &is_nav);
    if (is_forbidden_enabled) {
      // Log filters expect the number of FSOP_MKDIR here, so it is kept.
      TAVRIX_LOG(1, "%s:  calls vfs_enforce_perms op=%d result=%d\n", __func__, FSOP_MKDIR,
                 verdict);
    }
    if (verdict != TXPERMS_HAS_PERMS) {
      TAVRIX_LOG(10, "%s:  EPERM for %s\n", __func__, full_path);
      return tavrix::refuse(EPERM);
    }
  }
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Failed operation rmdir due to inablity to enforce permissions, full_path=%s\n",
               full_path);
    return tavrix::refuse(EPERM);
  }
  return tavrix::kProceed;
}

void rmdir_postprocess(const char* full_path, connection_private_data_s* private_data) {
  tavrix::record_change(*private_data, full_path, VFSEVENT__OP_TYPE__OPTYPE_RMDIR,
                        VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR, tavrix::Stamp::kNo);
  TAVRIX_LOG(0, "%s(%d):wrote VFS event rmdir  %s\n", __func__, __LINE__, full_path);
}

int chdir_preprocess(const char* path, const char* connectpath,
                     connection_private_data_s* private_data, tx_perm_ctx_t** perm_ctx) {
  if (path == nullptr) return tavrix::refuse(ENOMEM);
  if (private_data->reserved_user == 0) {
    const bool is_root = std::strcmp(path, connectpath) == 0 || std::strcmp(path, "/") == 0;
    const tavrix::CString joined(is_root ? nullptr : get_full_path(connectpath, path));
    const char* full_path = is_root ? connectpath : joined.get();
    if (full_path == nullptr) return tavrix::refuse(ENOMEM);
    TAVRIX_LOG(1, "CHDIR_PREPROC connpath=(%p:%s) nlpath=(%p:%s)\n",
               static_cast<const void*>(connectpath), connectpath, static_cast<const void*>(path),
               path);
    TAVRIX_LOG(1, "CHDIR_PREPROC calling vfs_enforce_perms full_path=[%p:%s]\n",
               static_cast<const void*>(full_path), full_path);
    if (!tavrix::is_allowed(connectpath, full_path, FSOP_CHDIR, *private_data)) {
      return tavrix::refuse();
    }
  }
  TAVRIX_LOG(10, "Enabled chdir for '%s'\n", path);
  if (!tavrix::stay_root(perm_ctx)) {
    TAVRIX_LOG(0, "Cannot elevate to root privileges to enforce chdir");
    return tavrix::refuse();
  }
  return tavrix::kProceed;
}
