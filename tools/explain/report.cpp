// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/report.hpp"

#include <algorithm>

#include "tavrix_getgrouplist.h"
#include "tools/explain/operations.hpp"

namespace tavrix::explain {

Report explain(const Question& question, Answer answer) {
  Report report;
  report.question = question;
  report.answer = std::move(answer);
  report.would_grant = would_grant(question, report.answer, Receivers::kCallerAndGroups);
  const bool is_for_a_group = std::any_of(report.would_grant.begin(), report.would_grant.end(),
                                          [](const Gift& gift) { return !gift.trustee.is_user; });
  if (is_for_a_group) {
    report.would_grant_alone = would_grant(question, report.answer, Receivers::kCaller);
  }
  report.would_refuse = would_refuse(question, report.answer);
  return report;
}

std::vector<std::string> warnings(const Report& report) {
  std::vector<std::string> lines;
  if (report.group_map != Groups::State::kRead) {
    lines.push_back(std::string("the group list map " TAVRIX_GROUPMAP_PATH " is ") +
                    (report.group_map == Groups::State::kMissing ? "missing" : "broken") +
                    ": servers take everybody for a standard user" +
                    (report.source == GroupSource::kMachine
                         ? "; this verdict is for the groups of the machine"
                         : ""));
  }
  if (report.is_about_new_file) {
    lines.push_back("to write in a folder is to make a file in it; asked: " +
                    name_of(report.question.op) + " " + report.answer.facts.path);
  } else if (report.answer.facts.type == FSTYPE_DOES_NOT_EXIST) {
    lines.emplace_back("no such file; judged as one to be made");
  }
  return lines;
}

}  // namespace tavrix::explain
