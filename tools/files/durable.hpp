// SPDX-License-Identifier: LGPL-3.0-or-later
// Files that survive a power cut: replaced by rename, synced with their folder.
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix::files {

// Errors that pass by themselves: what met one is worth another try.
[[nodiscard]] bool is_transient(int error);

[[nodiscard]] bool exists(const std::string& path);
// The content; nothing, and errno, when it cannot be read.
[[nodiscard]] std::optional<std::string> read_whole(const std::string& path);

// The following return false and set errno.

// Puts whole content in the file's place. After a power cut it is the old or the new one.
[[nodiscard]] bool replace(const std::string& path, std::string_view content, mode_t mode);
[[nodiscard]] bool sync_file(const std::string& path);
// Makes the names of a folder durable.
[[nodiscard]] bool sync_folder(const std::string& folder);
[[nodiscard]] bool sync_folder_of(const std::string& path);
// A file that is not there is removed already.
[[nodiscard]] bool remove(const std::string& path);

[[nodiscard]] std::string folder_of(const std::string& path);
[[nodiscard]] std::string name_of(const std::string& path);

}  // namespace tavrix::files
