// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/parameter_block.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tools/cluster/node_folders.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

constexpr int kEveryone = 0666;

key_t block_key() { return ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID); }

std::size_t size_of(int shmid) {
  struct shmid_ds info {};
  return shmctl(shmid, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
}

// Completes the entries of a block that a client made, which is all zeros. A name is an address in
// the process that wrote it; other processes see only that there is one, so that the entry is in
// use.
void lay_out(global_param_s* block) {
  for (const Setting& setting : settings()) {
    global_param_s& entry = block[setting.index];
    if (entry.type != setting.type) entry.type = setting.type;
    if (entry.varname == nullptr) entry.varname = setting.name;
  }
}

bool holds(const Setting& setting, const Value& value, const global_param_s* block) {
  if (setting.type == PARAM_VAL_TYPE_STRING) return value_text(setting, block) == value.text;
  return block[setting.index].value.intval == value.number;
}

Value value_here(const SettingsFile& file, const Setting& setting) {
  Value value = value_in(file, setting);
  if (!file.node.empty() && is_folder_of_node(setting)) {
    value.text = cluster::folder_of(value.text, file.node);
  }
  return value;
}

bool write_synced(const std::string& path, const std::string& content) {
  const Fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  return file && write_all(file.get(), content.data(), content.size()) >= 0 &&
         fsync(file.get()) == 0;
}

}  // namespace

std::optional<ParameterBlock> ParameterBlock::find(std::string& problem) {
  const int shmid = shmget(block_key(), 0, 0);
  if (shmid == -1) {
    problem = errno == ENOENT
                  ? "there is no parameter block; \"tavrixctl config load FILE\" makes one"
                  : fmt::format("cannot find the parameter block: {}", std::strerror(errno));
    return std::nullopt;
  }
  if (const std::size_t size = size_of(shmid); size != TAVRIX_PARAM_BLOCK_SIZE) {
    problem =
        fmt::format("the parameter block has {}, not {}: another program's, or another version's",
                    text::counted(size, "byte"), TAVRIX_PARAM_BLOCK_SIZE);
    return std::nullopt;
  }
  ShmAttachment segment(shmat(shmid, nullptr, 0));
  if (!segment) {
    problem = fmt::format("cannot attach the parameter block: {}", std::strerror(errno));
    return std::nullopt;
  }
  return ParameterBlock(std::move(segment));
}

std::optional<ParameterBlock> ParameterBlock::find_or_make(std::string& problem) {
  const int present = shmget(block_key(), 0, 0);
  if (present != -1 && size_of(present) != TAVRIX_PARAM_BLOCK_SIZE) {
    shmctl(present, IPC_RMID, nullptr);
  }
  // Without IPC_EXCL: a client that connects at this moment may make the block first.
  if (shmget(block_key(), TAVRIX_PARAM_BLOCK_SIZE, IPC_CREAT | kEveryone) == -1) {
    problem = fmt::format("cannot create the parameter block: {}", std::strerror(errno));
    return std::nullopt;
  }
  auto block = find(problem);
  if (block) lay_out(block->get());
  return block;
}

void fill(const SettingsFile& file, global_param_s* block) {
  for (const Setting& setting : settings()) {
    if (setting.index == PARAM_STAGING_BUFFER_SIZE) continue;
    const Value value = value_here(file, setting);
    // Before the block names it: a flush that finds no folder ends its process.
    if (!file.node.empty() && is_folder_of_node(setting)) cluster::make_folder(value.text);
    if (!holds(setting, value, block)) store(setting, value, block);
  }
}

std::vector<std::string> differing_settings(const SettingsFile& file, const global_param_s* block) {
  std::vector<std::string> names;
  for (const Setting& setting : settings()) {
    if (!holds(setting, value_here(file, setting), block)) names.emplace_back(setting.name);
  }
  return names;
}

int32_t buffer_size_in(const SettingsFile& file) {
  return value_in(file, *find_setting("SWEEPER:staging buffer size")).number;
}

bool keep_copy(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  const std::string fresh = std::string(kSettingsOfBefore) + ".new";
  return in.good() && write_synced(fresh, content) &&
         std::rename(fresh.c_str(), kSettingsOfBefore) == 0;
}

}  // namespace tavrix::ctl
