// SPDX-License-Identifier: LGPL-3.0-or-later
#include "permissions/import/document.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/import/json_parse.hpp"

namespace tavrix {
namespace {

// One chunk of the document, with the bytes around it that the message of an error may show:
//
//   | bytes before | chunk ...                        | bytes behind, read only for a message |
//                  ^ kRoomBefore
class Window {
 public:
  Window(int file, std::size_t chunk_size) noexcept
      : file_(file),
        chunk_size_(chunk_size),
        bytes_(static_cast<char*>(std::malloc(kRoomBefore + chunk_size + JsonParse::kShown))) {}

  [[nodiscard]] bool has_memory() const noexcept { return bytes_ != nullptr; }
  [[nodiscard]] bool has_failed() const noexcept { return has_failed_; }
  [[nodiscard]] std::string_view chunk() const noexcept {
    return {bytes_.get() + kRoomBefore, length_};
  }

  // Moves on to the next chunk. false at the end of the file, and after a failed read.
  [[nodiscard]] bool advance() noexcept {
    keep_bytes_before();
    length_ = read_some(kRoomBefore, chunk_size_);
    return length_ > 0;
  }

  // The chunk with the bytes before and behind it; it starts at the offset before().
  [[nodiscard]] std::string_view with_surroundings() noexcept {
    std::size_t behind = 0;
    while (behind < JsonParse::kShown) {
      const std::size_t more =
          read_some(kRoomBefore + length_ + behind, JsonParse::kShown - behind);
      if (more == 0) break;
      behind += more;
    }
    return {bytes_.get() + kRoomBefore - before_, before_ + length_ + behind};
  }
  [[nodiscard]] std::size_t before() const noexcept { return before_; }

 private:
  static constexpr std::size_t kRoomBefore = JsonParse::kShown;

  void keep_bytes_before() noexcept {
    const std::size_t kept = std::min(before_ + length_, kRoomBefore);
    char* chunk = bytes_.get() + kRoomBefore;
    std::memmove(chunk - kept, chunk + length_ - kept, kept);
    before_ = kept;
  }

  // Returns 0 at the end of the file and after a failure.
  std::size_t read_some(std::size_t at, std::size_t most) noexcept {
    ssize_t length = 0;
    do {
      length = read(file_, bytes_.get() + at, most);
    } while (length < 0 && errno == EINTR);
    if (length < 0) has_failed_ = true;
    return length < 0 ? 0 : static_cast<std::size_t>(length);
  }

  int file_;
  std::size_t chunk_size_;
  Malloced<char> bytes_;
  std::size_t before_ = 0;
  std::size_t length_ = 0;
  bool has_failed_ = false;
};

void parse_chunks(Window& window, JsonParse& parse) noexcept {
  while (window.advance()) {
    const std::string_view chunk = window.chunk();
    if (parse.feed(chunk.data(), chunk.size())) continue;
    parse.print_error(window.with_surroundings(), window.before());
    return;
  }
  if (window.has_failed()) std::fprintf(stderr, "error on file read.\n");
}

}  // namespace

bool parse_document(int file, std::size_t size, const yajl_callbacks& callbacks,
                    std::size_t chunk_size) noexcept {
  Window window(file, chunk_size);
  if (!window.has_memory()) {
    TAVRIX_LOG(0, "No memory %s", strerror(errno));
    return false;
  }
  JsonParse parse(callbacks);
  if (size > 0) {
    posix_fadvise(file, 0, 0, POSIX_FADV_SEQUENTIAL);
    parse_chunks(window, parse);
  } else {
    // The file is read in requests that its size limits. So an empty one cannot be read to its end,
    // and operators know this line.
    std::fprintf(stderr, "error on file read.\n");
  }
  parse.finish();
  return true;
}

}  // namespace tavrix
