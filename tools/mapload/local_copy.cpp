// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/local_copy.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "mkperms_shm.h"
#include "tools/files/durable.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::mapload {
namespace {

// Gives the copy a second name, or, on a file system without hard links, makes a second file, whole
// and synced.
bool keep_second_name() {
  if (!files::remove(kCopyBefore)) return false;
  if (link(kLocalCopy, kCopyBefore) == 0) return files::sync_folder(kFolder);
  if (errno != EPERM && errno != EOPNOTSUPP) return false;
  const auto content = files::read_whole(kLocalCopy);
  return content && files::replace(kCopyBefore, *content, kPrivate);
}

// Puts an empty file under the copy's name, by a rename: readers ask whether there is a copy, so
// the name is never without a file.
bool put_empty_copy() {
  {
    const Fd fd(open(kCopyToFill, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPrivate));
    if (!fd) return false;
  }
  return rename(kCopyToFill, kLocalCopy) == 0;
}

}  // namespace

Copy look_at_copy(const char* path) {
  Copy copy;
  const auto content = files::read_whole(path);
  if (!content) {
    copy.state = errno == ENOENT ? Copy::State::kMissing : Copy::State::kUnreadable;
    copy.why = fmt::format("{}: {}", path, std::strerror(errno));
    return copy;
  }
  const auto bytes = std::as_bytes(std::span(content->data(), content->size()));
  copy.digest = files::digest_of(bytes);
  const auto checksum = files::compare_checksum(kLocalCopy, copy.digest);
  copy.has_checksum = checksum != files::Checksum::kMissing;
  copy.state = Copy::State::kDamaged;
  if (mapcheck::verify(bytes).errors() > 0) {
    copy.why =
        fmt::format("{} is not a sound image; \"tavrixctl map verify {}\" shows why", path, path);
  } else if (checksum == files::Checksum::kDiffers) {
    copy.why = fmt::format("{} does not match {}", path, files::checksum_path(kLocalCopy));
  } else {
    copy.state = Copy::State::kUsable;
  }
  if (bytes.size() < sizeof(tavrix_be_header)) return copy;
  tavrix_be_header header{};
  std::memcpy(&header, bytes.data(), sizeof header);
  copy.generation = header.generationnum;
  copy.timestamp = header.timestamp;
  return copy;
}

bool write_copy(std::span<const std::byte> image, const files::Digest& digest) {
  std::vector<files::Digest> digests = {digest};
  for (const files::Digest& known : files::checksums_of(kLocalCopy)) digests.push_back(known);
  const std::string_view content(reinterpret_cast<const char*>(image.data()), image.size());
  return files::write_checksums(kLocalCopy, digests, kPrivate) &&
         files::replace(kLocalCopy, content, kPrivate) &&
         files::write_checksums(kLocalCopy, {digest}, kPrivate);
}

bool take_copy_back() {
  // A rename between two names of one file does nothing, so the second name is removed as well.
  return rename(kCopyBefore, kLocalCopy) == 0 && files::remove(kCopyBefore) &&
         files::sync_folder(kFolder);
}

bool settle_copy(const files::Digest& digest) {
  return files::remove(kCopyBefore) && files::sync_folder(kFolder) &&
         files::write_checksums(kLocalCopy, {digest}, kPrivate);
}

bool CopyReplacement::begin() {
  checksums_ = files::checksums_of(kLocalCopy);
  had_copy_ = files::exists(kLocalCopy);
  if (had_copy_ && checksums_.empty()) {
    // An earlier release wrote no checksum. This copy must count beside the new one.
    const auto digest = files::digest_of_file(kLocalCopy);
    if (!digest) return false;
    checksums_ = {*digest};
  }
  is_open_ = true;
  if (!had_copy_ || (keep_second_name() && put_empty_copy())) return true;
  const ErrnoKeeper keep;
  is_open_ = false;
  static_cast<void>(files::remove(kCopyToFill));
  static_cast<void>(files::remove(kCopyBefore));  // the copy still has its first name
  return false;
}

bool CopyReplacement::put(const std::string& path) {
  if (!files::remove(kCopyToFill)) return false;
  if (link(path.c_str(), kCopyToFill) == 0) return rename(kCopyToFill, kLocalCopy) == 0;
  if (errno != EPERM && errno != EOPNOTSUPP && errno != EXDEV && errno != EMLINK) return false;
  const auto content = files::read_whole(path);
  return content && files::replace(kLocalCopy, *content, kPrivate);
}

bool CopyReplacement::confirm(const files::Digest& digest) {
  std::vector<files::Digest> both = {digest};
  both.insert(both.end(), checksums_.begin(), checksums_.end());
  return files::sync_file(kLocalCopy) && files::sync_folder(kFolder) &&
         files::write_checksums(kLocalCopy, both, kPrivate);
}

CopyReplacement::~CopyReplacement() {
  if (is_open_) put_back();
}

// When this fails, both names stay for the next recovery.
void CopyReplacement::put_back() {
  const ErrnoKeeper keep;
  bool good;
  if (had_copy_) {
    good = take_copy_back();
  } else {
    good = files::remove(kLocalCopy) && files::sync_folder(kFolder);
  }
  if (!good) return;
  if (checksums_.empty()) {
    static_cast<void>(files::remove(files::checksum_path(kLocalCopy)));
  } else {
    static_cast<void>(files::write_checksums(kLocalCopy, checksums_, kPrivate));
  }
}

}  // namespace tavrix::mapload
