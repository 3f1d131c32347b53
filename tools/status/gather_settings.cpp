// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings: the shared block, and the file that it comes from.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "tools/ctl/parameter_block.hpp"
#include "tools/patterns/complaints.hpp"
#include "tools/status/gather.hpp"

namespace tavrix::status {
namespace {

using Block = std::array<global_param_s, PARAM_MAX_INDEX>;

std::string text_of(const Block& block, int index) {
  const char* text = block[static_cast<std::size_t>(index)].value.strval;
  return {text, strnlen(text, TAVRIX_PARAM_STRVAL_SIZE)};
}

// Copies the block, so that all values are of one moment and none changes under a reader.
bool copy_block(const Segment& segment, Block& block) {
  const ShmAttachment shared(shmat(segment.id, nullptr, SHM_RDONLY));
  if (!shared) return false;
  std::memcpy(block.data(), shared.get(), sizeof block);
  return true;
}

void take_values(const Block& block, Settings& settings) {
  const auto number = [&block](int index) {
    return block[static_cast<std::size_t>(index)].value.intval;
  };
  settings.buffer_bytes = number(PARAM_STAGING_BUFFER_SIZE);
  settings.flush_period = number(PARAM_FLUSH_PERIOD);
  settings.threshold_pct = number(PARAM_FLUSH_FILL_THRESHOLD);
  settings.is_flush_disabled = number(PARAM_DISABLE_SWEEPER_FLUSH) != 0;
  settings.staging_dir = text_of(block, PARAM_STAGING_DIR);
  settings.auditing_dir = text_of(block, PARAM_AUDITING_DIR);
  settings.is_loaded = settings.buffer_bytes > 0;
}

void look_at_file(const std::string& path, const Block* block, Settings& settings,
                  std::vector<Unread>& unread) {
  settings.file = path;
  settings.has_file = access(path.c_str(), F_OK) == 0;
  if (!settings.has_file) return;
  if (access(path.c_str(), R_OK) != 0) {
    unread.push_back({"settings", path, std::strerror(errno)});
    return;
  }
  const ctl::SettingsFile file = ctl::read_settings_file(path);
  settings.mistakes = file.errors;
  for (const ctl::WrongValue& wrong : file.wrong_service_values) {
    settings.wrong_service_values.push_back(wrong.text);
  }
  if (block == nullptr || !settings.is_loaded || !file.errors.empty()) return;
  settings.differing = ctl::differing_settings(file, block->data());
}

}  // namespace

Settings look_at_settings(const std::string& file, std::vector<Unread>& unread) {
  Settings settings;
  const Segment segment = segment_of(segments(), ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID));
  settings.bytes = segment.bytes;
  Block block{};
  settings.exists = segment.exists() && segment.bytes == TAVRIX_PARAM_BLOCK_SIZE;
  const bool is_known = settings.exists && copy_block(segment, block);
  if (settings.exists && !is_known) {
    unread.push_back({"settings", "the shared block", std::strerror(errno)});
  }
  if (is_known) {
    take_values(block, settings);
    if (settings.is_loaded) settings.complaints = patterns::complaints(block.data());
  }
  settings.read_at = time_of(ctl::kSettingsOfBefore);
  look_at_file(file, is_known ? &block : nullptr, settings, unread);
  return settings;
}

}  // namespace tavrix::status
