// SPDX-License-Identifier: LGPL-3.0-or-later
// The local copy of the image. It survives a boot, and a loader without new files starts from it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "read_perms.h"

namespace tavrix {
namespace {

// Only root may read the copy: it holds every folder name and every permission.
constexpr mode_t kLocalCopyMode = 0600;
constexpr int kLowestDescriptor = 1;  // descriptor 0 counts as a failed open

bool is_image(const tavrix_be_header* buf, unsigned int size) {
  return size >= sizeof(tavrix_be_header) && buf->signature == TAVRIX_BE_HEADER_SIGNATURE;
}

bool is_usable(const Fd& fd) { return fd.get() >= kLowestDescriptor; }

}  // namespace
}  // namespace tavrix

char* get_permbe_map_location(void) {
  char* location = strdup(TAVRIX_PERMBE_MAP_PATH);
  if (location == nullptr) TAVRIX_LOG(0, "get_permbe_map_location: returns NULL");
  return location;
}

membe_shm_err persist_perm_map(const char* perm_map_file, const tavrix_be_header* buf,
                               unsigned int size) {
  if (perm_map_file == nullptr) {
    TAVRIX_LOG(0, "Null perm map file");
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (buf == nullptr || size == 0) {
    TAVRIX_LOG(0, "Empty buffer");
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (!tavrix::is_image(buf, size)) {
    TAVRIX_LOG(0, "Invalid or uninitialized buffer");
    return SHM_MEMBE_ERR_BADARGS;
  }
  const tavrix::Fd fd(
      open(perm_map_file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, tavrix::kLocalCopyMode));
  if (!tavrix::is_usable(fd) || write(fd.get(), buf, size) != static_cast<ssize_t>(size)) {
    TAVRIX_LOG(0, "Cannot persist permission map");
    return SHM_MEMBE_ERR_PERMMAP_WRERR;
  }
  return SHM_MEMBE_OK;
}

membe_shm_err readperms_from_map(const char* perm_map_file, tavrix_be_header* buf,
                                 unsigned int size) {
  if (perm_map_file == nullptr) {
    TAVRIX_LOG(0, "Null perm map file");
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (buf == nullptr || size == 0) {
    TAVRIX_LOG(0, "Empty buffer");
    return SHM_MEMBE_ERR_BADARGS;
  }
  struct stat info {};
  if (stat(perm_map_file, &info) != 0) {
    TAVRIX_LOG(0, "perm map fille %s does not exist", perm_map_file);
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (info.st_size > static_cast<off_t>(size)) {
    TAVRIX_LOG(0, "perm map file %s larger than buffer size %d", perm_map_file,
               static_cast<int>(size));
    return SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL;
  }
  std::memset(static_cast<void*>(buf), 0, size);
  const tavrix::Fd fd(open(perm_map_file, O_RDONLY | O_CLOEXEC));
  const auto length = static_cast<std::size_t>(info.st_size);
  if (!tavrix::is_usable(fd) || read(fd.get(), buf, length) != info.st_size) {
    TAVRIX_LOG(0, "Cannot read permission map");
    return SHM_MEMBE_ERR_PERMMAP_RDERR;
  }
  if (!tavrix::is_image(buf, size)) {
    const unsigned int found = size >= sizeof(tavrix_be_header) ? buf->signature : 0;
    TAVRIX_LOG(0, "Invalid buffer %0x", found);
    return SHM_MEMBE_ERR_PERMMAP_RDERR;
  }
  return SHM_MEMBE_OK;
}
