// SPDX-License-Identifier: LGPL-3.0-or-later
// The screen of "tavrixctl status".

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <algorithm>
#include <cctype>
#include <iterator>

#include "tools/status/report.hpp"
#include "tools/status/sentences.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/shown.hpp"

namespace tavrix::status {
namespace {

using text::shown;

constexpr std::size_t kMostDiffering = 3;  // names of settings on one line

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

class Screen {
 public:
  Screen(const Facts& facts, const std::vector<Finding>& findings)
      : facts_(facts), findings_(findings) {}

  std::string text() {
    head();
    settings();
    map();
    inbox();
    kept();
    groups();
    for (const Service& service : facts_.services) this->service(service);
    buffer();
    dumps("dumps", facts_.events);
    dumps("audits", facts_.audits);
    nodes();
    history();
    alarms();
    for (const Disk& disk : facts_.disks) space(disk);
    connections();
    huge_pages();
    versions();
    for (const Unread& unread : facts_.unread) {
      line("not read", fmt::format("{}: {}", unread.what, unread.why));
    }
    problems();
    return std::move(text_);
  }

 private:
  void head() {
    text_ = "TAVRIX " + upper(name_of(worst(findings_)));
    for (const Finding& finding : findings_) {
      text_ += (&finding == &findings_.front() ? " - " : "; ") + shown(finding.sentence);
    }
    text_ += "\n\n";
  }

  void settings() {
    const Settings& settings = facts_.settings;
    if (!settings.is_loaded) return line("settings", "not loaded");
    std::string text = "loaded";
    if (settings.has_file) text += " from " + settings.file;
    if (settings.read_at) text += fmt::format(" {} ago", since(*settings.read_at));
    line("settings", text);
    if (const auto& names = settings.differing; !names.empty()) {
      const auto shown_names = std::min(names.size(), kMostDiffering);
      line("", fmt::format(
                   "{} differ from the file: {}{}", names.size(),
                   fmt::join(names.begin(), names.begin() + static_cast<long>(shown_names), ", "),
                   names.size() > shown_names ? ", ..." : ""));
    }
  }

  void map() {
    const Map& map = facts_.map;
    const Segment* table = map.table();
    if (table == nullptr) {
      line("map", "none");
    } else if (map.header) {
      const Header& header = *map.header;
      line("map", current_map_text(*map.current, header.folders, header.entries, table->bytes));
      line("", fmt::format("name \"{}\", version \"{}\", generation {}; made {} ago", header.name,
                           header.version, header.generation, since(table->created)));
    } else {
      line("map", fmt::format("table {} is current: {}; made {} ago", *map.current,
                              text::counted(table->bytes, "byte"), since(table->created)));
    }
    if (map.is_import_running) line("", "a map is being imported, or removed");
    if (map.is_copy_equal == true) line("", "the local copy is the current map");
  }

  void inbox() {
    const Inbox& inbox = facts_.map.inbox;
    if (!inbox.is_readable) return;
    std::string text = "no map waits";
    if (inbox.waits_since) text = fmt::format("a map waits for {}", since(*inbox.waits_since));
    if (inbox.in_work_since) {
      text = fmt::format("a map of {} ago is being loaded", since(*inbox.in_work_since));
    }
    if (inbox.refused > 0)
      text += fmt::format("; {} {} kept", text::counted(inbox.refused, "refused one"),
                          text::verb(inbox.refused, "is", "are"));
    if (inbox.last_refused) text += fmt::format(", the last of {} ago", since(*inbox.last_refused));
    line("inbox", text);
  }

  void kept() {
    const KeptMaps& kept = facts_.map.kept;
    if (!kept.is_readable) return;
    std::string text = kept.count == 0 ? "no map" : text::counted(kept.count, "map");
    if (kept.oldest) text += fmt::format(", the oldest of {} ago", since(*kept.oldest));
    if (kept.held_since) text += fmt::format("; one is held for {}", since(*kept.held_since));
    line("kept", text);
  }

  void groups() {
    const Groups& groups = facts_.groups;
    if (!groups.exists) return line("groups", "none");
    std::string text = fmt::format("written {} ago", since(*groups.written));
    if (groups.users) {
      text = fmt::format("{}, {}, {}", text::counted(*groups.users, "user"),
                         text::counted(*groups.reserved, "reserved group"), text);
    }
    line("groups", text);
  }

  void service(const Service& service) {
    std::string text = "does not run";
    if (!service.processes.empty()) {
      text = fmt::format("runs, process {}", service.processes.front().pid);
      if (service.since) text += fmt::format(", for {}", since(*service.since));
    }
    if (service.name == "sweeper" && facts_.settings.is_loaded) {
      text += ", " + flushing_text(facts_.settings.is_flush_disabled, facts_.settings.flush_period);
    }
    if (service.last_work) text += fmt::format("; last work {} ago", since(*service.last_work));
    if (!service.last_words.empty()) text += ": " + service.last_words;
    line(service.name, text);
  }

