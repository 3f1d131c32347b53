// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/service/journal.hpp"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tavrix::service {
namespace {

int level_of(Tone tone) {
  switch (tone) {
    case Tone::kInfo:
      return LOG_INFO;
    case Tone::kWarning:
      return LOG_WARNING;
    default:
      return LOG_ERR;
  }
}

}  // namespace

bool is_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");  // device and inode
  struct stat status {};
  if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

void say(Tone tone, std::string_view text) {
  const std::string prefix = is_journal() ? "<" + std::to_string(level_of(tone)) + ">" : "";
  std::string lines;
  for (;;) {
    const auto end = text.find('\n');
    lines.append(prefix).append(text.substr(0, end)).append("\n");
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  std::fputs(lines.c_str(), stderr);
}

}  // namespace tavrix::service
