// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/lint.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "mkperms_shm.h"
#include "tools/mapcheck/lint_data.hpp"
#include "tools/mapcheck/lint_size.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::mapcheck {
namespace {

constexpr uint64_t kMostInOneWrite = 0x7ffff000;  // the kernel's limit of a read() or write()

// Compares a count in the size file with the content of the data file. A count that is too small
// makes the import overrun the image; one that is too large wastes memory.
void compare(const char* key, uint64_t stated, uint64_t found, Severity if_too_large,
             LintResult& result) {
  if (stated == found) return;
  const bool is_short = found > stated;
  result.findings.add({is_short ? Severity::kError : if_too_large, "size file", "", 0,
                       fmt::format("{} is {}; the data file {} {}", key, stated,
                                   is_short ? "needs" : "needs only", found)});
}

void check_fit(LintResult& result) {
  // The image holds the count of folders. When it is larger than the number of folders, the import
  // seems to have ended early, and the image is not published.
  compare("TOTALFSELEMS", result.size.folders, result.data.folders, Severity::kError, result);
  compare("TOTALACES", result.size.aces, result.data.aces, Severity::kWarning, result);
  compare("TOTALNAMELEN", result.size.name_bytes, result.data.name_bytes, Severity::kWarning,
          result);
  const uint64_t list_room = (sizeof(child_list_s) + sizeof(uint32_t)) * result.size.folders;
  if (result.data.list_bytes > list_room) {
    result.findings.add({Severity::kError, "data file", "", 0,
                         fmt::format("the child lists need {}; the image has {}",
                                     text::counted(result.data.list_bytes, "byte"), list_room)});
  }
}

class FileSource : public Source {
 public:
  explicit FileSource(const std::string& path) : file_(std::fopen(path.c_str(), "re")) {}
  [[nodiscard]] bool is_open() const { return file_ != nullptr; }
  [[nodiscard]] bool failed() const { return std::ferror(file_.get()) != 0; }
  // Tells the progress of the reads that follow.
  void tell(const Progress& progress) {
    struct stat info {};
    if (fstat(fileno(file_.get()), &info) != 0 || info.st_size <= 0) return;
    size_ = static_cast<uint64_t>(info.st_size);
    progress_ = progress;
  }
  std::size_t read(char* buffer, std::size_t room) override {
    if (progress_) progress_(done_, size_);
    const std::size_t length = std::fread(buffer, 1, room, file_.get());
    done_ += length;
    return length;
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> file_;
  Progress progress_;
  uint64_t done_ = 0, size_ = 0;
};

}  // namespace

LintResult lint(Source& size_file, Source& data_file) {
  LintResult result;
  lint_size_file(size_file, result);
  result.image_bytes = image_bytes_of(result.size);
  if (result.image_bytes > std::numeric_limits<uint32_t>::max()) {
    result.findings.add(
        {Severity::kError, "size file", "", 0,
         fmt::format("the image would have {} bytes, more than 32 bits hold", result.image_bytes)});
  }
  if (result.image_bytes > kMostInOneWrite &&
      result.image_bytes <= std::numeric_limits<uint32_t>::max()) {
    result.findings.add({Severity::kError, "size file", "", 0,
                         fmt::format("the image would have {} bytes; the local copy is written by "
                                     "one call, and {} is the most for that",
                                     result.image_bytes, kMostInOneWrite)});
  }
  if (lint_data_file(data_file, result)) check_fit(result);
  return result;
}

std::optional<LintResult> lint_files(const std::string& size_path, const std::string& data_path,
                                     std::string& error, const Progress& progress) {
  FileSource size(size_path);
  FileSource data(data_path);
  for (const auto& [source, path] : {std::pair{&size, &size_path}, std::pair{&data, &data_path}}) {
    if (source->is_open()) continue;
    error = fmt::format("cannot open {}: {}", *path, std::strerror(errno));
    return std::nullopt;
  }
  data.tell(progress);
  LintResult result = lint(size, data);
  if (size.failed() || data.failed()) {
    error = fmt::format("cannot read {}", size.failed() ? size_path : data_path);
    return std::nullopt;
  }
  return result;
}

}  // namespace tavrix::mapcheck
