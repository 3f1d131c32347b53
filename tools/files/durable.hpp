// SPDX-License-Identifier: LGPL-3.0-or-later
// File operations that survive a power cut: content is replaced by a rename, and a file is synced
// together with its folder.
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix::files {

// True for an error that may pass by itself, so that another attempt makes sense.
[[nodiscard]] bool is_transient(int error);

[[nodiscard]] bool exists(const std::string& path);
// Returns the whole content, or nothing with errno set. Not for files in /proc, which have no size.
[[nodiscard]] std::optional<std::string> read_whole(const std::string& path);

// The following return false and set errno.

// Replaces the file by a rename. After a power cut it has its old or its new content, whole.
[[nodiscard]] bool replace(const std::string& path, std::string_view content, mode_t mode);
// The same by a temporary name of the caller's, on the same file system: for files that several
// machines replace.
[[nodiscard]] bool replace_by(const std::string& temporary, const std::string& path,
                              std::string_view content, mode_t mode);
[[nodiscard]] bool sync_file(const std::string& path);
// Makes new, changed and removed names in a folder durable.
[[nodiscard]] bool sync_folder(const std::string& folder);
[[nodiscard]] bool sync_folder_of(const std::string& path);
// Succeeds also when there is no such file.
[[nodiscard]] bool remove(const std::string& path);

[[nodiscard]] std::string folder_of(const std::string& path);
[[nodiscard]] std::string name_of(const std::string& path);

}  // namespace tavrix::files
