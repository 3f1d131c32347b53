// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/pinned_watch.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <ctime>

#include "tools/text/counted.hpp"

namespace tavrix::loader {
namespace {

using mapload::PinnedTable;

constexpr std::chrono::seconds kPatience{5};

std::string told(const PinnedTable& table) {
  return fmt::format(
      "an old map is still in memory: {}, made {} ago, attached by {} (shared memory {})",
      text::counted(table.segment.bytes, "byte"),
      text::counted(std::time(nullptr) - table.segment.created, "second"),
      text::counted(table.attachments, "process"), table.segment.id);
}

std::string told_gone(const PinnedTable& table) {
  return fmt::format("the old map of {} is no longer in memory (shared memory {})",
                     text::counted(table.segment.bytes, "byte"), table.segment.id);
}

}  // namespace

void PinnedWatch::forget_gone(const std::vector<PinnedTable>& pinned, mapload::Report& report) {
  std::erase_if(known_, [&](const Known& known) {
    const bool is_there = std::ranges::any_of(
        pinned, [&](const PinnedTable& table) { return table.segment == known.table.segment; });
    if (!is_there && known.is_told) {
      report.push_back({mapload::Weight::kInfo, told_gone(known.table)});
    }
    return !is_there;
  });
}

PinnedWatch::Known& PinnedWatch::known(const PinnedTable& table) {
  const auto same = std::ranges::find_if(
      known_, [&](const Known& known) { return known.table.segment == table.segment; });
  if (same != known_.end()) return *same;
  return known_.emplace_back(Known{table, Clock::now()});
}

mapload::Report PinnedWatch::look() {
  mapload::Report report;
  const auto pinned = mapload::pinned_tables();
  forget_gone(pinned, report);
  for (const PinnedTable& table : pinned) {
    Known& one = known(table);
    if (one.is_told || Clock::now() - one.since < kPatience) continue;
    one.is_told = true;
    report.push_back({mapload::Weight::kWarning, told(table)});
  }
  return report;
}

}  // namespace tavrix::loader
