// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/patterns/complaints.hpp"

#include "tools/patterns/pattern_file.hpp"

namespace tavrix::patterns {

std::vector<std::string> complaints(const global_param_s* settings) {
  const std::string path = settings[PARAM_REGEX_FILE_NAME].value.strval;
  if (path.empty() || settings[PARAM_CHECK_REGEX_UNLINK].value.intval == 0) return {};
  std::string error;
  const auto file = PatternFile::read(path, error);
  if (!file) return {error + ": there are no patterns"};
  std::vector<std::string> lines;
  for (const Finding& finding : file->findings()) lines.push_back(line_of(path, finding));
  if (file->matches_everything() != nullptr) {
    lines.push_back(path + ": a line matches every name: the server uses none of the patterns");
  }
  return lines;
}

}  // namespace tavrix::patterns
