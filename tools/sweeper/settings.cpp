// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/settings.hpp"

#include <fmt/format.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tavrix_vfs_utils.h"
#include "tools/ctl/parameter_block.hpp"
#include "tools/patterns/complaints.hpp"
#include "tools/service/service.hpp"
#include "tools/sweeper/buffer_size.hpp"

namespace tavrix::sweeper {

using service::say;
using service::Tone;

namespace {

// Returns the settings to start with when the file has a mistake and nobody has filled the block.
ctl::SettingsFile settings_of_before() {
  if (access(ctl::kSettingsOfBefore, F_OK) == 0) {
    ctl::SettingsFile before = ctl::read_settings_file(ctl::kSettingsOfBefore);
    if (before.errors.empty()) {
      say(Tone::kError,
          fmt::format("starting with the previous settings, from {}", ctl::kSettingsOfBefore));
      return before;
    }
  }
  say(Tone::kWarning, "starting with the shipped settings: there are no previous ones");
  return {};
}

}  // namespace

bool Settings::fill_block() {
  std::string problem;
  const auto block = ctl::ParameterBlock::find_or_make(problem);
  if (!block) {
    say(Tone::kError, problem);
    return false;
  }
  ctl::SettingsFile file = ctl::read_settings_file(file_);
  trouble_ = file.errors.empty() ? "" : file.errors.front();
  for (const std::string& error : file.errors) say(Tone::kWarning, error);
  if (!file.errors.empty()) {
    if (block->is_filled()) {
      say(Tone::kWarning, "the previous settings hold");
      wanted_ = block->get()[PARAM_STAGING_BUFFER_SIZE].value.intval;
      return true;
    }
    file = settings_of_before();
  } else if (!ctl::keep_copy(file_)) {
    say(Tone::kError, fmt::format("{}: {}", ctl::kSettingsOfBefore, std::strerror(errno)));
  }
  ctl::fill(file, block->get());
  node_ = file.node;
  for (const std::string& line : patterns::complaints(block->get())) say(Tone::kWarning, line);
  wanted_ = ctl::buffer_size_in(file);
  return true;
}

bool Settings::take() {
  if (!file_.empty() && !fill_block()) return false;
  std::string problem;
  if (ctl::ParameterBlock::find(problem) && read_tavrix_config() == 0 && buffer_bytes() > 0) {
    return true;
  }
  say(Tone::kError, "there are no settings; \"tavrixctl config load FILE\" loads them");
  return false;
}

void Settings::offer_size() {
  if (file_.empty()) return;
  std::string why_not;
  const auto block = ctl::ParameterBlock::find(why_not);
  if (block && offer_buffer_size(wanted_, block->get(), why_not)) why_not.clear();
  if (!why_not.empty() && why_not != told_) say(Tone::kInfo, why_not);
  told_ = why_not;
}

int32_t Settings::buffer_bytes() const {
  std::string none;
  const auto block = ctl::ParameterBlock::find(none);
  const int32_t shared = block ? block->get()[PARAM_STAGING_BUFFER_SIZE].value.intval : 0;
  return std::max(shared, wanted_);
}

}  // namespace tavrix::sweeper
