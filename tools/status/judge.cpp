// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/judge.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <algorithm>

#include "eventstore.h"
#include "tools/status/sentences.hpp"
#include "tools/status/series.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::status {
namespace {

// Patience, in seconds.
constexpr int64_t kPairMayWait = int64_t{5} * 60;
constexpr int64_t kImportMayTake = int64_t{60} * 60;
constexpr int64_t kEventsMayWait = 60;  // or three periods, if that is longer
constexpr int64_t kEventsMustNotWait = int64_t{15} * 60;
constexpr int64_t kDumpsMayWait = int64_t{15} * 60;
constexpr int64_t kDumpsMustNotWait = int64_t{24} * 60 * 60;
constexpr int64_t kHistoryMayWait = int64_t{2} * 60;
constexpr int64_t kOldMapMayStay = int64_t{15} * 60;
constexpr uint64_t kLeastFreePercent = 5;

constexpr const char* kHandOver = "hand a map over, or look into the journal of tavrix-loader";

class Judge {
 public:
  explicit Judge(const Facts& facts) : facts_(facts) {}

  std::vector<Finding> run() {
    settings();
    map();
    copy();
    inbox();
    held();
    groups();
    services();
    buffer();
    dumps();
    history();
    alarms();
    for (const Disk& disk : facts_.disks) space(disk);
    connections();
    versions();
    std::stable_sort(found_.begin(), found_.end(),
                     [](const Finding& a, const Finding& b) { return a.level > b.level; });
    return std::move(found_);
  }

 private:
  void settings() {
    const Settings& settings = facts_.settings;
    if (settings.exists && !settings.is_loaded && !is_unread("settings")) {
      critical("settings-not-loaded", "the settings were never loaded: nobody may connect",
               "start tavrix-sweeper, or run \"tavrixctl config load " + settings.file + "\"");
    } else if (!settings.exists && settings.bytes > 0) {
      critical("settings-size",
               fmt::format("the shared block of settings has {} bytes, and this version needs {}",
                           settings.bytes, TAVRIX_PARAM_BLOCK_SIZE),
               "stop all programs of another version, then restart tavrix-sweeper");
    } else if (!settings.exists) {
      critical("settings-missing", "there are no settings: nobody may connect",
               "start tavrix-sweeper, or run \"tavrixctl config load " + settings.file + "\"");
    }
    if (!settings.mistakes.empty()) {
      warning("settings-degraded",
              "degraded: the previous settings hold: " + settings.mistakes.front(),
              "correct the file, then \"systemctl reload tavrix-sweeper\"");
    }
    if (!settings.wrong_service_values.empty()) {
      warning("service-setting",
              "a wrong value does not count, and the shipped one holds: " +
                  settings.wrong_service_values.front(),
              "correct the file, then reload the service");
    }
    if (!settings.complaints.empty()) {
      warning("pattern-file", "the pattern file needs a look: " + settings.complaints.back(),
              "run \"tavrixctl patterns check FILE\"");
    }
  }

  void map() {
    const Map& map = facts_.map;
    const std::string loader = "start tavrix-loader, or look into its journal";
    if (!map.has_set) {
      return critical("map-semaphores-missing", "the semaphores of the map are missing",
                      // The loader makes them with the first map.
                      runs("loader") ? kHandOver : loader);
    }
    if (!map.current) return;  // unread
    if (*map.current != 0 && *map.current != 1) {
      return critical("map-index",
                      fmt::format("the semaphores name table {}; there are only 0 and 1: servers "
                                  "end when they look",
                                  *map.current),
                      loader);
    }
    if (map.table() == nullptr || map.initialized != 1) {
      return critical("map-missing", "there is no current map: nobody is let in", kHandOver);
    }
    if (map.marked && *map.marked != *map.current) {
      critical("map-not-published",
               fmt::format("the semaphores name table {}, and table {} was published last",
                           *map.current, *map.marked),
               loader);
    }
    if (map.tables[1 - *map.current].exists() && !map.is_import_running) {
      warning("map-second-table", "there is a second table, and nobody imports",
              "start tavrix-loader, or run \"tavrixctl map remove --stale\"");
    }
  }

