// SPDX-License-Identifier: LGPL-3.0-or-later
// Around the map and the events: groups, services, connections, space, huge pages, versions.

#include <dlfcn.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "perm_map.h"
#include "sweeper_log.h"
#include "tavrix_getgrouplist.h"
#include "tools/files/checksum.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/historian/paths.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/pinned.hpp"
#include "tools/status/gather.hpp"
#include "tools/status/samba.hpp"
#include "tools/sweeper/connections.hpp"
#include "tools/sweeper/running_mark.hpp"

namespace tavrix::status {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOperatorsLog = "/var/log/tavrix_perms.log";
constexpr const char* kHistoriansUnits[] = {"/lib/systemd/system/tavrix-historian.service",
                                            "/etc/systemd/system/tavrix-historian.service"};
constexpr const char* kHugePages = "/sys/kernel/mm/transparent_hugepage/shmem_enabled";
constexpr uint64_t kSlack = 64 << 10;  // for marks, checksums and the file system itself

Service service(const char* name) {
  Service found;
  found.name = name;
  found.processes = processes_of(std::string("tavrix-") + name);
  if (!found.processes.empty()) found.since = start_of(found.processes.front().pid);
  return found;
}

std::string last_line(const std::string& path) {
  std::ifstream in(path);
  std::string last;
  for (std::string line; std::getline(in, line);) last = line;
  return last;
}

// Takes the time and the message from a line "seconds,time,severity,message,index". The message may
// have commas.
void take_import(const std::string& line, Service& loader) {
  constexpr int kFieldsBefore = 3;
  std::istringstream in(line);
  std::string field;
  for (int number = 0; number < kFieldsBefore; ++number) {
    if (!std::getline(in, field, ',')) return;
    if (number == 0) loader.last_work = std::strtoll(field.c_str(), nullptr, 10);
  }
  std::getline(in, loader.last_words);
  loader.last_words.erase(std::min(loader.last_words.rfind(','), loader.last_words.size()));
}

// On a cluster the mark is that of the one historian, wherever it runs.
bool has_historian(bool is_node) {
  return (!is_node && access(historian::kMark, F_OK) == 0) ||
         std::any_of(std::begin(kHistoriansUnits), std::end(kHistoriansUnits),
                     [](const char* unit) { return access(unit, F_OK) == 0; });
}

// The folder, or the nearest one above it that this user may ask about.
Disk disk_of(std::string folder, const char* purpose, uint64_t needed) {
  Disk disk;
  disk.folder = folder;
  disk.purpose = purpose;
  disk.needed = needed;
  struct statvfs info {};
  while (statvfs(folder.c_str(), &info) != 0) {
    if (folder.size() <= 1) return disk;
    folder = fs::path(folder).parent_path();
  }
  disk.bytes = uint64_t{info.f_blocks} * info.f_frsize;
  disk.free = uint64_t{info.f_bavail} * info.f_frsize;
  disk.files = info.f_files;
  disk.files_free = info.f_ffree;
  return disk;
}

// A value of /proc/meminfo in bytes.
std::optional<uint64_t> memory_value(const char* name) {
  std::ifstream in("/proc/meminfo");
  for (std::string word; in >> word;) {
    uint64_t kilobytes = 0;
    if (word == std::string(name) + ":" && in >> kilobytes) return kilobytes << 10U;
  }
  return std::nullopt;
}

// The folders in which the dynamic linker looks for a library of this program.
std::vector<std::string> library_folders() {
  std::vector<std::string> folders;
  void* self = dlopen(nullptr, RTLD_LAZY);
  Dl_serinfo head{};
  if (self != nullptr && dlinfo(self, RTLD_DI_SERINFOSIZE, &head) == 0) {
    std::vector<std::byte> block(head.dls_size);
    auto* info = reinterpret_cast<Dl_serinfo*>(block.data());
    *info = head;
    if (dlinfo(self, RTLD_DI_SERINFO, info) == 0) {
      for (unsigned i = 0; i < info->dls_cnt; ++i)
        folders.emplace_back(info->dls_serpath[i].dls_name);
    }
  }
  folders.emplace_back(TAVRIX_LIBRARY_FOLDER);
  return folders;
}

// "1.0.0" of libtavrix.so.1.0.0, the library that server processes load. It is not loaded here: a
// process that maps it counts as a connection.
std::string library_version() {
  const std::string mark = ".so.";
  for (const std::string& folder : library_folders()) {
    std::error_code none;
    const std::string file = fs::canonical(folder + "/libtavrix.so.1", none).filename();
    if (const auto at = file.find(mark); at != std::string::npos)
      return file.substr(at + mark.size());
  }
  return {};
}

}  // namespace

