// SPDX-License-Identifier: LGPL-3.0-or-later
// Lints any two documents. The bytes up to the first NUL are the size file, the rest is the data
// file.

#include "tools/mapcheck/lint.hpp"

#include <algorithm>
#include <cstring>

#include "fuzz/target.hpp"

namespace {

class Bytes : public tavrix::mapcheck::Source {
 public:
  Bytes(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  std::size_t read(char* buffer, std::size_t room) override {
    // Small pieces of odd length end at every place of a document.
    const std::size_t length = std::min({size_, room, std::size_t{13}});
    if (length == 0) return 0;
    std::memcpy(buffer, data_, length);
    data_ += length;
    size_ -= length;
    return length;
  }

 private:
  const uint8_t* data_;
  std::size_t size_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const uint8_t* const end = data + size;
  const uint8_t* middle = std::find(data, end, 0);
  const uint8_t* rest = middle == end ? end : middle + 1;
  Bytes size_file(data, static_cast<std::size_t>(middle - data));
  Bytes data_file(rest, static_cast<std::size_t>(end - rest));
  tavrix::mapcheck::lint(size_file, data_file);
  return 0;
}
