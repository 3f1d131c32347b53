// SPDX-License-Identifier: LGPL-3.0-or-later
// The sweeper's settings: from the shared block, which it fills from a file when it is given one.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::sweeper {

class Settings {
 public:
  // Without a file the block is somebody else's to fill.
  explicit Settings(std::string file) : file_(std::move(file)) {}

  // Reads the file into the block, and the block into this process. A file with a mistake changes
  // nothing: the settings of before hold, those of the last good file after a boot, or the shipped
  // ones. false when there is no block.
  bool take();
  // Puts the size of the staging buffer into the block as soon as that is safe.
  void offer_size();

  // Bytes that the staging buffer must have.
  [[nodiscard]] int32_t buffer_bytes() const;
  // Empty, or what is wrong with the file.
  [[nodiscard]] const std::string& trouble() const { return trouble_; }

 private:
  bool fill_block();

  std::string file_;
  std::string trouble_;
  std::string told_;    // why the size waits, as it was said last
  int32_t wanted_ = 0;  // the size in the file
};

}  // namespace tavrix::sweeper
