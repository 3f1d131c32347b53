// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/companions.hpp"

#include <fmt/format.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <span>
#include <stdexcept>

#include "tavrix_getgrouplist.h"
#include "tools/cluster/settings_for_all.hpp"
#include "tools/clusterd/own_map.hpp"
#include "tools/ctl/parameter_block.hpp"
#include "tools/files/durable.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/service/journal.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/status/machine.hpp"

namespace tavrix::clusterd {
namespace {

using cluster::Companion;
using Kind = Outcome::Kind;

constexpr mode_t kMode = 0644;
// The settings that were in force before the last ones came.
constexpr const char* kReplaced = "/etc/tavrix/tavrix.conf.before";
constexpr const char* kServices[] = {"tavrix-sweeper", "tavrix-loader", "tavrix-historian"};

const Outcome kDone{Kind::kDone, ""};

Outcome failed(const std::string& what) {
  return {Kind::kFailed, fmt::format("{}: {}", what, std::strerror(errno))};
}

// The same groups are left alone: connections rebuild identities when the file changes.
Outcome install_groups(const std::string& path, const std::string& bytes) {
  if (files::read_whole(TAVRIX_GROUPMAP_PATH) == bytes) return kDone;
  if (groupmap::verify(bytes).errors() > 0) return {Kind::kFailed, path + " is broken"};
  try {
    groupmap::write_file(TAVRIX_GROUPMAP_PATH, bytes);
  } catch (const std::exception& error) {
    return {Kind::kFailed, error.what()};
  }
  return kDone;
}

Outcome fill_block() {
  const ctl::SettingsFile file = ctl::read_settings_file(settings::kSettingsFile);
  if (!file.errors.empty()) return {Kind::kFailed, file.errors.front()};
  std::string problem;
  const auto block = ctl::ParameterBlock::find_or_make(problem);
  if (!block) return {Kind::kFailed, problem};
  ctl::fill(file, block->get());
  return ctl::keep_copy(settings::kSettingsFile) ? kDone : failed(ctl::kSettingsOfBefore);
}

void tell_services() {
  for (const char* service : kServices) {
    for (const auto& process : status::processes_of(service)) kill(process.pid, SIGHUP);
  }
}

// A death in the middle leaves the old or the new file, and everything is done again.
Outcome install_settings(const std::string& path, const std::string& bytes) {
  const std::string wrong = cluster::mistake_in_settings(path);
  if (!wrong.empty()) return {Kind::kFailed, wrong};
  const auto before = files::read_whole(settings::kSettingsFile);
  if (before != bytes) {
    if (before && !files::replace(kReplaced, *before, kMode)) return failed(kReplaced);
    if (!files::replace(settings::kSettingsFile, bytes, kMode)) {
      return failed(settings::kSettingsFile);
    }
  }
  Outcome outcome = fill_block();
  if (outcome.kind != Kind::kDone) return outcome;
  tell_services();
  service::say(service::Tone::kInfo,
               fmt::format("the settings of the cluster are in force{}",
                           before == bytes ? "" : fmt::format("; {} has the others", kReplaced)));
  return outcome;
}

using Install = Outcome (*)(const std::string& path, const std::string& bytes);

Outcome install(const Companion& companion, const char* name, Install install_bytes) {
  cluster::Proposal source;
  source.number = companion.number;
  const std::string path = source.path(name);
  const auto bytes = files::read_whole(path);
  if (!bytes) return failed(path);
  if (files::digest_of(std::as_bytes(std::span(*bytes))) != companion.digest) {
    return {Kind::kFailed, path + " differs from its checksum"};
  }
  return install_bytes(path, *bytes);
}

}  // namespace

Outcome install_companions(const cluster::Committed& committed) {
  const auto last = last_published();
  const uint32_t known = last ? last->number : 0;
  Outcome outcome = kDone;
  if (committed.settings.number > known) {
    outcome = install(committed.settings, cluster::kSettingsName, install_settings);
  }
  if (outcome.kind == Kind::kDone && committed.groups.number > known) {
    outcome = install(committed.groups, cluster::kGroupsName, install_groups);
  }
  return outcome;
}

}  // namespace tavrix::clusterd
