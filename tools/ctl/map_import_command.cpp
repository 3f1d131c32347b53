// tavrixctl map import, map restore: the loader.
//
// The import runs in a child: a document that breaks the grammar aborts it, and a table must not
// stay behind. Nothing is published that a check of the finished image has not found sound.

#include <fcntl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "mkperms_shm.h"
#include "perm_map.h"
#include "read_perms.h"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_table.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapcheck/verify.hpp"

namespace tavrix::ctl {
namespace {

namespace fs = std::filesystem;

const char* kLocalCopy = TAVRIX_PERMBE_MAP_PATH;

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
  std::string path_ = std::string(kLocalCopy) + ".before";
  bool exists_ = false;
};

// The table that will be the next one; removed again unless it is published.
class NextTable {
 public:
  // false, with a complaint, when it cannot be made.
  bool create(int current, uint32_t bytes) {
    current_ = current;
    const int key = get_next_perm_table_key(current);
    table_.reset(or_none(create_perm_map_shm(key, bytes, &shmid_)));
    if (table_) return true;
    if (shmget(key, 0, 0) != -1) {
      complain(
          "table {} (key 0x{:x}) is there already: an import is running, or one left it behind; "
          "\"tavrixctl map remove --stale\" clears it",
          1 - current, key);
    } else {
      complain("cannot make a table of {}: {}", human_bytes(bytes), std::strerror(errno));
    }
    return false;
  }
  ~NextTable() {
    if (table_ && !is_published_) shmctl(shmid_, IPC_RMID, nullptr);
  }
  [[nodiscard]] void* get() const { return table_.get(); }
  bool publish() {
    is_published_ = true;  // from the swap on the table is the readers', whatever comes of it
    if (swap_maps(static_cast<unsigned>(current_)) == 0 && map_initialized(1) == 0) return true;
    complain("cannot make the new table current: {}", std::strerror(errno));
    is_published_ = map_state().current != current_;
    return false;
  }

 private:
  static void* or_none(void* table) { return table == nullptr ? ShmTraits::none() : table; }
  ShmAttachment table_;
  int shmid_ = -1;
  int current_ = 0;
  bool is_published_ = false;
};

void draw_progress(const tavrix_be_header& header, uint32_t folders) {
  constexpr unsigned kWidth = 40;
  const auto done =
      __atomic_load_n(
          reinterpret_cast<const uint32_t*>(reinterpret_cast<const char*>(&header) + 132),
          __ATOMIC_RELAXED) /
      sizeof(fs_elem_s);
  const auto filled = folders == 0 ? kWidth : static_cast<unsigned>(done * kWidth / folders);
  std::fprintf(stderr, "\r[%-*s] %lu of %u folders", static_cast<int>(kWidth),
               std::string(std::min(filled, kWidth), '=').c_str(), static_cast<unsigned long>(done),
               folders);
}

// Runs the import in a child and draws its progress; its code, or -1 when it aborted.
int run_import(memsummary_s& summary, bool verbose) {
  const bool draws = isatty(STDERR_FILENO) == 1 && !verbose && summary.total_fselems > 0;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const QuietOutput quiet(!verbose);
    const int code = init_permbe_shm(&summary);
    std::fflush(nullptr);
    _exit(code);
  }
  const auto& header = *static_cast<const tavrix_be_header*>(summary.membuf);
  int status = 0;
  while (waitpid(child, &status, draws ? WNOHANG : 0) == 0) {
    draw_progress(header, summary.total_fselems);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (draws) std::fprintf(stderr, "\r\033[K");
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

// The sequence of a load; without paths, from the local copy.
int load(const Options& options, const char* size_path, const char* data_path) {
  set_debug_level(0);
  if (init_perm_map_semaphore() != 0) {
    complain("cannot get the semaphores: {}", std::strerror(errno));
    return kFailure;
  }
  const int current = get_current_perm_table_index_for_fill();
  memsummary_s* made = nullptr;
  int code;
  {
    const QuietOutput quiet(!options.verbose);
    code = get_permbe_shmsize(size_path, data_path, &made);
  }
  const Summary summary(made);
  if (code != SHM_MEMBE_OK || current < 0) {
    complain("{} (code {})", meaning_of(code), code);
    return kFailure;
  }
  NextTable table;
  if (!table.create(current, summary->memsize)) return kFailure;
  summary->membuf = table.get();

  LocalCopyBackup backup;
  code = run_import(*summary, options.verbose);
  if (code == -1) {
    backup.put_back();
    complain(
        "the import was aborted by an assertion: the files break the grammar; \"tavrixctl map "
        "lint\" tells where");
    return kFailure;
  }
  if (code != SHM_MEMBE_OK) {
    backup.put_back();
    complain("{} (code {})", meaning_of(code), code);
    return kFailure;
  }
  const auto* bytes = static_cast<const std::byte*>(table.get());
  const mapcheck::Findings findings = mapcheck::verify({bytes, summary->memsize});
  if (findings.errors() > 0) {
    backup.put_back();
    if (!options.json) print_findings(findings);
    complain("the image is broken and was not published; the map of before stays");
    return kFailure;
  }
  if (!table.publish()) return kFailure;
  const auto& header = *reinterpret_cast<const tavrix_be_header*>(bytes);
  const uint32_t folders = header.total_fselems;
  const uint32_t aces = header.total_aces;
  if (options.json) {
    print({{"table", 1 - current},
           {"folders", folders},
           {"aces", aces},
           {"bytes", summary->memsize}});
  } else {
    fmt::print("table {} is current: {} folders, {} entries, {}\n", 1 - current, folders, aces,
               human_bytes(summary->memsize));
  }
  return kYes;
}

int import(const Options& options, const std::string& size_path, const std::string& data_path,
           bool trust) {
  if (!trust) {
    std::string error;
    const auto result = mapcheck::lint_files(size_path, data_path, error);
    if (!result) {
      complain("{}", error);
      return kFailure;
    }
    if (result->findings.errors() > 0) {
      if (options.json) {
        print(json_of(result->findings));
      } else {
        print_findings(result->findings);
      }
      complain("not imported: {} errors; --trust imports all the same", result->findings.errors());
      return kNo;
    }
  }
  return load(options, size_path.c_str(), data_path.c_str());
}

}  // namespace

void add_map_import_commands(CLI::App& map, Options& options, Action& action) {
  static std::string size_path, data_path;
  static bool trust = false;
  CLI::App* import_command = map.add_subcommand(
      "import", "Import a size file and a data file and make the map current (removes both files)");
  import_command->add_option("SIZE", size_path, "the size file")->required();
  import_command->add_option("DATA", data_path, "the data file")->required();
  import_command->add_flag("--trust", trust, "do not lint the files first");
  import_command->callback(
      [&] { action = [&options] { return import(options, size_path, data_path, trust); }; });

  map.add_subcommand("restore", "Make a table from the local copy, as after a restart")
      ->callback([&] { action = [&options] { return load(options, nullptr, nullptr); }; });
}

}  // namespace tavrix::ctl