Groups look_at_groups(std::vector<Unread>& unread) {
  Groups groups;
  groups.written = time_of(TAVRIX_GROUPMAP_PATH);
  groups.exists = groups.written.has_value();
  if (!groups.exists) return groups;
  std::ifstream in(TAVRIX_GROUPMAP_PATH, std::ios::binary);
  if (!in) {
    unread.push_back({"groups", TAVRIX_GROUPMAP_PATH, std::strerror(errno)});
    return groups;
  }
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  groups.errors = groupmap::verify(bytes).errors();
  if (const auto map = groupmap::decode(bytes)) {
    groups.users = map->users.size();
    groups.reserved = map->reserved.size();
  }
  const std::string checksum = files::checksum_path(TAVRIX_GROUPMAP_PATH);
  if (access(checksum.c_str(), F_OK) == 0 && access(checksum.c_str(), R_OK) != 0) {
    unread.push_back({"groups", checksum, std::strerror(errno)});
    return groups;
  }
  switch (files::compare_checksum(TAVRIX_GROUPMAP_PATH, files::digest_of(bytes))) {
    case files::Checksum::kMatches:
      groups.checksum = Groups::Checksum::kMatches;
      break;
    case files::Checksum::kDiffers:
      groups.checksum = Groups::Checksum::kDiffers;
      break;
    case files::Checksum::kMissing:
      groups.checksum = Groups::Checksum::kMissing;
  }
  return groups;
}

std::vector<Service> look_at_services(bool is_node) {
  std::vector<Service> services{service("sweeper"), service("loader")};
  // The sweeper touches its mark in each period.
  services[0].last_work = time_of(sweeper::running_mark_path(""));
  take_import(last_line(kOperatorsLog), services[1]);
  if (Service historian = service("historian");
      has_historian(is_node) || !historian.processes.empty()) {
    historian.last_work = time_of(historian::kMark);
    services.push_back(std::move(historian));
  }
  return services;
}

std::vector<Disk> look_at_disks(const Facts& facts) {
  std::vector<Disk> disks;
  const Segment* table = facts.map.table();
  const uint64_t map_bytes = table == nullptr ? 0 : table->bytes + kSlack;
  if (!facts.settings.staging_dir.empty()) {
    disks.push_back(disk_of(facts.settings.staging_dir, "events", facts.buffer.bytes));
  }
  if (!facts.settings.auditing_dir.empty()) {
    disks.push_back(disk_of(facts.settings.auditing_dir, "audits", 0));
  }
  disks.push_back(disk_of(mapload::kFolder, "local copy of the map", map_bytes));
  disks.push_back(disk_of(facts.map.inbox.folder, "maps on their way", 0));
  return disks;
}

Connections look_at_connections(const std::vector<Segment>& all, std::vector<Unread>& unread) {
  Connections connections;
  if (geteuid() == 0) {
    connections.count = sweeper::live_connections();
  } else {
    unread.push_back({"connections", "the server processes", "only root may look into them"});
  }
  for (const Segment& segment : all) {
    if (!mapload::may_be_old_table({segment.is_removed, segment.mode,
                                    static_cast<unsigned long>(segment.attached), segment.bytes})) {
      continue;
    }
    connections.pinned.push_back({segment, holders_of(segment)});
  }
  std::sort(connections.pinned.begin(), connections.pinned.end(),
            [](const Pinned& a, const Pinned& b) { return a.segment.created < b.segment.created; });
  return connections;
}

HugePages look_at_huge_pages() {
  HugePages pages;
  const std::string line = first_line(kHugePages);  // "always within_size advise [never] deny"
  const auto open = line.find('[');
  const auto close = line.find(']');
  if (open != std::string::npos && close != std::string::npos) {
    pages.setting = line.substr(open + 1, close - open - 1);
  }
  pages.used = memory_value("ShmemHugePages");
  return pages;
}

Versions look_at_versions() {
  Versions versions;
  versions.tools = TAVRIX_VERSION;
  versions.library = library_version();
  versions.module_file = samba_module();
  versions.has_module = access(versions.module_file.c_str(), F_OK) == 0;
  versions.module_samba = samba_series_of_module(versions.module_file);
  versions.samba = samba_version_in(samba_library());
  return versions;
}

Facts gather(const Places& places) {
  Facts facts;
  facts.now = std::time(nullptr);
  const std::vector<Segment> all = segments();
  facts.settings = look_at_settings(places.settings, facts.unread);
  facts.map = look_at_map(all, places.inbox, facts.unread);
  facts.groups = look_at_groups(facts.unread);
  facts.cluster = look_at_cluster(places.settings, facts.unread);
  facts.services = look_at_services(facts.cluster.has_value());
  facts.buffer = look_at_buffer(all, facts.settings, facts.unread);
  facts.events = look_at_dumps(facts.settings.staging_dir, facts.unread);
  facts.audits = look_at_dumps(facts.settings.auditing_dir, facts.unread);
  if (facts.services.size() > 2) {
    facts.history = look_at_history(places.settings, facts.unread);
  }
  facts.alarms = look_at_alarms(facts.unread);
  facts.disks = look_at_disks(facts);
  facts.connections = look_at_connections(all, facts.unread);
  facts.huge_pages = look_at_huge_pages();
  facts.versions = look_at_versions();
  return facts;
}

}  // namespace tavrix::status
