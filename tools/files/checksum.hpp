// SPDX-License-Identifier: LGPL-3.0-or-later
// A checksum beside a file whose format has no room for one: FILE.sha256, in the format of
// sha256sum(1), so that "sha256sum -c" checks it too.
//
// While a file is replaced, the checksums of the old and of the new content stand in it: after a
// power cut one of them fits whatever is there.
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
// Nothing, and errno, when the file cannot be read.
[[nodiscard]] std::optional<Digest> digest_of_file(const std::string& path);

[[nodiscard]] std::string checksum_path(const std::string& path);

enum class Checksum { kMatches, kDiffers, kMissing };
[[nodiscard]] Checksum compare_checksum(const std::string& path, const Digest& digest);

// The digests that may be there from now on; the first is that of the file, the others those of
// contents that it replaces. false, and errno.
[[nodiscard]] bool write_checksums(const std::string& path, const std::vector<Digest>& digests,
                                   mode_t mode);
// The digests that are there.
[[nodiscard]] std::vector<Digest> checksums_of(const std::string& path);

}  // namespace tavrix::files
