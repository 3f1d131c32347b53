// SPDX-License-Identifier: LGPL-3.0-or-later
// Events on their way to the agent: staging buffer, dump files, alarms.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/cluster/node_folders.hpp"
#include "tools/ctl/settings_file.hpp"
#include "tools/events/dump_reader.hpp"
#include "tools/historian/paths.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/status/gather.hpp"

namespace tavrix::status {
namespace {

namespace fs = std::filesystem;

constexpr const char* kAsidePrefix = "aside_";

struct Head {
  uint32_t records, next_offset;
};

// Writers change both values in one store, after the record, so one load gets both of the same
// moment, without the semaphore.
Head head_of(const std::byte* buffer) {
  const uint64_t both =
      __atomic_load_n(reinterpret_cast<const uint64_t*>(buffer), __ATOMIC_ACQUIRE);
  return {static_cast<uint32_t>(both), static_cast<uint32_t>(both >> 32U)};
}

// The time of the first record. A flush may empty the buffer meanwhile: then the head has moved
// back, and there is no such record any more.
std::optional<int64_t> time_of_first(const std::byte* buffer, const Head& head, uint64_t bytes) {
  constexpr std::size_t kLongest = 1 << 20;
  const std::size_t end = std::min<std::size_t>({head.next_offset, bytes, kLongest});
  const std::string copy(reinterpret_cast<const char*>(buffer) + sizeof(staging_buffer_s),
                         end - sizeof(staging_buffer_s));
  const Head now = head_of(buffer);
  if (now.records < head.records || now.next_offset < head.next_offset) return std::nullopt;
  events::DumpReader reader(copy);
  const auto payload = reader.next();
  if (!payload) return std::nullopt;
  const events::Event event = events::unpack_event(*payload);
  if (event == nullptr) return std::nullopt;
  return event->time_sec;
}

void look_into_segment(const Segment& segment, Buffer& buffer, std::vector<Unread>& unread) {
  const ShmAttachment attached(shmat(segment.id, nullptr, SHM_RDONLY));
  if (!attached || segment.bytes < sizeof(staging_buffer_s)) {
    if (!attached) unread.push_back({"buffer", "the staging buffer", std::strerror(errno)});
    return;
  }
  const auto* bytes = static_cast<const std::byte*>(attached.get());
  const Head head = head_of(bytes);
  buffer.is_sound =
      head.next_offset >= sizeof(staging_buffer_s) && head.next_offset <= segment.bytes;
  if (!buffer.is_sound) return;
  buffer.records = head.records;
  buffer.used = head.next_offset;
  if (head.records > 0) buffer.oldest = time_of_first(bytes, head, segment.bytes);
}

void look_at_semaphore(Buffer& buffer, std::vector<Unread>& unread) {
  const int set = semget(ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID), 0, 0);
  buffer.has_semaphore = set != -1;
  if (set == -1) return;
  const int value = semctl(set, 0, GETVAL);
  if (value == -1) {
    unread.push_back({"buffer", "the semaphore of events", std::strerror(errno)});
    buffer.is_free = true;
    return;
  }
  buffer.is_free = value > 0;
  buffer.holder = semctl(set, 0, GETPID);
  buffer.waiting = std::max(0, semctl(set, 0, GETNCNT));
  buffer.is_holder_dead = !buffer.is_free && buffer.holder > 0 && kill(buffer.holder, 0) != 0 &&
                          errno == ESRCH && semctl(set, 0, GETVAL) == 0;
}

// As in the library: 100 per cent counts as 80.
uint64_t threshold_of(const Settings& settings) {
  const int64_t percent = settings.threshold_pct > 99 ? 80 : settings.threshold_pct;
  return static_cast<uint64_t>(std::max<int64_t>(0, settings.buffer_bytes * percent / 100));
}

// The alarms' folder is closed to everybody but root.
bool is_hidden(int error) { return error == EACCES || error == EPERM; }

Alarm look_at_alarm(const char* name, const char* path, std::vector<Unread>& unread) {
  Alarm alarm{.name = name, .path = path, .is_raised = {}, .since = {}, .reason = {}};
  alarm.since = time_of(path);
  if (!alarm.since && is_hidden(errno)) {
    unread.push_back({"alarms", path, std::strerror(errno)});
    return alarm;
  }
  alarm.is_raised = alarm.since.has_value();
  if (!alarm.since) return alarm;
  const std::string text = first_line(path);
  alarm.reason = text.substr(0, text.find('\0'));
  return alarm;
}

}  // namespace

