// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/pair_import.hpp"

#include <fmt/format.h>

#include "tools/ctl/output.hpp"
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

}  // namespace

Outcome load_pair(const Pair& pair, const Guard& guard, const std::function<bool()>& should_stop) {
  std::string error;
  const auto checked = mapcheck::lint_files(pair.size, pair.data, error);
  if (!checked) return {mapload::Result::kTryAgain, error, {}, {}};
  if (checked->findings.errors() > 0) {
    // The import trusts what it reads, so it is not run; the operator's log gets the line of a
    // failed import all the same.
    mapload::log_refused();
    return {mapload::Result::kRefused,
            text::counted(checked->findings.errors(), "error") + text_of(checked->findings),
            {},
            json_of(checked->findings)};
  }
  mapload::Request request;
  request.size_path = pair.size.c_str();
  request.data_path = pair.data.c_str();
  request.should_stop = should_stop;
  mapload::Report room;
  request.make_room = [&room] { return mapkeep::give_way(room); };
  request.guard = [&](std::span<const std::byte> image) {
    return mapkeep::judge(image, guard.limits, guard.held_folder, should_stop);
  };
  mapload::Loaded loaded = mapload::load(request);
  loaded.report.insert(loaded.report.begin(), room.begin(), room.end());
  return {loaded.result, loaded.text() + text_of(loaded.findings), std::move(loaded.report),
          json_of(loaded.findings)};
}

}  // namespace tavrix::loader
