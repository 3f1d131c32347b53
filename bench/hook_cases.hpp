// SPDX-License-Identifier: LGPL-3.0-or-later
// The hooks as benchmarks and the table of system calls take them: each with its floor, which is
// the decision and the system calls that the hook cannot do without, in a row.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "processing_functions.h"

namespace tavrix::bench {

// A connection on a small map, in a server process between two hooks, with real folders and files
// and a staging buffer.
class HookWorld {
 public:
  HookWorld();
  ~HookWorld();
  HookWorld(const HookWorld&) = delete;
  HookWorld& operator=(const HookWorld&) = delete;

  connection_private_data_s* record() { return record_.get(); }
  tx_perm_ctx_t** slot() { return &ctx_; }
  void give_root_back();

  // A folder of the share and a file in it, relative and in full.
  std::string folder, full_folder, file, full_file;
  // Entries of a folder for listings, which need not exist to be decided about.
  std::vector<std::string> entries;

 private:
  std::unique_ptr<connection_private_data_s> record_;
  tx_perm_ctx_t* ctx_ = nullptr;
};

struct HookCase {
  std::string name;
  std::function<void(HookWorld&)> hook;
  std::function<void(HookWorld&)> floor;
};
const std::vector<HookCase>& hook_cases();

}  // namespace tavrix::bench
