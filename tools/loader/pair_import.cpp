// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/pair_import.hpp"

#include <fmt/format.h>
#include <cerrno>
#include <cstring>
#include <optional>

#include "tools/cluster/paths.hpp"
#include "tools/cluster/settings_for_all.hpp"
#include "tools/ctl/output.hpp"
#include "tools/files/durable.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapkeep/guard.hpp"
#include "tools/mapkeep/keep.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::loader {
namespace {

constexpr std::size_t kShown = 20;  // the most findings in a reason

std::string text_of(const mapcheck::Findings& findings) {
  std::string text;
  std::size_t shown = 0;
  for (const mapcheck::Finding& finding : findings.kept()) {
    if (++shown > kShown) break;
    text +=
        fmt::format("\n{}{}{} byte {}: {}",
                    finding.severity == mapcheck::Severity::kError ? "error" : "warning",
                    finding.file.empty() ? "" : " " + finding.file,
                    finding.where.empty() ? "" : " " + finding.where, finding.offset, finding.text);
  }
  return text;
}

std::string json_of(const mapcheck::Findings& findings) {
  if (findings.errors() + findings.warnings() == 0) return {};
  json::Json json;
  ctl::set_findings(json, findings);
  return json::text_of(json) + "\n";
}

Outcome refused(const mapcheck::Findings& findings) {
  return {mapload::Result::kRefused,
          text::counted(findings.errors(), "error") + text_of(findings),
          {},
          json_of(findings)};
}

// The reason why the pair goes no further; nothing when it is sound. The import trusts what it
// reads, so it is not run then; the operator's log gets the line of a failed import all the same.
std::optional<Outcome> find_errors(const Pair& pair) {
  std::string error;
  const auto checked = mapcheck::lint_files(pair.size, pair.data, error);
  if (!checked) return Outcome{mapload::Result::kTryAgain, error, {}, {}};
  if (checked->findings.errors() == 0) return std::nullopt;
  mapload::log_refused();
  return refused(checked->findings);
}

// The path of a file that came with the pair; empty when it did not.
std::string if_it_came(const std::string& path) {
  return !path.empty() && files::exists(path) ? path : "";
}

std::optional<Outcome> find_errors_in_groups(const Pair& pair) {
  if (if_it_came(pair.groups).empty()) return std::nullopt;
  const auto bytes = files::read_whole(pair.groups);
  if (!bytes) {
    return Outcome{mapload::Result::kTryAgain,
                   fmt::format("{}: {}", pair.groups, std::strerror(errno)),
                   {},
                   {}};
  }
  const auto findings = groupmap::verify(*bytes);
  if (findings.errors() == 0) return std::nullopt;
  Outcome outcome = refused(findings);
  outcome.text = "the group list map has " + outcome.text;
  return outcome;
}

std::optional<Outcome> find_errors_in_settings(const Pair& pair) {
  if (if_it_came(pair.settings).empty()) return std::nullopt;
  const std::string wrong = cluster::mistake_in_settings(pair.settings);
  if (wrong.empty()) return std::nullopt;
  return Outcome{
      mapload::Result::kRefused, "the settings cannot be those of all nodes: " + wrong, {}, {}};
}

// An import and its publication, if the guard lets the map pass.
Outcome run_import(const Pair& pair,
                   const std::function<mapload::Guarded(std::span<const std::byte>)>& judge,
                   const std::function<bool()>& should_stop) {
  mapload::Request request;
  request.size_path = pair.size.c_str();
  request.data_path = pair.data.c_str();
  request.should_stop = should_stop;
  mapload::Report room;
  request.make_room = [&room] { return mapkeep::give_way(room); };
  request.guard = judge;
  mapload::Loaded loaded = mapload::load(request);
  loaded.report.insert(loaded.report.begin(), room.begin(), room.end());
  return {loaded.result, loaded.text() + text_of(loaded.findings), std::move(loaded.report),
          json_of(loaded.findings)};
}

// The import stops in front of its publication when the guard lets the map pass: then this returns
// nothing.
std::optional<Outcome> find_reason_to_hold(const Pair& pair, const Guard& guard,
                                           const std::function<bool()>& should_stop) {
  bool has_passed = false;
  Outcome outcome = run_import(
      pair,
      [&](std::span<const std::byte> image) {
        auto answer = mapkeep::judge(image, guard.limits, guard.held_folder, should_stop);
        has_passed = answer.result == mapload::Result::kPublished;
        return has_passed ? mapload::Guarded{mapload::Result::kStopped, ""} : answer;
      },
      should_stop);
  if (has_passed) return std::nullopt;
  return outcome;
}

Outcome wait_for_tree() {
  Outcome outcome{mapload::Result::kTryAgain,
                  fmt::format("the pair waits for the shared tree, {}: {}", cluster::kMapsFolder,
                              std::strerror(errno)),
                  {},
                  {}};
  outcome.is_tree_away = true;
  return outcome;
}

}  // namespace

Outcome load_pair(const Pair& pair, const Guard& guard, const std::function<bool()>& should_stop) {
  if (auto errors = find_errors(pair)) return std::move(*errors);
  return run_import(
      pair,
      [&](std::span<const std::byte> image) {
        return mapkeep::judge(image, guard.limits, guard.held_folder, should_stop);
      },
      should_stop);
}

Outcome put_up_pair(const Pair& pair, const Guard& guard, const Inbox& inbox,
                    const cluster::HandOver& hand_over, const std::function<bool()>& should_stop) {
  Outcome outcome{mapload::Result::kPublished, "the pair was put up for all nodes before", {}, {}};
  outcome.is_put_up = true;
  if (inbox.was_staged()) {
    if (!hand_over.is_staged()) return outcome;
  } else {
    if (auto errors = find_errors(pair)) return std::move(*errors);
    if (auto errors = find_errors_in_groups(pair)) return std::move(*errors);
    if (auto errors = find_errors_in_settings(pair)) return std::move(*errors);
    if (auto reason = find_reason_to_hold(pair, guard, should_stop)) return std::move(*reason);
    if (!hand_over.stage(
            {pair.size, pair.data, if_it_came(pair.groups), if_it_came(pair.settings), ""})) {
      return wait_for_tree();
    }
    if (!inbox.note_staged()) {
      return {mapload::Result::kTryAgain,
              std::string("cannot note that the pair is staged: ") + std::strerror(errno),
              {},
              {}};
    }
  }
  const auto number = hand_over.give_number();
  if (!number) return wait_for_tree();
  outcome.text = fmt::format("the pair is put up for all nodes as map {}", *number);
  return outcome;
}

}  // namespace tavrix::loader