  void copy() {
    const Map& map = facts_.map;
    if (map.table() == nullptr || map.is_import_running) return;
    if (!map.has_copy) {
      critical("map-copy-missing",
               "the local copy of the map is missing: servers use no table without it",
               "start tavrix-loader, which writes it again");
    } else if (map.is_copy_equal == false) {
      warning("map-copy-differs",
              "the local copy is not the current map: a restart of the machine brings another one",
              "start tavrix-loader, which writes it again; \"tavrixctl map verify\" checks both");
    }
  }

  void inbox() {
    const Inbox& inbox = facts_.map.inbox;
    const Segment* table = facts_.map.table();
    if (inbox.last_refused && (table == nullptr || *inbox.last_refused > table->created)) {
      warning(
          "map-refused",
          fmt::format("the newest map was refused {} ago: {}", since(*inbox.last_refused),
                      inbox.last_reason),
          fmt::format("look into {}/refused, and let the agent write the map again", inbox.folder));
    }
    if (inbox.waits_since && age(*inbox.waits_since) > kPairMayWait) {
      warning("map-waits",
              fmt::format("a map waits for {} in {}", since(*inbox.waits_since), inbox.folder),
              "look into the journal of tavrix-loader");
    }
    if (inbox.in_work_since && age(*inbox.in_work_since) > kImportMayTake) {
      warning("map-in-work",
              fmt::format("a map of {} ago is still being imported", since(*inbox.in_work_since)),
              "look into the journal of tavrix-loader");
    }
  }

  void held() {
    const KeptMaps& kept = facts_.map.kept;
    if (!kept.held_since) return;
    warning("map-held",
            fmt::format("a map is held for {}: {}", since(*kept.held_since), kept.held_reason),
            "look at \"tavrixctl map diff current held\", then run \"tavrixctl map approve\" or "
            "\"tavrixctl map reject\"");
  }

  void groups() {
    const Groups& groups = facts_.groups;
    const std::string build = "run \"tavrixctl groupmap build\"";
    if (!groups.exists) {
      critical("groups-missing", "the group list map is missing: nobody is let in", build);
    } else if (groups.errors > 0) {
      critical("groups-broken",
               fmt::format("the group list map has {}", text::counted(groups.errors, "error")),
               build + "; \"tavrixctl groupmap verify\" lists them");
    } else if (groups.checksum == Groups::Checksum::kDiffers) {
      critical("groups-checksum",
               "the group list map does not match its checksum: a flipped bit may make somebody "
               "an administrator",
               build);
    }
  }

  [[nodiscard]] bool runs(const std::string& name) const {
    return std::any_of(facts_.services.begin(), facts_.services.end(), [&](const Service& service) {
      return service.name == name && !service.processes.empty();
    });
  }

  void services() {
    for (const Service& service : facts_.services) {
      if (service.processes.empty()) {
        const std::string sentence = "tavrix-" + service.name + " does not run";
        const std::string advice = "\"systemctl start tavrix-" + service.name + "\"";
        if (service.name == "sweeper") {
          critical("sweeper-stopped", sentence + ": events stay in memory", advice);
        } else {
          warning(service.name + "-stopped", sentence, advice);
        }
      }
    }
    const Service& sweeper = facts_.services.front();
    if (!sweeper.processes.empty() && sweeper.last_work &&
        age(*sweeper.last_work) > few_periods()) {
      warning("sweeper-stuck",
              fmt::format("tavrix-sweeper runs and did nothing for {}", since(*sweeper.last_work)),
              "look into its journal, then restart it");
    }
  }

