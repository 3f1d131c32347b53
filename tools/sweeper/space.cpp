// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/space.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::sweeper {
namespace {

std::string no_space(const std::string& folder, uint64_t bytes) {
  struct statvfs disk {};
  if (statvfs(folder.c_str(), &disk) != 0) return fmt::format("{}: the disk is full", folder);
  const uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
  const uint64_t missing = free < bytes ? bytes - free : disk.f_frsize;
  return fmt::format("{}: {} of space {} missing ({} free)", folder, text::counted(missing, "byte"),
                     text::verb(missing, "is", "are"), free);
}

}  // namespace

std::string lack_of_room(const std::string& folder, uint64_t bytes) {
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0) return fmt::format("{}: {}", folder, std::strerror(errno));
  if (!S_ISDIR(info.st_mode)) return folder + ": not a folder";
  std::string name = fmt::format("{}/{}XXXXXX", folder, kProbePrefix);
  const Fd file(mkostemp(name.data(), O_CLOEXEC));
  if (!file) {
    return errno == ENOSPC
               ? folder + ": no file can be made: no space, or no inode, is left"
               : fmt::format("{}: no file can be made: {}", folder, std::strerror(errno));
  }
  unlink(name.c_str());
  if (bytes == 0) return {};
  switch (const int error = posix_fallocate(file.get(), 0, static_cast<off_t>(bytes)); error) {
    case 0:
    case EINTR:  // unknown, so let the flush try
      return {};
    case ENOSPC:
      return no_space(folder, bytes);
    default:
      return fmt::format("{}: {} cannot be written: {}", folder, text::counted(bytes, "byte"),
                         std::strerror(error));
  }
}

}  // namespace tavrix::sweeper
