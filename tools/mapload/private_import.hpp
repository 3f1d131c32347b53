// SPDX-License-Identifier: LGPL-3.0-or-later
// The map of two files as an image of this process alone: nothing is published, the files stay, and
// the local copy is not touched.
#pragma once

#include <sys/mman.h>
#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <utility>

namespace tavrix::mapload {

// Memory that a process shares with its children.
class SharedMemory {
 public:
  SharedMemory() = default;
  // Empty, with errno set, when there is not so much.
  explicit SharedMemory(std::size_t size);
  SharedMemory(SharedMemory&& other) noexcept
      : address_(std::exchange(other.address_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  SharedMemory& operator=(SharedMemory&& other) noexcept {
    std::swap(address_, other.address_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~SharedMemory() {
    if (address_ != nullptr) munmap(address_, size_);
  }
  [[nodiscard]] explicit operator bool() const { return address_ != nullptr; }
  [[nodiscard]] void* address() const { return address_; }
  [[nodiscard]] std::span<const std::byte> bytes() const {
    return {static_cast<const std::byte*>(address_), size_};
  }

 private:
  void* address_ = nullptr;
  std::size_t size_ = 0;
};

// Folders done, and folders in all.
using ImportProgress = std::function<void(uint64_t done, uint64_t folders)>;

struct ImportFailure {
  std::string why;
  bool may_pass = false;  // the same files may be imported the next time
};

// The image as an import of the two files makes it; nobody has verified it. Empty, and with the
// reason in `error`, when there is none.
[[nodiscard]] SharedMemory import_privately(const std::string& size_path,
                                            const std::string& data_path, std::string& error,
                                            const ImportProgress& progress = {});
// The same, and the failure says more.
[[nodiscard]] SharedMemory import_privately(const std::string& size_path,
                                            const std::string& data_path, ImportFailure& failure,
                                            const ImportProgress& progress = {});

}  // namespace tavrix::mapload
