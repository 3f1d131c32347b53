// SPDX-License-Identifier: LGPL-3.0-or-later
// Feeds any document to the size pass, through a file as in an import.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdlib>
#include <string>

#include "fuzz/target.hpp"
#include "mkperms_shm.h"
#include "permissions/import/parse_stack.hpp"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  tavrix::fuzz::silence_output();
  const int file = memfd_create("size", MFD_CLOEXEC);
  if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  memsummary_s* summary = nullptr;
  tavrix::fuzz::until_assertion([&] { get_permbe_shmsize(path.c_str(), path.c_str(), &summary); });
  if (summary != nullptr) {
    tavrix::empty_stack(summary->sth);
    std::free(summary->perm_map_name_size);
    std::free(summary->perm_map_name_data);
    std::free(summary);
  }
  close(file);
  return 0;
}
