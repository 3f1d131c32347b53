// SPDX-License-Identifier: LGPL-3.0-or-later
// The map: semaphores, tables, mark, local copy, and the maps on their way.

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "mkperms_shm.h"
#include "perm_map.h"
#include "tools/mapkeep/held.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/status/gather.hpp"

namespace tavrix::status {
namespace {

namespace fs = std::filesystem;

std::string text_of(const char* field, std::size_t size) { return {field, strnlen(field, size)}; }

// Compares chunk by chunk: a map may be as large as the memory.
std::optional<bool> is_same(const std::string& path, std::span<const std::byte> image) {
  const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::array<std::byte, 1 << 16> chunk{};
  std::size_t at = 0;
  for (;;) {
    const ssize_t got = read(file.get(), chunk.data(), chunk.size());
    if (got < 0) return std::nullopt;
    if (got == 0) return at == image.size();
    const auto bytes = static_cast<std::size_t>(got);
    if (bytes > image.size() - at || std::memcmp(chunk.data(), &image[at], bytes) != 0) {
      return false;
    }
    at += bytes;
  }
}

void look_at_semaphores(Map& map, std::vector<Unread>& unread) {
  const int set = semget(ftok(TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID), 0, 0);
  map.has_set = set != -1 || errno != ENOENT;
  if (!map.has_set) return;
  const int current = semctl(set, 0, GETVAL);
  const int initialized = current == -1 ? -1 : semctl(set, 1, GETVAL);
  if (initialized == -1) {
    unread.push_back({"map", "the semaphores", std::strerror(errno)});
    return;
  }
  map.current = current;
  map.initialized = initialized;
}

// Reads the header of the current table, and compares the table with the local copy.
void look_into_table(Map& map, std::vector<Unread>& unread) {
  const Segment* table = map.table();
  if (table == nullptr || table->bytes < sizeof(tavrix_be_header)) return;
  const ShmAttachment attached(shmat(table->id, nullptr, SHM_RDONLY));
  if (!attached) {
    unread.push_back({"map", "the current table", std::strerror(errno)});
    return;
  }
  tavrix_be_header header{};
  std::memcpy(&header, attached.get(), sizeof header);
  map.header = {text_of(header.mapname, sizeof header.mapname),
                text_of(header.version, sizeof header.version),
                header.generationnum,
                header.timestamp,
                header.total_fselems,
                header.total_aces};
  if (!map.has_copy) return;
  map.is_copy_equal =
      is_same(mapload::kLocalCopy, {static_cast<const std::byte*>(attached.get()), table->bytes});
  if (!map.is_copy_equal) unread.push_back({"map", mapload::kLocalCopy, std::strerror(errno)});
}

void look_at_mark(Map& map, std::vector<Unread>& unread) {
  map.has_mark = access(mapload::kMark, F_OK) == 0;
  map.is_mark_readable = !map.has_mark || access(mapload::kMark, R_OK) == 0;
  if (!map.is_mark_readable) unread.push_back({"map", mapload::kMark, std::strerror(errno)});
  const auto mark = mapload::read_mark();
  if (!mark) return;
  const Segment& marked = map.tables[mark->table];
  const mapload::Segment same{marked.id, marked.created, marked.creator,
                              static_cast<std::size_t>(marked.bytes)};
  if (mark->is(mark->table, same)) map.marked = mark->table;
}

void look_at_refused(Inbox& inbox) {
  std::string newest;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(inbox.folder + "/refused", none)) {
    ++inbox.refused;
    newest = std::max(newest, entry.path().string());
  }
  if (newest.empty()) return;
  inbox.last_refused = time_of(newest + "/reason.txt");
  inbox.last_reason = first_line(newest + "/reason.txt");
}

Inbox look_at_inbox(const std::string& folder, std::vector<Unread>& unread) {
  Inbox inbox;
  inbox.folder = folder;
  inbox.is_readable = access(folder.c_str(), R_OK | X_OK) == 0;
  if (!inbox.is_readable) {
    if (errno != ENOENT) unread.push_back({"map", folder, std::strerror(errno)});
    return inbox;
  }
  const auto pair_since = [](const std::string& place) -> std::optional<int64_t> {
    const auto size = time_of(place + "/size.json");
    const auto data = time_of(place + "/data.json");
    if (!size || !data) return std::nullopt;
    return std::max(*size, *data);
  };
  inbox.waits_since = pair_since(folder);
  inbox.in_work_since = pair_since(folder + "/.work");
  look_at_refused(inbox);
  return inbox;
}

KeptMaps look_at_kept(std::vector<Unread>& unread) {
  constexpr int64_t kMicroseconds = 1'000'000;
  KeptMaps kept;
  int error = 0;
  const auto maps = mapkeep::kept_maps(error);
  kept.is_readable = error == 0;
  if (error != 0) unread.push_back({"map", mapload::kKeptFolder, std::strerror(error)});
  kept.count = maps.size();
  for (const mapkeep::KeptMap& map : maps) kept.bytes += map.image.bytes;
  if (!maps.empty()) kept.oldest = maps.front().since / kMicroseconds;
  if (const auto held = mapkeep::held_map()) {
    kept.held_since = held->since / kMicroseconds;
    kept.held_reason = held->reason;
  }
  return kept;
}

}  // namespace

Map look_at_map(const std::vector<Segment>& all, const std::string& inbox,
                std::vector<Unread>& unread) {
  Map map;
  map.is_import_running = is_locked(mapload::kLock);
  map.tables[0] = segment_of(all, TAVRIX_PERM_TABLE0_KEY);
  map.tables[1] = segment_of(all, TAVRIX_PERM_TABLE1_KEY);
  look_at_semaphores(map, unread);
  struct stat copy {};
  map.has_copy = stat(mapload::kLocalCopy, &copy) == 0;
  map.copy_bytes = static_cast<uint64_t>(copy.st_size);
  look_at_mark(map, unread);
  look_into_table(map, unread);
  map.inbox = look_at_inbox(inbox, unread);
  map.kept = look_at_kept(unread);
  return map;
}

}  // namespace tavrix::status
