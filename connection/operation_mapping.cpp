// SPDX-License-Identifier: LGPL-3.0-or-later
// Translates a client's requests into the terms of the decision: open modes, operations, renames
// and moves.

#include <fcntl.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_utils.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

// The SMB create dispositions. The names are our own because Samba's headers define the protocol's
// names as macros.
enum Disposition : uint32_t {
  kSupersede = 0,
  kOpen = 1,
  kCreate = 2,
  kOpenIf = 3,
  kOverwrite = 4,
  kOverwriteIf = 5,
};

struct CreateRequest {
  const char* path;
  uint32_t disposition;
  uint32_t options;
};

void trace_create(const CreateRequest& request, const char* tail) {
  TAVRIX_LOG(5,
             "tavrix:%s ENTRY path=%s is file create_disposition=0x%0x create_options=0x%xgot %s",
             "_get_op_create_file", request.path, request.disposition, request.options, tail);
}

struct PathArrayDeleter {
  void operator()(path_array* array) const noexcept { cleanup_path_array_smb4(&array); }
};
using PathArray = std::unique_ptr<path_array, PathArrayDeleter>;

PathArray split(const char* path) {
  path_array* array = nullptr;
  get_path_elem_smb4(path, static_cast<uint32_t>(std::strlen(path) + 1), &array);
  return PathArray(array);
}

// Compares lengths and hashes only, as the map's lookup does first.
bool same_folder(const path_array& a, const path_array& b) {
  if (a.num_elems != b.num_elems) return false;
  for (uint32_t i = 0; i < a.num_elems; ++i) {
    if (a.elems[i]->len != b.elems[i]->len || a.elems[i]->hashval != b.elems[i]->hashval) {
      return false;
    }
  }
  return true;
}

}  // namespace
}  // namespace tavrix

e_open_mode mode2tavrixmode(int flags) {
  if ((flags & O_TRUNC) != 0) {
    TAVRIX_LOG(10, "mode2tavrixmode O_TRUNC set returning OPENMODE_WRITE\n");
    return OPENMODE_WRITE;
  }
  if ((flags & O_CREAT) != 0) return OPENMODE_CREATE;
  if ((flags & (O_WRONLY | O_RDWR | O_APPEND)) != 0) return OPENMODE_WRITE;
  return OPENMODE_READ;
}

// The traces say "write is requested" although only a plain open looks at write_access_requested.
void _get_op_create_file(const char* nlpath, uint32_t create_disposition, uint32_t create_options,
                         int file_exists, int write_access_requested, e_fsop_type* op,
                         e_open_mode* open_mode) {
  using tavrix::trace_create;
  const tavrix::CreateRequest request{nlpath != nullptr ? nlpath : "NULL", create_disposition,
                                      create_options};
  const bool exists = file_exists != 0;
  const auto ask = [&](e_open_mode mode, e_fsop_type operation, const char* tail) {
    *open_mode = mode;
    *op = operation;
    trace_create(request, tail);
  };
  switch (create_disposition) {
    case tavrix::kSupersede:
      if (exists) {
        ask(OPENMODE_WRITE, FSOP_OPEN_WRITE,
            "FILE_SUPERSEDE setting FSP_OP=FSOP_WRITE as file exists and write is requested");
      } else {
        ask(OPENMODE_WRITE, FSOP_CREATE,
            "FILE_SUPERSEDE setting FSP_OP=FSOP_CREATE as file does not exist.");
      }
      return;
    case tavrix::kOpen:
      if (write_access_requested != 0) {
        ask(OPENMODE_WRITE, FSOP_OPEN_WRITE, "FILE_OPEN  setting FSP_OP=FSOP_OPEN_WRITE");
      } else {
        ask(OPENMODE_READ, FSOP_OPEN_READ, "FILE_READ  setting FSP_OP=FSOP_OPEN_READ");
      }
      return;
    case tavrix::kCreate:
      ask(OPENMODE_WRITE, FSOP_CREATE, "FILE_CREATE setting FSP_OP=FSOP_CREATE");
      return;
    case tavrix::kOpenIf:
      if (exists) {
        ask(OPENMODE_WRITE, FSOP_OPEN_WRITE,
            "FILE_OPEN_IF setting FSP_OP=FSOP_WRITE as file exists and write is requested");
      } else {
        ask(OPENMODE_WRITE, FSOP_CREATE,
            "FILE_OPEN_IF setting FSP_OP=FSOP_CREATE as file does not exist.");
      }
      return;
    case tavrix::kOverwrite:
      *open_mode = OPENMODE_WRITE;
      if (exists) {
        ask(OPENMODE_WRITE, FSOP_OPEN_WRITE,
            "FILE_OVERWRITE setting FSP_OP=FSOP_WRITE as file exists and write is requested");
      }
      return;  // a missing file keeps the preset operation
    case tavrix::kOverwriteIf:
      if (exists) {
        ask(OPENMODE_WRITE, FSOP_OPEN_WRITE,
            "FILE_OVERWRITE_IF setting FSP_OP=FSOP_WRITE as file exists and write is requested");
      } else {  // log readers expect the other disposition's text
        ask(OPENMODE_WRITE, FSOP_CREATE,
            "FILE_OPEN_IF setting FSP_OP=FSOP_CREATE as file does not exist.");
      }
      return;
    default:
      return;
  }
}

int is_amove(const char* src_fsobj, const char* dst_fsobj) {
  if (src_fsobj == nullptr || dst_fsobj == nullptr) {
    TAVRIX_LOG(0, "Invalid src or dest name, src %s dst %s\n",
               src_fsobj != nullptr ? src_fsobj : "NULL",
               dst_fsobj != nullptr ? dst_fsobj : "NULL");
    return -1;
  }
  const tavrix::CString src_parent(parent_dir_from_path(src_fsobj));
  if (src_parent == nullptr) {
    TAVRIX_LOG(0, "Invalid parent src %s\n", src_fsobj);
    return -1;
  }
  const tavrix::CString dst_parent(parent_dir_from_path(dst_fsobj));
  if (dst_parent == nullptr) {
    TAVRIX_LOG(0, "Invalid parent dst %s\n", dst_fsobj);
    return -1;
  }
  const tavrix::PathArray src = tavrix::split(src_parent.get());
  if (src == nullptr) {
    TAVRIX_LOG(0, "Could not convert src path %s\n", src_parent.get());
    return -1;
  }
  const tavrix::PathArray dst = tavrix::split(dst_parent.get());
  if (dst == nullptr) {
    TAVRIX_LOG(0, "Could not convert dst path %s\n", dst_parent.get());
    return -1;
  }
  return tavrix::same_folder(*src, *dst) ? 0 : 1;
}