  void buffer() {
    const Buffer& buffer = facts_.buffer;
    if (!buffer.exists) return line("buffer", "none");
    std::string text = buffer_text(buffer.records, buffer.used, buffer.bytes);
    if (buffer.oldest) text += fmt::format("; the oldest for {}", since(*buffer.oldest));
    if (!buffer.is_free) text += fmt::format("; process {} holds it", buffer.holder);
    line("buffer", text);
  }

  void dumps(const std::string& topic, const Dumps& dumps, const char* kind = "") {
    if (!dumps.is_readable) return;
    std::string text = fmt::format("{} {}{} for the agent", text::counted(dumps.count, "file"),
                                   kind, text::verb(dumps.count, "waits", "wait"));
    if (dumps.count > 0) text += fmt::format(", {}", size_text(dumps.bytes));
    if (dumps.oldest) text += fmt::format(", the oldest for {}", since(*dumps.oldest));
    line(topic, text);
  }

  // The dump files of the other nodes, which the same agent takes.
  void nodes() {
    if (!facts_.cluster) return;
    for (const NodeDumps& other : facts_.cluster->nodes) {
      if (other.node == facts_.cluster->node) continue;
      dumps("node " + other.node, other.events);
      dumps("", other.audits, "of audits ");
    }
  }

  void history() {
    if (!facts_.history || !facts_.history->is_readable) return;
    const History& history = *facts_.history;
    std::string text = history.is_on ? fmt::format("{} {} for the historian",
                                                   text::counted(history.waiting, "dump file"),
                                                   text::verb(history.waiting, "waits", "wait"))
                                     : "off";
    if (history.oldest) text += fmt::format(", the oldest for {}", since(*history.oldest));
    if (history.database_bytes) {
      text += fmt::format("; the database has {}", size_text(*history.database_bytes));
    }
    line("history", text);
  }

  void alarms() {
    const auto is_raised = [](const Alarm& alarm) { return alarm.is_raised == true; };
    const auto is_known = [](const Alarm& alarm) { return alarm.is_raised.has_value(); };
    for (const Alarm& alarm : facts_.alarms) {
      if (!is_raised(alarm)) continue;
      line("alarm", fmt::format("{} for {}: {}", alarm.name, since(*alarm.since), alarm.reason));
    }
    if (std::all_of(facts_.alarms.begin(), facts_.alarms.end(), is_known) &&
        std::none_of(facts_.alarms.begin(), facts_.alarms.end(), is_raised)) {
      line("alarms", "none");
    }
  }

  void space(const Disk& disk) {
    if (disk.bytes == 0) return;
    line("space", fmt::format("{} of {} free for {} ({})", size_text(disk.free),
                              size_text(disk.bytes), disk.purpose, disk.folder));
  }

  void connections() {
    const Connections& connections = facts_.connections;
    std::string text;
    if (connections.count) text = text::counted(*connections.count, "server process") + "; ";
    const Segment* table = facts_.map.table();
    text += "the current map is attached " +
            text::counted(table == nullptr ? 0 : table->attached, "time");
    line("connections", text);
    if (connections.pinned.empty()) return;
    const Pinned& oldest = connections.pinned.front();
    line("", fmt::format("{} {} attached, the oldest made {} ago, by {}",
                         text::counted(connections.pinned.size(), "earlier map"),
                         text::verb(connections.pinned.size(), "is", "are"),
                         since(oldest.segment.created), holders_text(oldest.holders)));
  }

  void huge_pages() {
    const HugePages& pages = facts_.huge_pages;
    if (pages.setting.empty()) return;
    std::string text = fmt::format("\"{}\" for shared memory", pages.setting);
    if (pages.used) text += fmt::format(", {} in use", size_text(*pages.used));
    line("huge pages", text);
  }

  void versions() {
    const Versions& versions = facts_.versions;
    std::string text = "tools " + versions.tools;
    if (!versions.library.empty()) text += ", library " + versions.library;
    if (versions.has_module) text += ", module for Samba " + versions.module_samba;
    text += versions.samba.empty() ? ", no Samba" : ", Samba " + versions.samba;
    line("versions", text);
  }

  void problems() {
    for (const Finding& finding : findings_) {
      text_ += fmt::format("\n{}: {}\n    {}\n", upper(name_of(finding.level)),
                           shown(finding.sentence), shown(finding.advice));
    }
  }

  [[nodiscard]] std::string since(int64_t time) const { return duration_text(facts_.now - time); }
  void line(const std::string& topic, const std::string& text) {
    text_ += fmt::format("{:<12} {}\n", topic, shown(text));
  }

  const Facts& facts_;
  const std::vector<Finding>& findings_;
  std::string text_;
};

}  // namespace

std::string screen_of(const Facts& facts, const std::vector<Finding>& findings) {
  return Screen(facts, findings).text();
}

}  // namespace tavrix::status
