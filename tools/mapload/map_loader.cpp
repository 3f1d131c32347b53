#include "tools/mapload/map_loader.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "internal/scoped.hpp"
#include "mkperms_shm.h"
#include "perm_map.h"
#include "read_perms.h"
#include "tools/mapcheck/verify.hpp"

namespace tavrix::mapload {

const char* const kCopyBefore = TAVRIX_PERMBE_MAP_PATH ".before";

namespace {

namespace fs = std::filesystem;

const char* kLocalCopy = TAVRIX_PERMBE_MAP_PATH;
const char* kLock = "/etc/tavrix/.map.lock";
// Where the header of an image holds the offset of the next folder.
constexpr std::size_t kFolderOffsetAt = 132;

struct FreeSummary {
  void operator()(memsummary_s* summary) const {
    std::free(summary->perm_map_name_size);
    std::free(summary->perm_map_name_data);
    std::free(summary);
  }
};
using Summary = std::unique_ptr<memsummary_s, FreeSummary>;

// The library's traces of an import fill a terminal; --verbose lets them through.
class QuietOutput {
 public:
  explicit QuietOutput(bool quiet) {
    if (!quiet) return;
    std::fflush(stdout);
    saved_.reset(dup(STDOUT_FILENO));
    const Fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null.get(), STDOUT_FILENO);
  }
  ~QuietOutput() {
    if (!saved_) return;
    std::fflush(stdout);
    dup2(saved_.get(), STDOUT_FILENO);
  }
  QuietOutput(const QuietOutput&) = delete;
  QuietOutput& operator=(const QuietOutput&) = delete;

 private:
  Fd saved_;
};

// The local copy as it was, to put back when the new image turns out broken: readers look at no
// table without one, and the next restart reads it.
class LocalCopyBackup {
 public:
  LocalCopyBackup() {
    std::error_code none;
    if (!fs::exists(kLocalCopy, none)) return;
    fs::copy_file(kLocalCopy, path_, fs::copy_options::overwrite_existing, none);
    exists_ = !none;
  }
  ~LocalCopyBackup() {
    std::error_code none;
    if (exists_) fs::remove(path_, none);
  }
  LocalCopyBackup(const LocalCopyBackup&) = delete;
  LocalCopyBackup& operator=(const LocalCopyBackup&) = delete;
  void put_back() {
    std::error_code none;
    if (exists_) {
      fs::rename(path_, kLocalCopy, none);
      exists_ = false;
    } else {
      fs::remove(kLocalCopy, none);
    }
  }

 private:
  std::string path_ = kCopyBefore;
  bool exists_ = false;
};

// The table that will be the next one; removed again unless it is published.
class NextTable {
 public:
  // What stands in the way; nothing when it is made.
  std::string create(int current, uint32_t bytes) {
    current_ = current;
    const int key = get_next_perm_table_key(current);
    table_.reset(or_none(create_perm_map_shm(key, bytes, &shmid_)));
    if (table_) return {};
    if (shmget(key, 0, 0) == -1) {
      return fmt::format("cannot make a table of {} bytes: {}", bytes, std::strerror(errno));
    }
    return fmt::format(
        "table {} (key 0x{:x}) is there already: an import is running, or one left it behind; "
        "\"tavrixctl map remove --stale\" clears it",
        1 - current, key);
  }
  ~NextTable() {
    if (table_ && !is_published_) shmctl(shmid_, IPC_RMID, nullptr);
  }
  [[nodiscard]] void* get() const { return table_.get(); }
  bool publish() {
    is_published_ = true;  // from the swap on the table is the readers', whatever comes of it
    if (swap_maps(static_cast<unsigned>(current_)) == 0 && map_initialized(1) == 0) return true;
    is_published_ = get_current_perm_table_index_for_fill() != current_;
    return false;
  }

