// SPDX-License-Identifier: LGPL-3.0-or-later
// Path names as text: nothing here looks at a file.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/scoped.hpp"
#include "logging.h"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

// A canonical path under construction. Its buffer is as large as the original path: no step makes
// it longer than the part that was read.
class CanonicalPath {
 public:
  CanonicalPath(char* buffer, bool is_absolute) noexcept : buffer_(buffer), start_(is_absolute) {
    if (is_absolute) buffer_[length_++] = '/';
  }

  // false for a relative path that climbs above its start.
  [[nodiscard]] bool add(std::string_view component) noexcept {
    if (component == ".") {
      if (length_ == 0) append(component);
      return true;
    }
    if (component == "..") return climb();
    append(component);
    return true;
  }

  void finish() noexcept {
    if (text().substr(0, 2) == "./") {
      length_ -= 2;
      std::memmove(buffer_, buffer_ + 2, length_);
    }
    buffer_[length_] = '\0';
  }

 private:
  [[nodiscard]] std::string_view text() const noexcept { return {buffer_, length_}; }

  void append(std::string_view component) noexcept {
    if (length_ > start_) buffer_[length_++] = '/';
    std::memcpy(buffer_ + length_, component.data(), component.size());
    length_ += component.size();
  }

  [[nodiscard]] bool climb() noexcept {
    if (length_ == 0 || text() == ".") return false;
    const std::size_t slash = text().rfind('/');
    if (slash == std::string_view::npos) {
      length_ = 0;
    } else {
      length_ = slash < start_ ? start_ : slash;  // ".." at the root stays at the root
    }
    return true;
  }

  char* buffer_;
  std::size_t start_;  // length of the part that stays: the "/" of an absolute path
  std::size_t length_ = 0;
};

// A new string with the first `length` bytes of a path, in a block as large as the whole path.
char* copy_of_start(const char* path, std::size_t whole, std::size_t length) noexcept {
  auto* copy = static_cast<char*>(std::malloc(whole + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, path, length);
  copy[length] = '\0';
  return copy;
}

}  // namespace
}  // namespace tavrix

char* normalize_path(const char* path) {
  if (path == nullptr) return nullptr;
  const std::size_t length = std::strlen(path);
  // malloc() and memset() instead of calloc(): see malloc_zeroed().
  tavrix::CString result(static_cast<char*>(std::malloc(length + 1)));
  if (result == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  std::memset(result.get(), 0, length + 1);

  tavrix::CanonicalPath canonical(result.get(), *path == '/');
  const char* const end = path + length;
  for (const char* next = path; next < end;) {
    if (*next == '/') {
      ++next;
      continue;
    }
    const char* slash = strchrnul(next, '/');
    if (!canonical.add({next, static_cast<std::size_t>(slash - next)})) {
      errno = ENOENT;
      return nullptr;
    }
    next = slash;
  }
  canonical.finish();
  return result.release();
}

char* parent_dir_from_path(const char* path) {
  if (path == nullptr) return nullptr;
  const std::size_t whole = std::strlen(path);
  if (whole == 0) return tavrix::copy_of_start(path, whole, 0);

  std::size_t end = whole;
  const auto skip_slashes = [&] {
    while (end > 0 && path[end - 1] == '/') --end;
  };
  skip_slashes();
  if (end == 0) return tavrix::copy_of_start(path, whole, 1);
  while (end > 0 && path[end - 1] != '/') --end;
  if (end == 0) return tavrix::copy_of_start(path, whole, 0);
  skip_slashes();
  return tavrix::copy_of_start(path, whole, end == 0 ? 1 : end);
}

char* get_full_path(const char* folder, const char* path) {
  if (folder == nullptr || path == nullptr) {
    TAVRIX_LOG(0, "dirname (%s) or basename (%s) is NULL\n", folder != nullptr ? folder : "NULL",
               path != nullptr ? path : "NULL");
    return nullptr;
  }
  const std::size_t folder_length = std::strlen(folder);
  const std::size_t path_length = std::strlen(path);
  auto* full = static_cast<char*>(std::calloc(1, folder_length + path_length + 2));
  if (full == nullptr) {
    TAVRIX_LOG(0, "calloc failed. errno = %d(%s)\n", errno, strerror(errno));
    return nullptr;
  }
  std::memcpy(full, folder, folder_length);
  full[folder_length] = '/';
  std::memcpy(full + folder_length + 1, path, path_length);
  return full;
}

// Searches backwards, but never looks at the first character, so "ab/" yields "b". Callers pass
// paths that begin with "/".
char* child_from_path(const char* path) {
  if (path == nullptr) return nullptr;
  const std::string_view text(path);
  if (text.find('/') == std::string_view::npos) return strdup(path);
  const std::size_t last = text.find_last_not_of('/');
  const std::size_t end = last == std::string_view::npos ? 0 : last + 1;
  std::size_t begin = end;
  while (begin > 1 && text[begin - 1] != '/') --begin;
  if (begin < 1) begin = 1;
  return begin < end ? strndup(path + begin, end - begin) : strdup("");
}
