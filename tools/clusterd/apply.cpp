// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/apply.hpp"

#include <fmt/format.h>
#include <cerrno>
#include <cstring>

#include "tools/clusterd/companions.hpp"
#include "tools/mapkeep/held.hpp"
#include "tools/mapkeep/keep.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/recovery.hpp"
#include "tools/service/journal.hpp"

namespace tavrix::clusterd {
namespace {

using Kind = Outcome::Kind;
using service::say;
using service::Tone;

void tell(const mapload::Report& report) {
  for (const mapload::Said& said : report) {
    say(said.weight == mapload::Weight::kInfo      ? Tone::kInfo
        : said.weight == mapload::Weight::kWarning ? Tone::kWarning
                                                   : Tone::kError,
        said.text);
  }
}

Outcome publish(const cluster::Committed& committed, const Prepared& prepared) {
  mapload::Report room;
  mapload::Request request;
  request.make_room = [&room] { return mapkeep::give_way(room); };
  const mapload::Loaded loaded = mapload::load_image(request, prepared.path, prepared.image);
  tell(room);
  tell(loaded.report);
  if (!loaded.ok()) return {Kind::kFailed, loaded.text()};
  if (!note_own_map(committed, prepared.image)) {
    return {Kind::kFailed, std::string("cannot note the map in force: ") + std::strerror(errno)};
  }
  say(Tone::kInfo,
      fmt::format("map {} of the cluster is in force: {}", committed.number, loaded.text()));
  return {Kind::kDone, ""};
}

void keep(unsigned kept_maps) {
  mapload::Report report;
  static_cast<void>(mapkeep::keep_current(kept_maps, {mapkeep::kByCluster, "", {}}, report));
  tell(report);
  if (mapkeep::drop_held()) say(Tone::kWarning, "the held map is removed: a later one is in force");
}

}  // namespace

// A death in the middle leaves the old or the new map in force; the next call finds which, and does
// the rest again.
Outcome apply(const cluster::Committed& committed, unsigned kept_maps) {
  cluster::Proposal proposal;
  proposal.number = committed.number;
  proposal.sums = committed.sums;
  Prepared prepared;
  Outcome outcome = prepare(proposal, prepared);
  if (outcome.kind != Kind::kDone) return outcome;
  const Fd lock = mapload::lock_maps();
  if (!lock) {
    return {Kind::kFailed,
            std::string("cannot take the lock of the maps: ") + std::strerror(errno)};
  }
  if (own_map().number == committed.number) return outcome;
  if (!mapload::is_well()) {
    const mapload::Recovery recovery = mapload::recover(mapload::Restore::kNo);
    tell(recovery.report);
    if (recovery.try_again) return {Kind::kFailed, recovery.status};
  }
  outcome = install_companions(committed);
  if (outcome.kind == Kind::kDone) outcome = publish(committed, prepared);
  if (outcome.kind == Kind::kDone) keep(kept_maps);
  return outcome;
}

}  // namespace tavrix::clusterd
