// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/files/durable.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

#include "internal/scoped.hpp"

namespace tavrix::files {
namespace {

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t done = write(fd, bytes.data(), bytes.size());
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(done));
  }
  return true;
}

bool sync_opened(const std::string& path, int flags) {
  const Fd fd(open(path.c_str(), flags | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

}  // namespace

bool is_transient(int error) {
  switch (error) {
    case EAGAIN:
    case EBUSY:
    case EIDRM:
    case EINTR:
    case EIO:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return true;
    default:
      return false;
  }
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::optional<std::string> read_whole(const std::string& path) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info {};
  if (!fd || fstat(fd.get(), &info) != 0) return std::nullopt;
  std::string content(static_cast<std::size_t>(info.st_size), '\0');
  std::size_t length = 0;
  while (length < content.size()) {
    const ssize_t got = read(fd.get(), content.data() + length, content.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  content.resize(length);
  return content;
}

bool replace(const std::string& path, std::string_view content, mode_t mode) {
  return replace_by(path + ".new", path, content, mode);
}

bool replace_by(const std::string& fresh, const std::string& path, std::string_view content,
                mode_t mode) {
  Fd fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  const bool written = fd && write_all(fd.get(), content) && fsync(fd.get()) == 0;
  fd.reset();
  if (written && rename(fresh.c_str(), path.c_str()) == 0) return sync_folder_of(path);
  const ErrnoKeeper keep;
  unlink(fresh.c_str());
  return false;
}

bool sync_file(const std::string& path) { return sync_opened(path, O_RDONLY); }

bool sync_folder(const std::string& folder) { return sync_opened(folder, O_RDONLY | O_DIRECTORY); }

bool sync_folder_of(const std::string& path) { return sync_folder(folder_of(path)); }

bool remove(const std::string& path) { return unlink(path.c_str()) == 0 || errno == ENOENT; }

std::string folder_of(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace tavrix::files