  void buffer() {
    const Buffer& buffer = facts_.buffer;
    const std::string restart = "restart tavrix-sweeper";
    if (!buffer.exists) {
      critical("buffer-missing", "the staging buffer is missing: events are lost", restart);
    } else if (!buffer.is_sound && !is_unread("buffer")) {
      critical("buffer-damaged", "the head of the staging buffer is damaged", restart);
    } else if (buffer.is_sound &&
               static_cast<int64_t>(buffer.bytes) < facts_.settings.buffer_bytes) {
      critical("buffer-small",
               fmt::format("the staging buffer has {} bytes, and the settings name {}: events are "
                           "lost",
                           buffer.bytes, facts_.settings.buffer_bytes),
               restart);
    }
    if (!buffer.has_semaphore) {
      critical("buffer-semaphore-missing",
               "the semaphore of events is missing: a server that changes something ends", restart);
    } else if (buffer.is_holder_dead) {
      critical("buffer-semaphore-held",
               fmt::format("process {} died with the semaphore of events: {} {}", buffer.holder,
                           text::counted(buffer.waiting, "process"),
                           text::verb(buffer.waiting, "waits", "wait")),
               restart);
    }
    waiting_events();
  }

  void waiting_events() {
    const Buffer& buffer = facts_.buffer;
    if (facts_.settings.is_flush_disabled) {
      warning("flush-disabled", "flushing is disabled: events wait until a client goes",
              "set \"SWEEPER:disable sweeper flush\" to no");
    }
    if (buffer.threshold > 0 && buffer.used > buffer.threshold) {
      warning("buffer-full", "the staging buffer is past its threshold: clients that write wait",
              "look into the journal of tavrix-sweeper");
    }
    if (!buffer.oldest || facts_.settings.is_flush_disabled) return;
    const std::string sentence =
        fmt::format("events wait in memory for {}: nobody flushes", since(*buffer.oldest));
    const std::string advice = "look into the journal of tavrix-sweeper";
    if (age(*buffer.oldest) > kEventsMustNotWait) {
      critical("events-wait", sentence, advice);
    } else if (age(*buffer.oldest) > few_periods()) {
      warning("events-wait", sentence, advice);
    }
  }

  void dumps() {
    const Dumps& events = facts_.events;
    if (!events.folder.empty() && !events.is_readable && !is_unread("dumps")) {
      critical("staging-dir-missing", "the staging directory is missing: " + events.folder,
               "make it, or correct \"SWEEPER:staging dir\"");
    }
    if (events.set_aside > 0) {
      warning(
          "dumps-set-aside",
          fmt::format("{} in {} {} not written by a flush", text::counted(events.set_aside, "file"),
                      events.folder, text::verb(events.set_aside, "was", "were")),
          "look at the files aside_txtemp*, and remove them");
    }
    if (!events.oldest || age(*events.oldest) <= kDumpsMayWait) return;
    const std::string sentence =
        fmt::format("the agent is not collecting: {} {}, the oldest for {}",
                    text::counted(events.count, "dump file"),
                    text::verb(events.count, "waits", "wait"), since(*events.oldest));
    const std::string advice = "look at the synchronisation agent";
    if (age(*events.oldest) > kDumpsMustNotWait) {
      critical("agent-not-collecting", sentence, advice);
    } else {
      warning("agent-not-collecting", sentence, advice);
    }
  }

  void history() {
    if (!facts_.history || !facts_.history->is_readable) return;
    const History& history = *facts_.history;
    const std::string journal = "look into the journal of tavrix-historian";
    if (!history.is_on && runs("historian")) {
      warning("history-off", "nothing is kept: there is no folder " + history.folder,
              "\"systemctl reload tavrix-historian\" makes it");
    }
    if (history.refused > 0) {
      warning("history-refused",
              fmt::format("{} for the history {} not written by a flush",
                          text::counted(history.refused, "file"),
                          text::verb(history.refused, "was", "were")),
              fmt::format("look into {}/refused, and remove what is there", history.folder));
    }
    if (history.oldest && age(*history.oldest) > kHistoryMayWait) {
      warning("history-waits",
              fmt::format("{} {} for the history, the oldest for {}",
                          text::counted(history.waiting, "dump file"),
                          text::verb(history.waiting, "waits", "wait"), since(*history.oldest)),
              runs("historian") ? journal : "start tavrix-historian, or remove the package");
    }
  }

