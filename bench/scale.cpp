// SPDX-License-Identifier: LGPL-3.0-or-later
// The growth with the servers and the clients of a cluster: decisions of many processes on one
// table, dump files of many nodes, one map for many loaders. scripts/scale.sh runs it in a private
// world.
//
// It prints processor time beside the time on the clock: the first does not depend on what else the
// machine does.

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/sample_map.hpp"
#include "internal/scoped.hpp"
#include "perm_enforcer.h"
#include "tools/files/checksum.hpp"
#include "tools/mapload/private_import.hpp"
#include "vfs_common.h"

namespace tavrix::bench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Cost {
  double seconds = 0;    // on the clock
  double processor = 0;  // seconds of all children
};

double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double processor_of_children() {
  struct rusage usage {};
  getrusage(RUSAGE_CHILDREN, &usage);
  return seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
}

// Runs the body in so many processes that begin together. Ends the program when one of them fails.
Cost run_together(int processes, const std::function<void(int)>& body) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
  const Fd wait_end(ends[0]);
  Fd go_end(ends[1]);
  std::fflush(stdout);
  for (int number = 0; number < processes; ++number) {
    if (fork() != 0) continue;
    go_end.reset();
    char none = 0;
    while (read(wait_end.get(), &none, 1) > 0) {
    }
    body(number);
    std::_Exit(0);
  }
  const double before = processor_of_children();
  const auto start = Clock::now();
  go_end.reset();
  for (int end = 0; wait(&end) > 0;) {
    if (end != 0) std::abort();
  }
  return {std::chrono::duration<double>(Clock::now() - start).count(),
          processor_of_children() - before};
}

// --- decisions -----------------------------------------------------------------------------------

constexpr uint64_t kFolders = 100'000;
constexpr int kDecisions = 20'000;  // of each process

void decide(const std::vector<std::string>& paths) {
  gid_t groups[4] = {100, 101, 102, 9002};
  process_trustees_s caller{};
  caller.euid = 1003;
  caller.egid = 9003;
  caller.num_sup_gids = 4;
  caller.gids = groups;
  vfs_set_admins_powerusers(9001, 9002);
  if (setegid(9003) != 0 || seteuid(1003) != 0) std::abort();
  int is_nav = 0;
  for (std::size_t i = 0; i < kDecisions; ++i) {
    const int verdict = vfs_enforce_perms("/tavrix", paths[i % paths.size()].c_str(), FSOP_STAT,
                                          &caller, 0, &is_nav);
    if (verdict != TXPERMS_HAS_PERMS && verdict != TXPERMS_NO_PERM) std::abort();
  }
}

void measure_decisions() {
  const auto shape = shape_of(kFolders);
  publish(shape);
  std::vector<std::string> paths;
  for (const std::string& path : some_paths(shape, 64)) {
    paths.push_back("/tavrix/" + path);
    fs::create_directories(paths.back());
  }
  fmt::print("decisions on one table of {} folders\n", kFolders);
  fmt::print("{:>10} {:>16} {:>28}\n", "processes", "decisions/s", "processor us/decision");
  for (const int processes : {1, 2, 4, 8, 16}) {
    const Cost cost = run_together(processes, [&](int /*number*/) { decide(paths); });
    const double all = double{kDecisions} * processes;
    fmt::print("{:>10} {:>16.0f} {:>28.2f}\n", processes, all / cost.seconds,
               cost.processor / all * 1e6);
  }
}

// --- dump files ----------------------------------------------------------------------------------

constexpr int kDumps = 200;  // of each node
constexpr int kEvents = 20;  // in each dump file

void flush_as_node(int number) {
  if (unshare(CLONE_NEWIPC) != 0) std::abort();
  const std::string folder = fmt::format("/scratch/staging/node{}", number);
  fs::create_directories(folder);
  global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = 1 << 20;
  global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = 80;
  std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, folder.c_str());
  if (create_eventstore_staging_semaphore() != 1 || create_staging_buffer() != 0) std::abort();
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>("Shared/Design/Drafts/Quarterly Report 2026.docx");
  event.uid = 1005;
  const Malloced<staging_data_s> record(create_staging_data_buf(&event));
  for (int dump = 0; dump < kDumps; ++dump) {
    for (int i = 0; i < kEvents; ++i) {
      if (write_to_staging_buffer(record.get()) != 0) std::abort();
    }
    if (flush_staging_buffer(FB_CTX_SWPR) != 1) std::abort();
  }
}

void measure_dumps() {
  global_params[PARAM_DEBUG_LEVEL].value.intval = -1;
  fmt::print("dump files of {} events, each node in its own folder of one file system\n", kEvents);
  fmt::print("{:>10} {:>16} {:>28}\n", "nodes", "dump files/s", "processor us/dump file");
  for (const int nodes : {1, 2, 4, 8, 16}) {
    const Cost cost = run_together(nodes, flush_as_node);
    const double all = double{kDumps} * nodes;
    fmt::print("{:>10} {:>16.0f} {:>28.1f}\n", nodes, all / cost.seconds,
               cost.processor / all * 1e6);
    fs::remove_all("/scratch/staging");
  }
}

// --- one map for all nodes -----------------------------------------------------------------------

// As a node prepares a map: it imports the pair in the shared tree, and keeps an image of its own.
void prepare(const JsonPair& pair) {
  std::string error;
  const auto image = mapload::import_privately(pair.size, pair.data, error);
  if (!image) {
    std::fprintf(stderr, "%s\n", error.c_str());
    std::abort();
  }
  if (files::digest_of(
          std::string_view(static_cast<const char*>(image.address()), image.bytes().size()))
          .empty()) {
    std::abort();
  }
}

void measure_maps() {
  const JsonPair pair = json_pair(shape_of(kFolders));
  const auto bytes = fs::file_size(pair.size) + fs::file_size(pair.data);
  fmt::print("a map of {} folders, {:.1f} MB of JSON, prepared by loaders of many nodes\n",
             kFolders, static_cast<double>(bytes) / 1e6);
  fmt::print("{:>10} {:>16} {:>16} {:>28}\n", "loaders", "MB read", "seconds here",
             "processor s/loader");
  for (const int loaders : {1, 3, 10, 50}) {
    const Cost cost = run_together(loaders, [&](int /*number*/) { prepare(pair); });
    fmt::print("{:>10} {:>16.1f} {:>16.2f} {:>28.3f}\n", loaders,
               static_cast<double>(bytes) * loaders / 1e6, cost.seconds, cost.processor / loaders);
  }
}

int measure(std::string_view what) {
  if (what == "decisions") {
    measure_decisions();
  } else if (what == "dumps") {
    measure_dumps();
  } else if (what == "maps") {
    measure_maps();
  } else {
    return 2;
  }
  return 0;
}

}  // namespace
}  // namespace tavrix::bench

int main(int argc, char** argv) {
  if (argc != 2 || access("/scratch", W_OK) != 0) {
    std::fprintf(stderr, "run scripts/scale.sh\n");
    return 2;
  }
  // Zeroed settings: errors are logged and nothing else, as in a server process.
  static std::array<global_param_s, PARAM_MAX_INDEX> block;
  global_params = block.data();
  return tavrix::bench::measure(argv[1]);
}