 private:
  static void* or_none(void* table) { return table == nullptr ? ShmTraits::none() : table; }
  ShmAttachment table_;
  int shmid_ = -1;
  int current_ = 0;
  bool is_published_ = false;
};

// Folders that the child has filled so far.
uint64_t folders_done(const void* image) {
  const auto* offset =
      reinterpret_cast<const uint32_t*>(static_cast<const char*>(image) + kFolderOffsetAt);
  return __atomic_load_n(offset, __ATOMIC_RELAXED) / sizeof(fs_elem_s);
}

// Runs the import in a child; its code, or -1 when it aborted.
int run_import(memsummary_s& summary, const Request& request) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const QuietOutput quiet(!request.verbose);
    const int code = init_permbe_shm(&summary);
    std::fflush(nullptr);
    _exit(code);
  }
  int status = 0;
  while (waitpid(child, &status, request.progress ? WNOHANG : 0) == 0) {
    request.progress(folders_done(summary.membuf), summary.total_fselems);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char* meaning_of(int code) {
  switch (code) {
    case SHM_MEMBE_ERR_NOMEM:
      return "out of memory";
    case SHM_MEMBE_ERR_BADARGS:
      return "a file cannot be read, or the image has no header";
    case SHM_MEMBE_ERR_NOPERM_SIZE_FILE:
      return "the size file is missing";
    case SHM_MEMBE_ERR_NOPERM_FILE:
      return "the data file is missing";
    case SHM_MEMBE_ERR_NOCACHE_FILE:
      return "there is no local copy";
    case SHM_MEMBE_ERR_PERMMAP_WRERR:
      return "the local copy cannot be written";
    case SHM_MEMBE_ERR_PERMMAP_RDERR:
      return "the local copy cannot be read, or is no image";
    case SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL:
      return "the local copy is larger than the table";
    default:
      return "it failed";
  }
}

std::string with_code(int code) { return fmt::format("{} (code {})", meaning_of(code), code); }

Loaded failed(std::string error) {
  Loaded result;
  result.error = std::move(error);
  return result;
}

// Fills the table and publishes it when it is sound.
Loaded fill_and_publish(NextTable& table, memsummary_s& summary, const Request& request) {
  LocalCopyBackup backup;
  const int code = run_import(summary, request);
  if (code != SHM_MEMBE_OK) {
    backup.put_back();
    if (code != -1) return failed(with_code(code));
    return failed(
        "the import was aborted by an assertion: the files break the grammar; \"tavrixctl map "
        "lint\" tells where");
  }
  const auto* bytes = static_cast<const std::byte*>(table.get());
  Loaded result;
  result.findings = mapcheck::verify({bytes, summary.memsize});
  if (result.findings.errors() > 0) {
    backup.put_back();
    result.error = "the image is broken and was not published; the map of before stays";
    return result;
  }
  if (!table.publish()) {
    return failed(fmt::format("cannot make the new table current: {}", std::strerror(errno)));
  }
  const auto& header = *reinterpret_cast<const tavrix_be_header*>(bytes);
  result.folders = header.total_fselems;
  result.entries = header.total_aces;
  result.bytes = summary.memsize;
  return result;
}

}  // namespace

Fd lock_maps() {
  Fd lock(open(kLock, O_CREAT | O_RDWR | O_CLOEXEC, 0600));
  if (lock && flock(lock.get(), LOCK_EX) != 0) lock.reset();
  return lock;
}

Loaded load(const Request& request) {
  if (init_perm_map_semaphore() != 0) {
    return failed(fmt::format("cannot get the semaphores: {}", std::strerror(errno)));
  }
  const int current = get_current_perm_table_index_for_fill();
  memsummary_s* made = nullptr;
  int code;
  {
    const QuietOutput quiet(!request.verbose);
    code = get_permbe_shmsize(request.size_path, request.data_path, &made);
  }
  const Summary summary(made);
  if (code != SHM_MEMBE_OK || current < 0) return failed(with_code(code));
  NextTable table;
  if (std::string obstacle = table.create(current, summary->memsize); !obstacle.empty()) {
    return failed(std::move(obstacle));
  }
  summary->membuf = table.get();
  Loaded result = fill_and_publish(table, *summary, request);
  result.table = 1 - current;
  return result;
}

bool remove_stale_table() {
  const int current = get_current_perm_table_index_for_fill();
  if (current < 0) return false;
  const int stale = shmget(get_next_perm_table_key(current), 0, 0);
  return stale != -1 && shmctl(stale, IPC_RMID, nullptr) == 0;
}

bool has_current_table() {
  const int current = get_current_perm_table_index_for_fill();
  return current >= 0 && shmget(get_next_perm_table_key(1 - current), 0, 0) != -1;
}

}  // namespace tavrix::mapload
