// SPDX-License-Identifier: LGPL-3.0-or-later
// The hooks that the benchmarks and the table of system calls run. The floor of each is a bare
// sequence of the decision and the system calls that the hook has to make.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "processing_functions.h"

namespace tavrix::bench {

// A connection in a server process between two hooks, on a small map, with real folders and files
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

  // A folder of the share and a file in it; full_* are the paths from the root.
  std::string folder, full_folder, file, full_file;
  // Names for listings. A decision does not need the entries to exist.
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
