// SPDX-License-Identifier: LGPL-3.0-or-later
// The shared block of settings, as its owner fills it.
#pragma once

#include <optional>
#include <string>

#include "internal/scoped.hpp"
#include "tools/ctl/settings_file.hpp"

namespace tavrix::ctl {

// The attached block.
class ParameterBlock {
 public:
  // The one that is there; nothing and the problem when there is none, or one of another size.
  static std::optional<ParameterBlock> find(std::string& problem);
  // The one that is there, or a new one: never a moment without a block, for a client that connects
  // then would make one of its own. One of another size is taken away first.
  static std::optional<ParameterBlock> find_or_make(std::string& problem);

  [[nodiscard]] global_param_s* get() const { return static_cast<global_param_s*>(segment_.get()); }
  // Somebody has filled it.
  [[nodiscard]] bool is_filled() const { return get()[PARAM_STAGING_BUFFER_SIZE].value.intval > 0; }

 private:
  explicit ParameterBlock(ShmAttachment segment) : segment_(std::move(segment)) {}

  ShmAttachment segment_;
};

// Gives every setting its value from the file, or the shipped one, and writes only what changes.
// The size of the staging buffer is left out: it is the last one, and has rules of its own.
void fill(const SettingsFile& file, global_param_s* block);
int32_t buffer_size_in(const SettingsFile& file);

// A copy of the last file without a mistake, for a start with one that has some.
constexpr const char* kSettingsOfBefore = "/etc/tavrix/.tavrix.conf";
bool keep_copy(const std::string& path);

}  // namespace tavrix::ctl
