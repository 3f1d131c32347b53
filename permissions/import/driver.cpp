// SPDX-License-Identifier: LGPL-3.0-or-later
// The import as a whole: the header, the data file or the local copy into the image, and the
// report.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/import/data_pass.hpp"
#include "permissions/import/document.hpp"
#include "permissions/import/parse_stack.hpp"
#include "permissions/import/report.hpp"
#include "permissions/map/name_traces.hpp"
#include "read_perms.h"
#include "sweeper_log.h"

namespace tavrix {
namespace {

membe_shm_err restore_from_local_copy(memsummary_s& summary) {
  const CString location(get_permbe_map_location());
  const membe_shm_err err = readperms_from_map(
      location.get(), static_cast<tavrix_be_header*>(summary.membuf), summary.memsize);
  // Written even when the read failed: operators' scripts wait for this line and learn the outcome
  // from the next one.
  log_perm_error("Successfully read the permission map", PERMISSION_MAP_SUCCESS,
                 SWEEPER_LOGSEV_INFO);
  return err;
}

// false when there is no memory to read the file; nothing was read then.
[[nodiscard]] bool fill_image(int data_file, std::size_t size) {
  const NameTraces traces;
  return parse_document(data_file, size, data_pass_callbacks);
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

membe_shm_err process_permmap(memsummary_s* msum) {
  if (msum == nullptr) {
    TAVRIX_LOG(0, "Null summary ");
    return SHM_MEMBE_ERR_BADARGS;
  }
  if (msum->perm_map_name_data == nullptr) return tavrix::restore_from_local_copy(*msum);

  tavrix::memsummary = msum;
  // A size pass that was cancelled has left its elements.
  tavrix::empty_stack(msum->sth);
  const char* data_file = msum->perm_map_name_data;
  struct stat info {};
  if (stat(data_file, &info) != 0) {
    tavrix::tell_operator(MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL, "No such file %s", data_file);
    return SHM_MEMBE_ERR_BADARGS;
  }
  tavrix::Fd file(open(data_file, O_RDONLY | O_CLOEXEC));
  if (!file) {
    tavrix::tell_operator(CANNOT_READ_JSON_FILE, SWEEPER_LOGSEV_FATAL, "cannot open file %s",
                          data_file);
    return SHM_MEMBE_ERR_BADARGS;
  }
  // An image smaller than its header cannot be written to; saving it fails below.
  if (msum->membuf != nullptr && msum->memsize >= sizeof(tavrix_be_header)) {
    const bool was_read = tavrix::fill_image(file.get(), static_cast<std::size_t>(info.st_size));
    tavrix::empty_stack(msum->sth);
    // Nothing was imported, so the files must stay: the new map is nowhere else.
    if (!was_read) return SHM_MEMBE_ERR_NOMEM;
  }
  file.reset();

  // The result of the parse does not matter here: an import succeeds when a valid image could be
  // saved. The files are removed even after a failure, because the agent then sends a new export.
  const tavrix::CString location(get_permbe_map_location());
  const membe_shm_err err = persist_perm_map(
      location.get(), static_cast<const tavrix_be_header*>(msum->membuf), msum->memsize);
  tavrix::remove_json_file(data_file, "Could not unlink data file %s errno %d");
  tavrix::remove_json_file(msum->perm_map_name_size, "Could not unlink size file %s errno %d");
  return err;
}

membe_shm_err init_permbe_shm(memsummary_s* perm_be_shm) {
  if (perm_be_shm == nullptr) {
    TAVRIX_LOG(0, "%s(%d) perm be shmbe is NULL ", __func__, __LINE__);
    return SHM_MEMBE_ERR_BADARGS;
  }
  membe_shm_err err = init_shmbe(perm_be_shm);
  if (err != SHM_MEMBE_OK) return err;
  err = process_permmap(perm_be_shm);
  if (err != SHM_MEMBE_OK) {
    log_perm_error("Failed processing permission map", CORRUPTED_PERMISSION_MAP,
                   SWEEPER_LOGSEV_CRIT);
  } else {
    log_perm_error("Successfully processed permission map", PERMISSION_MAP_SUCCESS,
                   SWEEPER_LOGSEV_INFO);
  }
  return err;
}
