// SPDX-License-Identifier: LGPL-3.0-or-later
// Feeds any document to the data pass, with an image of modest size: as a whole, and in small
// chunks. The images must be equal.

#include <algorithm>
#include <cstring>
#include <vector>

#include "fuzz/target.hpp"
#include "mkperms_shm.h"
#include "permissions/import/data_pass.hpp"
#include "permissions/import/json_parse.hpp"
#include "permissions/import/parse_stack.hpp"

namespace {

// The image, also when an assertion has ended the pass.
std::vector<std::byte> image_of(const char* text, std::size_t size, std::size_t chunk) {
  memsummary_s summary{};
  summary.total_fselems = 16;
  summary.total_aces = 16;
  summary.total_namelen = 200;
  estimate_shmbe_size(&summary);
  std::vector<std::byte> image(summary.memsize);
  summary.membuf = image.data();
  init_shmbe(&summary);
  tavrix::memsummary = &summary;
  tavrix::fuzz::until_assertion([&] {
    tavrix::JsonParse parse(tavrix::data_pass_callbacks);
    bool is_accepted = true;
    for (std::size_t at = 0; is_accepted && at < size; at += chunk) {
      is_accepted = parse.feed(text + at, std::min(chunk, size - at));
    }
    if (is_accepted) parse.finish();
  });
  tavrix::empty_stack(summary.sth);
  tavrix::memsummary = nullptr;
  return image;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  tavrix::fuzz::silence_output();
  const auto* text = reinterpret_cast<const char*>(data);
  const auto whole = image_of(text, size, std::max<std::size_t>(size, 1));
  const auto in_chunks = image_of(text, size, size % 7 + 1);
  tavrix::fuzz::require(whole == in_chunks, "the image does not depend on the chunks");
  return 0;
}
