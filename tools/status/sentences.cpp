// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/status/sentences.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <iterator>

#include "tools/text/counted.hpp"

namespace tavrix::status {

std::string current_map_text(int table, uint32_t folders, uint32_t entries, uint64_t bytes) {
  return fmt::format("table {} is current: {}, {}, {}", table, text::counted(folders, "folder"),
                     text::counted(entries, "entry"), text::counted(bytes, "byte"));
}

std::string flushing_text(bool is_disabled, int period) {
  if (is_disabled) return "flushing is disabled";
  return period == 1 ? "flushing every second" : fmt::format("flushing every {} seconds", period);
}

std::string buffer_text(uint64_t records, uint64_t used, uint64_t bytes) {
  return fmt::format("{} {}, {} of {} used", text::counted(records, "record"),
                     text::verb(records, "waits", "wait"), size_text(used), size_text(bytes));
}

std::string duration_text(int64_t seconds) {
  struct Unit {
    int64_t seconds;
    const char* name;
  };
  // A unit begins where its number is at least two, so that "2 minutes" is not rounded from 90 s.
  constexpr Unit kUnits[] = {{86400, "days"}, {3600, "hours"}, {60, "minutes"}};
  for (const Unit& unit : kUnits) {
    if (seconds >= 2 * unit.seconds) return fmt::format("{} {}", seconds / unit.seconds, unit.name);
  }
  const int64_t shown = std::max<int64_t>(seconds, 0);
  return text::counted(shown, "second");
}

std::string size_text(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string holders_text(const std::optional<std::vector<Process>>& holders) {
  if (!holders) return "processes that only root can name";
  if (holders->empty()) return "a process outside of this world";
  std::string text;
  for (const Process& process : *holders) {
    text += fmt::format("{}{} ({})", text.empty() ? "" : ", ", process.name, process.pid);
  }
  return text;
}

}  // namespace tavrix::status
