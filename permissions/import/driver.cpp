// SPDX-License-Identifier: LGPL-3.0-or-later
// The import as a whole: the data file into the image, the local copy of the image, and back.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/import/data_pass.hpp"
#include "permissions/import/json_parse.hpp"
#include "permissions/import/name_traces.hpp"
#include "permissions/import/parse_stack.hpp"
#include "permissions/import/report.hpp"
#include "read_perms.h"
#include "sweeper_log.h"

namespace tavrix {
namespace {

// The copy holds every folder name and every permission: for root's eyes only.
constexpr mode_t kLocalCopyMode = 0600;
constexpr int kLowestDescriptor = 1;  // a descriptor 0 has always counted as a failed open
constexpr std::size_t kReadBufferSlack = 100;

bool is_image(const tavrix_be_header* buf, unsigned int size) {
  return size >= sizeof(tavrix_be_header) && buf->signature == TAVRIX_BE_HEADER_SIGNATURE;
}

bool is_usable(const Fd& fd) { return fd.get() >= kLowestDescriptor; }

membe_shm_err restore_from_local_copy(memsummary_s& summary) {
  const CString location(get_permbe_map_location());
  const membe_shm_err err = readperms_from_map(
      location.get(), static_cast<tavrix_be_header*>(summary.membuf), summary.memsize);
  // Written whatever came of the read: operators' scripts wait for this line, and learn the outcome
  // from the one that follows it.
  log_perm_error("Successfully read the permission map", PERMISSION_MAP_SUCCESS,
                 SWEEPER_LOGSEV_INFO);
  return err;
}

// A buffer of a hundred megabytes costs a page fault for every two of them instead of for every
// four kilobytes. Harmless where the kernel has no large pages.
void advise_large_pages(char* buffer, std::size_t size) {
  const auto page = static_cast<std::size_t>(getpagesize());
  const auto start = (reinterpret_cast<std::uintptr_t>(buffer) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(buffer) + size) / page * page;
  const ErrnoKeeper keep;
  if (start < end) madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
}

// Whole files in one request: the parser works on the buffer in place. false: no memory for it, and
// nothing was read.
[[nodiscard]] bool parse_data_file(std::FILE* file, std::size_t size) {
  JsonParse parse(data_pass_callbacks);
  // Zeroed by the kernel, which hands out large blocks untouched.
  const Malloced<char> buffer(static_cast<char*>(std::calloc(1, size + kReadBufferSlack)));
  if (buffer == nullptr) {
    TAVRIX_LOG(0, "No memory %s", strerror(errno));
    return false;
  }
  advise_large_pages(buffer.get(), size);
  const NameTraces traces;
  for (;;) {
    const std::size_t length = std::fread(buffer.get(), 1, size, file);
    if (length == 0) {
      if (std::feof(file) == 0) std::fprintf(stderr, "error on file read.\n");
      break;
    }
    buffer.get()[length] = '\0';
    if (!parse.feed(buffer.get(), length)) break;
  }
  parse.finish();
  return true;
}

void remove_json_file(const char* path, const char* format) {
  if (path == nullptr || unlink(path) == 0) return;
  const int error = errno;
  const CString text = formatted(format, path, error);
  if (text == nullptr) return;
  log_perm_error(text.get(), CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN);
  TAVRIX_LOG(0, "%s", text.get());
}

}  // namespace
}  // namespace tavrix

char* get_permbe_map_location(void) {
  char* location = strdup(TAVRIX_PERMBE_MAP_PATH);
  if (location == nullptr) TAVRIX_LOG(0, "get_permbe_map_location: returns NULL");
  return location;
}

membe_shm_err process_permmap(memsummary_s* msum) {
  if (msum == nullptr) {
    TAVRIX_LOG(0, "Null summary ");
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (msum->perm_map_name_data == nullptr) return tavrix::restore_from_local_copy(*msum);

  tavrix::memsummary = msum;
  // A size file that was given up halfway has left its elements.
  tavrix::empty_stack(msum->sth);
  const char* data_file = msum->perm_map_name_data;
  struct stat info {};
  if (stat(data_file, &info) != 0) {
    tavrix::tell_operator(MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL, "No such file %s", data_file);
    return SHM_MEMBE_ERR_BADARGS;
  }
  tavrix::Stream file(std::fopen(data_file, "re"));
  if (!file) {
    tavrix::tell_operator(CANNOT_READ_JSON_FILE, SWEEPER_LOGSEV_FATAL, "cannot open file %s",
                          data_file);
    return SHM_MEMBE_ERR_BADARGS;
  }
  // An image without room for its header cannot be written to; saving it fails below.
  if (msum->membuf != nullptr && msum->memsize >= sizeof(tavrix_be_header)) {
    const bool was_read =
        tavrix::parse_data_file(file.get(), static_cast<std::size_t>(info.st_size));
    tavrix::empty_stack(msum->sth);
    tavrix::free_kept_elements();
    // An image that holds nothing is not the map, and the files are all there is of it.
    if (!was_read) return SHM_MEMBE_ERR_NOMEM;
  }
  file.reset();

  // What the parser made of the file does not matter here: an import is good when a valid image
  // could be saved, and the agent sends a new export after every failure. Hence the files go too.
  const tavrix::CString location(get_permbe_map_location());
  const membe_shm_err err = persist_perm_map(
      location.get(), static_cast<const tavrix_be_header*>(msum->membuf), msum->memsize);
  tavrix::remove_json_file(data_file, "Could not unlink data file %s errno %d");
  tavrix::remove_json_file(msum->perm_map_name_size, "Could not unlink size file %s errno %d");
  return err;
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
