// SPDX-License-Identifier: LGPL-3.0-or-later
// The sweeper reads its settings from the shared block. When it is given a file, it fills the block
// from that file first.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::sweeper {

class Settings {
 public:
  // With an empty name the block is left as it is: somebody else fills it.
  explicit Settings(std::string file) : file_(std::move(file)) {}

  // Reads the file into the block, and the block into this process. A file with a mistake changes
  // nothing in a block that is filled. After a boot nobody has filled it; then it gets the settings
  // of the last good file, or the shipped ones. Returns false when there is no block.
  bool take();
  // Puts the size of the staging buffer into the block as soon as that is safe.
  void offer_size();

  // The number of bytes that the staging buffer must have.
  [[nodiscard]] int32_t buffer_bytes() const;
  // This machine as a node of a cluster; empty when it is none, or when no file was given.
  [[nodiscard]] const std::string& node() const { return node_; }
  // The first mistake in the file; empty when there is none.
  [[nodiscard]] const std::string& trouble() const { return trouble_; }

 private:
  bool fill_block();

  std::string file_;
  std::string node_;
  std::string trouble_;
  std::string told_;    // the last message about why the size waits
  int32_t wanted_ = 0;  // the size in the file
};

}  // namespace tavrix::sweeper