Buffer look_at_buffer(const std::vector<Segment>& all, const Settings& settings,
                      std::vector<Unread>& unread) {
  Buffer buffer;
  const Segment segment =
      segment_of(all, ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_BUFFER_KEY_ID));
  buffer.exists = segment.exists();
  buffer.bytes = segment.bytes;
  buffer.threshold = threshold_of(settings);
  if (buffer.exists) look_into_segment(segment, buffer, unread);
  look_at_semaphore(buffer, unread);
  return buffer;
}

Dumps look_at_dumps(const std::string& folder, std::vector<Unread>& unread) {
  Dumps dumps;
  dumps.folder = folder;
  if (folder.empty()) return dumps;
  std::error_code error;
  fs::directory_iterator entries(folder, error);
  dumps.is_readable = !error;
  if (error) {
    if (is_hidden(error.value())) unread.push_back({"dumps", folder, error.message()});
    return dumps;
  }
  for (const auto& entry : entries) {
    const std::string name = entry.path().filename();
    if (name.starts_with(kAsidePrefix)) ++dumps.set_aside;
    if (!name.starts_with(TAVRIX_DUMP_FILE_PREFIX)) continue;
    const auto written = time_of(entry.path());
    if (!written) continue;  // the agent has just taken it
    ++dumps.count;
    std::error_code none;
    if (const auto bytes = entry.file_size(none); !none) dumps.bytes += bytes;
    dumps.oldest = std::min(dumps.oldest.value_or(*written), *written);
  }
  return dumps;
}

std::optional<Cluster> look_at_cluster(const std::string& settings_file,
                                       std::vector<Unread>& unread) {
  const ctl::SettingsFile file = ctl::read_settings_file(settings_file);
  if (file.node.empty()) return std::nullopt;
  const std::string events = ctl::shared_folder(file, PARAM_STAGING_DIR);
  const std::string audits = ctl::shared_folder(file, PARAM_AUDITING_DIR);
  Cluster cluster{.node = file.node, .nodes = {}};
  for (const std::string& node : cluster::nodes_in(events)) {
    cluster.nodes.push_back({node, look_at_dumps(cluster::folder_of(events, node), unread),
                             look_at_dumps(cluster::folder_of(audits, node), unread)});
  }
  return cluster;
}

History look_at_history(const std::string& settings_file, std::vector<Unread>& unread) {
  History history;
  history.folder = historian::kLinks;
  history.database = settings::ServiceSettings::read(settings_file).text("HISTORIAN:database");
  std::error_code error;
  if (const auto bytes = fs::file_size(history.database, error); !error) {
    history.database_bytes = bytes;
  }
  fs::directory_iterator entries(history.folder, error);
  history.is_on = !error;
  history.is_readable = !error || !is_hidden(error.value());
  if (!history.is_readable) unread.push_back({"history", history.folder, error.message()});
  for (const auto& entry : entries) {
    const std::string name = entry.path().filename();
    if (name == fs::path(historian::kRefused).filename()) {
      for (const auto& refused : fs::directory_iterator(entry.path(), error)) {
        history.refused += refused.path().extension() != ".reason";
      }
    }
    const bool is_dump =
        name.starts_with(historian::kEventsPrefix) || name.starts_with(historian::kAuditPrefix);
    const auto written = is_dump ? time_of(entry.path()) : std::nullopt;
    if (!written) continue;  // the historian has just taken it
    ++history.waiting;
    if (const auto bytes = entry.file_size(error); !error) history.bytes += bytes;
    history.oldest = std::min(history.oldest.value_or(*written), *written);
  }
  return history;
}

std::vector<Alarm> look_at_alarms(std::vector<Unread>& unread) {
  return {look_at_alarm("sync-off", TAVRIX_SYNC_OFF_PATH, unread),
          look_at_alarm("rescan", TAVRIX_RESCAN_PATH, unread)};
}

}  // namespace tavrix::status