  void alarms() {
    for (const Alarm& alarm : facts_.alarms) {
      if (alarm.is_raised != true) continue;
      if (alarm.name == "sync-off") {
        critical("sync-off", fmt::format("events were lost {} ago", since(*alarm.since)),
                 "the agent must compare the whole tree, and then removes " + alarm.path);
      } else {
        warning("rescan",
                fmt::format("the agent was asked for a rescan {} ago: {}", since(*alarm.since),
                            alarm.reason),
                "the agent scans the tree, and then removes " + alarm.path);
      }
    }
  }

  void space(const Disk& disk) {
    if (disk.bytes == 0) return;
    const std::string id = "space-" + disk.purpose.substr(0, disk.purpose.find(' '));
    const std::string where = fmt::format("{} ({})", disk.folder, disk.purpose);
    if (disk.files > 0 && disk.files_free == 0) {
      critical(id, "no inode is left in " + where, "remove files there");
    } else if (disk.free < disk.needed || disk.free == 0) {
      critical(id,
               fmt::format("{}: {} are free, and {} are needed next", where, size_text(disk.free),
                           size_text(disk.needed)),
               "make room there");
    } else if (disk.free / kLeastFreePercent < disk.bytes / 100) {
      warning(id,
              fmt::format("{}: only {} of {} are free", where, size_text(disk.free),
                          size_text(disk.bytes)),
              "make room there");
    }
  }

  void connections() {
    if (facts_.connections.pinned.empty()) return;
    const Pinned& oldest = facts_.connections.pinned.front();
    const Segment* table = facts_.map.table();
    const int64_t replaced = table == nullptr ? oldest.segment.created : table->created;
    if (age(replaced) <= kOldMapMayStay) return;
    warning(
        "map-pinned",
        fmt::format("an earlier map of {} is still attached, {} after it was replaced, by {}",
                    size_text(oldest.segment.bytes), since(replaced), holders_text(oldest.holders)),
        "that process hangs: end it, and its client connects again");
  }

  void versions() {
    const Versions& versions = facts_.versions;
    if (versions.has_module && !versions.samba.empty() &&
        !is_of_series(versions.samba, versions.module_samba)) {
      critical("module-version", sentence_about_module(versions.module_samba, versions.samba),
               "install or build the module for this Samba");
    }
    if (!versions.library.empty() && versions.library != versions.tools) {
      warning("library-version",
              fmt::format("the tools are of version {}, the library of {}", versions.tools,
                          versions.library),
              "install the packages of one version");
    }
  }

  // --- words
  // --------------------------------------------------------------------------------------

  [[nodiscard]] int64_t age(int64_t time) const { return facts_.now - time; }
  [[nodiscard]] std::string since(int64_t time) const { return duration_text(age(time)); }
  [[nodiscard]] int64_t few_periods() const {
    return std::max<int64_t>(kEventsMayWait, int64_t{3} * facts_.settings.flush_period);
  }
  [[nodiscard]] bool is_unread(const char* topic) const {
    return std::any_of(facts_.unread.begin(), facts_.unread.end(),
                       [topic](const Unread& unread) { return unread.topic == topic; });
  }
  void warning(std::string id, std::string sentence, std::string advice) {
    found_.push_back({Level::kWarning, std::move(id), std::move(sentence), std::move(advice)});
  }
  void critical(std::string id, std::string sentence, std::string advice) {
    found_.push_back({Level::kCritical, std::move(id), std::move(sentence), std::move(advice)});
  }

  const Facts& facts_;
  std::vector<Finding> found_;
};

}  // namespace

const char* name_of(Level level) {
  switch (level) {
    case Level::kWell:
      return "well";
    case Level::kWarning:
      return "warning";
    default:
      return "critical";
  }
}

std::vector<Finding> judge(const Facts& facts) { return Judge(facts).run(); }

Level worst(const std::vector<Finding>& findings) {
  return findings.empty() ? Level::kWell : findings.front().level;
}

}  // namespace tavrix::status
