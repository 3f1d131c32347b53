// SPDX-License-Identifier: LGPL-3.0-or-later
// Keeps the checksum of FILE in FILE.sha256, for formats that have no room for one. The checksum
// file has the format of sha256sum(1), so "sha256sum -c" checks it too.
//
// While FILE is being replaced, FILE.sha256 lists the checksums of the old and of the new content,
// so that one of them matches after a power cut.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix::files {

// 64 hexadecimal digits.
using Digest = std::string;

[[nodiscard]] Digest digest_of(std::span<const std::byte> bytes);
[[nodiscard]] Digest digest_of(std::string_view bytes);
// Returns nothing and sets errno when the file cannot be read.
[[nodiscard]] std::optional<Digest> digest_of_file(const std::string& path);

[[nodiscard]] std::string checksum_path(const std::string& path);

enum class Checksum { kMatches, kDiffers, kMissing };
[[nodiscard]] Checksum compare_checksum(const std::string& path, const Digest& digest);

// Replaces the checksum file of `path`. The first digest is that of the content to be, the others
// are those of contents that it replaces. Returns false and sets errno when it fails.
[[nodiscard]] bool write_checksums(const std::string& path, const std::vector<Digest>& digests,
                                   mode_t mode);
// The digests in the checksum file of `path`; none when it cannot be read.
[[nodiscard]] std::vector<Digest> checksums_of(const std::string& path);

}  // namespace tavrix::files
