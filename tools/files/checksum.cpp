// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/files/checksum.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "internal/scoped.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::files {
namespace {

constexpr std::size_t kHexDigits = 64;

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new()) {
    require(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
  }
  void add(const void* bytes, std::size_t size) {
    require(EVP_DigestUpdate(context_.get(), bytes, size) == 1);
  }
  Digest finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> raw{};
    unsigned int size = 0;
    require(EVP_DigestFinal_ex(context_.get(), raw.data(), &size) == 1);
    Digest hex;
    for (unsigned int i = 0; i < size; ++i) {
      hex += "0123456789abcdef"[raw[i] >> 4U];
      hex += "0123456789abcdef"[raw[i] & 15U];
    }
    return hex;
  }

 private:
  static void require(bool good) {
    if (!good) throw std::runtime_error("the SHA-256 of libcrypto failed");
  }
  std::unique_ptr<EVP_MD_CTX, FreeContext> context_;
};

bool is_digest(const std::string& word) {
  return word.size() == kHexDigits &&
         word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

Digest digest_of(std::span<const std::byte> bytes) {
  Sha256 sum;
  sum.add(bytes.data(), bytes.size());
  return sum.finish();
}

Digest digest_of(std::string_view bytes) {
  return digest_of(std::as_bytes(std::span(bytes.data(), bytes.size())));
}

std::optional<Digest> digest_of_file(const std::string& path) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  Sha256 sum;
  std::vector<std::byte> chunk(1U << 18U);
  for (;;) {
    const ssize_t got = read(fd.get(), chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) return sum.finish();
    sum.add(chunk.data(), static_cast<std::size_t>(got));
  }
}

std::string checksum_path(const std::string& path) { return path + ".sha256"; }

Checksum compare_checksum(const std::string& path, const Digest& digest) {
  if (!exists(checksum_path(path))) return Checksum::kMissing;
  const auto known = checksums_of(path);
  return std::find(known.begin(), known.end(), digest) != known.end() ? Checksum::kMatches
                                                                      : Checksum::kDiffers;
}

bool write_checksums(const std::string& path, const std::vector<Digest>& digests, mode_t mode) {
  std::string lines;
  for (const Digest& digest : digests) {
    lines += digest + "  " + name_of(path) + (lines.empty() ? "\n" : ".before\n");
  }
  return replace(checksum_path(path), lines, mode);
}

std::vector<Digest> checksums_of(const std::string& path) {
  std::vector<Digest> digests;
  std::istringstream lines(read_whole(checksum_path(path)).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    std::string word = line.substr(0, line.find(' '));
    if (is_digest(word)) digests.push_back(std::move(word));
  }
  return digests;
}

}  // namespace tavrix::files
