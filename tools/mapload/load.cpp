// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/load.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mkperms_shm.h"
#include "sweeper_log.h"
#include "tools/files/durable.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/import_child.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/publish.hpp"
#include "tools/mapload/room.hpp"
#include "tools/status/sentences.hpp"

namespace tavrix::mapload {
namespace {

// Symbolic links to the two files. The library's import removes the names that it is given, also
// when it fails, so it gets these and the files stay.
class NamesToRemove {
 public:
  // Returns false and sets errno when a name cannot be made.
  bool make(const Request& request) {
    if (mkdir(kImportFolder, 0700) != 0 && errno != EEXIST) return false;
    return name(size_, request.size_path) && name(data_, request.data_path);
  }
  ~NamesToRemove() {
    const ErrnoKeeper keep;
    for (const std::string* path : {&size_, &data_}) static_cast<void>(files::remove(*path));
    rmdir(kImportFolder);
  }
  NamesToRemove() = default;
  NamesToRemove(const NamesToRemove&) = delete;
  NamesToRemove& operator=(const NamesToRemove&) = delete;
  [[nodiscard]] char* size() { return size_.data(); }
  [[nodiscard]] char* data() { return data_.data(); }

 private:
  struct Free {
    void operator()(char* text) const { std::free(text); }
  };
  static bool name(const std::string& link, const char* file) {
    const std::unique_ptr<char, Free> whole(realpath(file, nullptr));
    return whole != nullptr && files::remove(link) && symlink(whole.get(), link.c_str()) == 0;
  }
  std::string size_ = std::string(kImportFolder) + "/size.json";
  std::string data_ = std::string(kImportFolder) + "/data.json";
};

uint64_t size_of(const char* path) {
  struct stat info {};
  return path != nullptr && stat(path, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

// Removes a file, and tells the operator when that fails, with the line that the library's import
// writes.
void remove_file(const char* path, const char* which, Report& report) {
  if (files::remove(path)) return;
  const std::string text = fmt::format("Could not unlink {} file {} errno {}", which, path, errno);
  log_perm_error(text.c_str(), CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN);
  report.push_back({Weight::kWarning, text});
}

class Loading {
 public:
  explicit Loading(const Request& request) : request_(request) {
    how_.verbose = request.verbose;
    how_.should_stop = request.should_stop;
  }

  Loaded import() {
    if (run_import()) {
      log_published();
    } else if (loaded_.result == Result::kRefused) {
      log_refused();
    }
    return std::move(loaded_);
  }

  Loaded restore(const Copy& copy) {
    if (run_restore(copy)) {
      log_published();
    } else if (loaded_.result == Result::kRefused) {
      log_refused();
    }
    return std::move(loaded_);
  }

  Loaded bring_back(const std::string& path, const files::Digest& digest) {
    if (run_bring_back(path, digest)) {
      log_published();
    } else if (loaded_.result == Result::kRefused) {
      log_refused();
    }
    return std::move(loaded_);
  }

 private:
  bool run_restore(const Copy& copy) {
    // The library itself reports a missing copy.
    if (copy.state == Copy::State::kDamaged) return refuse(copy.why);
    if (copy.state == Copy::State::kUnreadable) return fail_with(copy.why, EIO);
    if (!prepare(nullptr, nullptr) || !fill() || !check_table()) return false;
    if (digest_ != copy.digest) return fail_with("the table differs from the local copy", EIO);
    if (!publish()) return false;
    if (!settle_copy(digest_)) warn("cannot write the checksum of the local copy", errno);
    return true;
  }

  // The local copy becomes that image, and the table is filled from it as at a restart. Until the
  // map is published the old copy has its second name, as during an import.
  bool run_bring_back(const std::string& path, const files::Digest& digest) {
    const auto found = files::digest_of_file(path);
    if (!found) return fail(path.c_str(), errno);
    if (*found != digest) {
      return refuse(fmt::format("{} is damaged: its checksum is not the one that was noted", path));
    }
    CopyReplacement copy;
    if (!copy.begin()) return fail("cannot set the local copy aside", errno);
    if (!copy.put(path)) return fail("cannot make the image the local copy", errno);
    if (!prepare(nullptr, nullptr) || !fill() || !check_table()) return false;
    if (digest_ != digest) return fail_with("the table differs from the image", EIO);
    return copy.confirm(digest_) ? finish(copy) : fail("cannot sync the local copy", errno);
  }

  bool run_import() {
    if (!prepare(request_.size_path, request_.data_path)) return false;
    const std::string lack = lack_after_making_room();
    if (!lack.empty()) return refuse(lack);
    NamesToRemove names;
    if (!names.make(request_)) return fail("cannot make names for the two files", errno);
    summary_.perm_map_name_size = names.size();
    summary_.perm_map_name_data = names.data();
    CopyReplacement copy;
    if (!copy.begin()) return fail("cannot set the local copy aside", errno);
    if (!fill() || !check_table() || !check_copy() || !passes_guard()) return false;
    if (!copy.confirm(digest_)) return fail("cannot sync the local copy", errno);
    if (!finish(copy)) return false;
    if (request_.files == Files::kKept) return true;
    remove_file(request_.data_path, "data", loaded_.report);
    remove_file(request_.size_path, "size", loaded_.report);
    return true;
  }

  bool finish(CopyReplacement& copy) {
    if (!publish()) return false;
    if (!table_.is_in_place() || !files::exists(kLocalCopy)) {
      return fail_with("the table or the local copy vanished while it was published", EAGAIN);
    }
    copy.keep();
    // The map is current from here on, whatever fails; the next recovery does the rest again.
    if (!settle_copy(digest_)) warn("cannot remove the previous local copy", errno);
    return true;
  }

  bool passes_guard() {
    if (!request_.guard) return true;
    Guarded answer = request_.guard(table_.image());
    if (answer.result == Result::kPublished) return true;
    loaded_.result = answer.result;
    loaded_.error = std::move(answer.text);
    return false;
  }

  std::string lack_after_making_room() {
    std::string lack;
    do {
      lack = lack_of_room(summary_.memsize, size_of(request_.data_path));
    } while (!lack.empty() && is_lack_of_disk(summary_.memsize) && request_.make_room &&
             request_.make_room());
    return lack;
  }

  // Runs the size pass and makes an empty table of that size.
  bool prepare(const char* size_path, const char* data_path) {
    SizePass pass = run_size_pass(size_path, data_path, how_);
    if (!pass.end.ok()) return end_with(pass.end);
    summary_ = pass.summary;
    const Tables tables = look_at_tables();
    if (tables.error != 0) return fail("cannot look at the tables", tables.error);
    if (size_path != nullptr) {
      const std::string lack = lack_after_making_room();
      if (!lack.empty()) return refuse(lack);
    }
    const int current = tables.set == -1 || tables.current != 1 ? 0 : 1;
    const std::string obstacle = table_.create(1 - current, summary_.memsize);
    if (!obstacle.empty()) return fail_with(obstacle, errno);
    summary_.membuf = table_.address();
    return true;
  }

  bool fill() {
    if (request_.progress) {
      how_.progress = [this] {
        request_.progress(Phase::kImporting, folders_done(table_.address()),
                          summary_.total_fselems);
      };
    }
    const PassEnd end = run_data_pass(summary_, how_);
    return end.ok() || end_with(end);
  }

  bool check_table() {
    mapcheck::Progress progress;
    if (request_.progress) {
      progress = [this](uint64_t done, uint64_t folders) {
        request_.progress(Phase::kVerifying, done, folders);
      };
    }
    loaded_.findings = mapcheck::verify(table_.image(), progress);
    if (loaded_.findings.errors() > 0) {
      return refuse("the image is broken and was not published; the previous map stays");
    }
    digest_ = files::digest_of(table_.image());
    return true;
  }

  bool check_copy() {
    const auto digest = files::digest_of_file(kLocalCopy);
    if (!digest) return fail("cannot read the local copy", errno);
    if (*digest == digest_) return true;
    return fail_with("the local copy differs from the table", EIO);
  }

  bool publish() {
    const std::string obstacle = table_.publish(digest_, loaded_.report);
    if (!obstacle.empty()) return fail_with(obstacle, errno);
    tell_servers(loaded_.report);
    tavrix_be_header header{};
    std::memcpy(&header, table_.image().data(), sizeof header);
    loaded_.result = Result::kPublished;
    loaded_.table = table_.index();
    loaded_.folders = header.total_fselems;
    loaded_.entries = header.total_aces;
    loaded_.bytes = summary_.memsize;
    return true;
  }

  bool refuse(std::string why) {
    loaded_.result = Result::kRefused;
    loaded_.error = std::move(why);
    return false;
  }
  bool fail_with(std::string why, int error) {
    refuse(std::move(why));
    if (files::is_transient(error)) loaded_.result = Result::kTryAgain;
    return false;
  }
  bool fail(const char* what, int error) {
    return fail_with(fmt::format("{}: {}", what, std::strerror(error)), error);
  }
  bool end_with(const PassEnd& end) {
    refuse(end.text());
    if (end.is_transient()) loaded_.result = Result::kTryAgain;
    if (end.kind == PassEnd::Kind::kStopped) loaded_.result = Result::kStopped;
    return false;
  }
  void warn(const char* what, int error) {
    loaded_.report.push_back({Weight::kWarning, fmt::format("{}: {}", what, std::strerror(error))});
  }

  const Request& request_;
  Supervision how_;
  memsummary_s summary_{};
  NextTable table_;
  files::Digest digest_;
  Loaded loaded_;
};

Fd lock(int flags) {
  Fd lock(open(kLock, O_CREAT | O_RDWR | O_CLOEXEC, kPrivate));
  while (lock && flock(lock.get(), flags) != 0) {
    if (errno != EINTR) lock.reset();
  }
  return lock;
}

}  // namespace

std::string Loaded::text() const {
  if (!ok()) return error;
  return status::current_map_text(table, folders, entries, bytes);
}

Fd lock_maps() { return lock(LOCK_EX); }
Fd try_lock_maps() { return lock(LOCK_EX | LOCK_NB); }

Loaded load(const Request& request) { return Loading(request).import(); }
Loaded load_copy(const Request& request, const Copy& copy) {
  return Loading(request).restore(copy);
}
Loaded load_image(const Request& request, const std::string& path, const files::Digest& digest) {
  return Loading(request).bring_back(path, digest);
}

void log_published() {
  log_perm_error("Successfully processed permission map", PERMISSION_MAP_SUCCESS,
                 SWEEPER_LOGSEV_INFO);
}

void log_refused() {
  log_perm_error("Failed processing permission map", CORRUPTED_PERMISSION_MAP, SWEEPER_LOGSEV_CRIT);
}

}  // namespace tavrix::mapload
