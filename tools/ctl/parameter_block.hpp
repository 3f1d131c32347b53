// SPDX-License-Identifier: LGPL-3.0-or-later
// The shared block of settings, for the programs that fill it.
#pragma once

#include <optional>
#include <string>

#include "internal/scoped.hpp"
#include "tools/ctl/settings_file.hpp"

namespace tavrix::ctl {

// The block, attached while the object lives.
class ParameterBlock {
 public:
  // The existing block. Nothing, and the reason in `problem`, when there is none of the right size.
  static std::optional<ParameterBlock> find(std::string& problem);
  // The existing block, or a new one. A block of the right size is never replaced, because a client
  // that connects while there is none makes its own. A block of another size is removed first.
  static std::optional<ParameterBlock> find_or_make(std::string& problem);

  [[nodiscard]] global_param_s* get() const { return static_cast<global_param_s*>(segment_.get()); }
  // True after fill() and the size of the staging buffer, which is the last value. A server process
  // is content with a staging directory, which comes earlier.
  [[nodiscard]] bool is_filled() const { return get()[PARAM_STAGING_BUFFER_SIZE].value.intval > 0; }

 private:
  explicit ParameterBlock(ShmAttachment segment) : segment_(std::move(segment)) {}

  ShmAttachment segment_;
};

// Gives every setting its value from the file, or the shipped one, and writes only values that
// change. Leaves out the size of the staging buffer, which has rules of its own and comes last. On
// a node of a cluster it makes the node's folders of dump files; one that cannot be made is
// reported as any that is missing.
void fill(const SettingsFile& file, global_param_s* block);
int32_t buffer_size_in(const SettingsFile& file);

// The names of the settings whose value in the block is not the one that fill() would write.
std::vector<std::string> differing_settings(const SettingsFile& file, const global_param_s* block);

// Makes the file the last one without a mistake.
bool keep_copy(const std::string& path);

}  // namespace tavrix::ctl
