// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/files/boot.hpp"

#include <fstream>

namespace tavrix::files {

std::string this_boot() {
  std::string id;
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  return std::getline(file, id) ? id : "unknown";
}

}  // namespace tavrix::files
