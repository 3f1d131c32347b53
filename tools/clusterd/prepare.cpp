// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/prepare.hpp"

#include <fmt/format.h>
#include <cerrno>
#include <cstring>

#include "tools/cluster/settings_for_all.hpp"
#include "tools/files/durable.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/private_import.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::clusterd {
namespace {

using cluster::Proposal;
using Kind = Outcome::Kind;

Outcome failed(const std::string& what) {
  return {Kind::kFailed, fmt::format("{}: {}", what, std::strerror(errno))};
}

// The number of errors, and the first of them.
Outcome refused(const std::string& file, const mapcheck::Findings& findings) {
  std::string first;
  for (const mapcheck::Finding& finding : findings.kept()) {
    if (finding.severity != mapcheck::Severity::kError) continue;
    first = fmt::format(", the first at byte {}: {}", finding.offset, finding.text);
    break;
  }
  return {Kind::kRefused,
          fmt::format("{} has {}{}", file, text::counted(findings.errors(), "error"), first)};
}

// A file that differs from its checksum was not read as it was handed over: that says nothing about
// the file.
Outcome compare(const std::string& path, const files::Digest& wanted) {
  const auto digest = files::digest_of_file(path);
  if (!digest) return failed(path);
  if (*digest == wanted) return {Kind::kDone, ""};
  return {Kind::kFailed, path + " differs from its checksum"};
}

Outcome check_groups(const Proposal& proposal) {
  if (proposal.sums.groups.empty()) return {Kind::kDone, ""};
  Outcome compared = compare(proposal.groups_path(), proposal.sums.groups);
  if (compared.kind != Kind::kDone) return compared;
  const auto bytes = files::read_whole(proposal.groups_path());
  if (!bytes) return failed(proposal.groups_path());
  const auto findings = groupmap::verify(*bytes);
  return findings.errors() > 0 ? refused("groupmap", findings) : Outcome{Kind::kDone, ""};
}

Outcome check_settings(const Proposal& proposal) {
  if (proposal.sums.settings.empty()) return {Kind::kDone, ""};
  Outcome compared = compare(proposal.settings_path(), proposal.sums.settings);
  if (compared.kind != Kind::kDone) return compared;
  const std::string wrong = cluster::mistake_in_settings(proposal.settings_path());
  return wrong.empty() ? Outcome{Kind::kDone, ""} : Outcome{Kind::kRefused, wrong};
}

Outcome check_pair(const Proposal& proposal) {
  Outcome outcome = compare(proposal.size_path(), proposal.sums.size);
  if (outcome.kind == Kind::kDone) outcome = compare(proposal.data_path(), proposal.sums.data);
  if (outcome.kind != Kind::kDone) return outcome;
  std::string error;
  const auto checked = mapcheck::lint_files(proposal.size_path(), proposal.data_path(), error);
  if (!checked) return {Kind::kFailed, error};
  if (checked->findings.errors() > 0) return refused("the pair", checked->findings);
  return outcome;
}

Outcome check_companions(const Proposal& proposal) {
  Outcome groups = check_groups(proposal);
  return groups.kind == Kind::kDone ? check_settings(proposal) : groups;
}

Outcome store(const Proposal& proposal, std::span<const std::byte> image, Prepared& prepared) {
  const auto findings = mapcheck::verify(image);
  if (findings.errors() > 0) return refused("the image", findings);
  const auto stored = store_prepared(proposal.number, proposal.sums, image);
  if (!stored) return failed("cannot store the image");
  prepared = *stored;
  return {Kind::kDone, ""};
}

Outcome prepare_pair(const Proposal& proposal, Prepared& prepared) {
  Outcome outcome = check_pair(proposal);
  if (outcome.kind != Kind::kDone) return outcome;
  mapload::ImportFailure failure;
  const auto image = mapload::import_privately(proposal.size_path(), proposal.data_path(), failure);
  if (!image) return {failure.may_pass ? Kind::kFailed : Kind::kRefused, failure.why};
  return store(proposal, image.bytes(), prepared);
}

Outcome prepare_image(const Proposal& proposal, Prepared& prepared) {
  Outcome outcome = compare(proposal.image_path(), proposal.sums.image);
  if (outcome.kind != Kind::kDone) return outcome;
  const auto image = files::read_whole(proposal.image_path());
  if (!image) return failed(proposal.image_path());
  return store(proposal, std::as_bytes(std::span(*image)), prepared);
}

}  // namespace

Outcome prepare(const Proposal& proposal, Prepared& prepared) {
  if (const auto known = find_prepared(proposal.number, proposal.sums)) {
    prepared = *known;
    return {Kind::kDone, ""};
  }
  Outcome outcome = check_companions(proposal);
  if (outcome.kind != Kind::kDone) return outcome;
  return proposal.sums.image.empty() ? prepare_pair(proposal, prepared)
                                     : prepare_image(proposal, prepared);
}

Outcome prepare_and_answer(const Proposal& proposal, const std::string& node) {
  Prepared prepared;
  Outcome outcome = prepare(proposal, prepared);
  if (outcome.kind == Kind::kFailed) return outcome;
  const bool is_answered = cluster::write_answer(
      proposal, {node, outcome.text, prepared.image, prepared.generation, prepared.timestamp});
  return is_answered ? outcome : failed("cannot answer");
}

}  // namespace tavrix::clusterd
