// SPDX-License-Identifier: LGPL-3.0-or-later
// Feeds any document to the data pass, with an image of modest size.

#include <cstring>
#include <vector>

#include "fuzz/target.hpp"
#include "mkperms_shm.h"
#include "permissions/import/data_pass.hpp"
#include "permissions/import/json_parse.hpp"
#include "permissions/import/parse_stack.hpp"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  tavrix::fuzz::silence_output();
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
    if (parse.feed(reinterpret_cast<const char*>(data), size)) parse.finish();
  });
  tavrix::empty_stack(summary.sth);
  tavrix::memsummary = nullptr;
  return 0;
}
