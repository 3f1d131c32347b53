// SPDX-License-Identifier: LGPL-3.0-or-later
// The operator's log of permission map imports. It is opened for each line, so that any process may
// write one and the file may be rotated at any time.

#include "sweeper_log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "internal/scoped.hpp"
#include "logging.h"

const char* const messgage_dictionary[3] = {
    "Successfully loaded permission map from cloud filesystem",
    "Missing or corrupted temporary files created to import permission map from cloud filesystem. "
    "Please reset permissions",
    "The created permission map is corrupted. To regain access to the share please reset "
    "permissions",
};

namespace tavrix {
namespace {

// Room for the rest of a line beside the time and the message: numbers, commas and the newline.
constexpr std::size_t kRoomForNumbers = 32;

struct CloseLog {
  void operator()(sweeper_log* log) const noexcept {
    close_sweeper_log(log);
    std::free(log);
  }
};
using OpenLog = std::unique_ptr<sweeper_log, CloseLog>;

// A copy of the text. The check for a newline looks at the NUL instead of the byte before it, so a
// newline at the end stays. Readers of the log rely on that, and the library's callers pass none.
CString trimmed_copy(const char* txt) {
  CString copy(strdup(txt));
  if (copy == nullptr) return copy;
  char* end = copy.get() + std::strlen(copy.get());
  if (*end == '\n') *end = '\0';
  return copy;
}

// The text of ctime() without its newline.
struct TimeText {
  char text[32] = "";
  std::size_t ctime_length = 0;  // with its newline
};

TimeText time_text(time_t now) {
  TimeText result;
  if (ctime_r(&now, result.text) == nullptr) result.text[0] = '\0';
  result.ctime_length = std::strlen(result.text);
  if (char* newline = std::strchr(result.text, '\n'); newline != nullptr) *newline = '\0';
  return result;
}

}  // namespace
}  // namespace tavrix

sweeper_log* open_sweeper_log(const char* path) {
  if (path == nullptr) {
    TAVRIX_LOG(0, "sweeper: No file given for sweeper log file");
    return nullptr;
  }
  tavrix::Malloced<sweeper_log> log(tavrix::malloc_zeroed<sweeper_log>());
  if (log == nullptr) {
    TAVRIX_LOG(0, "sweeper: Cannot create log file handle. No memory");
    return nullptr;
  }
  log->fp = std::fopen(path, "ae");
  if (log->fp == nullptr) {
    TAVRIX_LOG(0, "sweeper: Cannot create log file %s. Error: %s", path, strerror(errno));
    return nullptr;
  }
  return log.release();
}

void close_sweeper_log(sweeper_log* log) {
  if (log == nullptr) {
    TAVRIX_LOG(0, "sweeper: Null sweeper log");
    return;
  }
  if (log->fp != nullptr) std::fclose(log->fp);
  log->fp = nullptr;  // a second close is harmless
}

int create_sweeperlog_msg(unsigned int severity, const char* txt, int indx, char** message,
                          unsigned int* meslen) {
  const time_t now = std::time(nullptr);
  const tavrix::TimeText when = tavrix::time_text(now);
  const tavrix::CString text = tavrix::trimmed_copy(txt);
  if (text == nullptr) {
    TAVRIX_LOG(0, "sweeper: Cannot allocate memory for sweeper log buffer");
    return -1;
  }
  const std::size_t size = when.ctime_length + std::strlen(txt) + tavrix::kRoomForNumbers;
  auto* line = static_cast<char*>(std::realloc(*message, size));
  if (line == nullptr) {
    TAVRIX_LOG(0, "sweeper: Cannot allocate memory for sweeper log buffer");
    return -1;
  }
  std::memset(line, 0, size);
  std::snprintf(line, size, "%lu,%s,%d,%s,%d\n", static_cast<unsigned long>(now), when.text,
                static_cast<int>(severity), text.get(), indx);
  *message = line;
  *meslen = static_cast<unsigned int>(size);
  return 0;
}

int write_sweeper_log(sweeper_log* log, size_t len, const char* message) {
  if (log == nullptr) {
    TAVRIX_LOG(0, "sweeper: Null log handle");
    return -1;
  }
  if (log->fp == nullptr) {
    TAVRIX_LOG(0, "sweeper: Null log file pointer in handle");
    return -1;
  }
  if (len == 0) {
    TAVRIX_LOG(0, "Message len is zero. Nothing to write");
    return -1;
  }
  if (message == nullptr) {
    TAVRIX_LOG(0, "sweeper: Null message. Nothing to write");
    return -1;
  }
  // Flush here: after the close a full disk could not be reported any more.
  if (std::fputs(message, log->fp) == EOF || std::fflush(log->fp) != 0) {
    TAVRIX_LOG(0, "sweeper: Write to log file failed %s", strerror(errno));
    return -1;
  }
  return 0;
}

void log_perm_error(const char* txt, int indx, sweeper_logmsg_sev severity) {
  const tavrix::OpenLog log(open_sweeper_log(TAVRIX_SWEEPER_LOG_PATH));
  if (log == nullptr) return;
  char* line = nullptr;
  unsigned int size = 0;
  if (create_sweeperlog_msg(static_cast<unsigned int>(severity), txt, indx, &line, &size) != 0) {
    return;
  }
  const tavrix::CString owner(line);
  write_sweeper_log(log.get(), std::strlen(line), line);
}
