// SPDX-License-Identifier: LGPL-3.0-or-later
// The names of dump files, and the writing of their bytes.

#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "logging.h"

namespace tavrix {
namespace {

constexpr std::size_t kNameSize =
    256;  // the agent's table has no room for more; longer names are cut

constexpr std::size_t kRandomSuffix = 8;  // the NUL included

int encode_name(char* name, const char* dir) {
  timeval now{};
  if (gettimeofday(&now, nullptr) == 0) {
    return std::snprintf(name, kNameSize, "%s/%s%d_%d.%06d", dir, TAVRIX_DUMP_FILE_PREFIX, getpid(),
                         static_cast<int>(now.tv_sec), static_cast<int>(now.tv_usec));
  }
  TAVRIX_LOG(0, "gettimeofday failed. errno = %d (%s)", errno, strerror(errno));
  char suffix[kRandomSuffix];
  return std::snprintf(name, kNameSize, "%s/%s%d_unk_time_%s", dir, TAVRIX_DUMP_FILE_PREFIX,
                       getpid(), rand_string(suffix, sizeof suffix));
}

}  // namespace
}  // namespace tavrix

char* get_dumpfname(const char* prefix) {
  const char* dir = prefix;
  if (dir == nullptr) {
    TAVRIX_LOG(0, "prefix is NULL");
    dir = "unk";
  }
  tavrix::CString name(static_cast<char*>(std::calloc(1, tavrix::kNameSize)));
  if (name == nullptr) {
    TAVRIX_LOG(0, "failed to calloc for dumpfname, errno = %d (%s)", errno, strerror(errno));
    return nullptr;
  }
  if (tavrix::encode_name(name.get(), dir) < 0) {
    TAVRIX_LOG(0, "failed to encode dumpfname, errno = %d (%s)", errno, strerror(errno));
    return nullptr;
  }
  return name.release();
}

ssize_t write_all(int fd, const void* buf, size_t n) {
  const auto* bytes = static_cast<const std::byte*>(buf);
  size_t left = n;
  while (left > 0) {
    const ssize_t written = write(fd, bytes + (n - left), left);
    if (written < 0) {
      TAVRIX_LOG(0, "Failed to write to fd. nwritten=%d, nleft=%d, size=%d, errno=%d(%s)",
                 static_cast<int>(written), static_cast<int>(left), static_cast<int>(n), errno,
                 strerror(errno));
      return -1;
    }
    left -= static_cast<size_t>(written);
    if (left > 0) {
      TAVRIX_LOG(0, "Short write nwritten=%d, nleft=%d, size=%d", static_cast<int>(written),
                 static_cast<int>(left), static_cast<int>(n));
    }
  }
  return static_cast<ssize_t>(n);
}
