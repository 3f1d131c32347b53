// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of one whole decision, in a process with the identity of a Samba server process. The
// floor makes the same system calls and touches the same pages in a bare loop.

#include <benchmark/benchmark.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

#include "bench/sample_map.hpp"
#include "perm_enforcer.h"
#include "perm_map.h"
#include "perm_utils.h"
#include "permissions/map/image.hpp"
#include "tavrix_session.h"
#include "tavrix_utils.h"

namespace tavrix::bench {
namespace {

constexpr uid_t kUser = 1003;
constexpr gid_t kGroup = 9003;
constexpr gid_t kPowerUsers = 9002;
constexpr std::size_t kQuestions = 64;

// The identity of a server process between two hooks: the effective uid is the user's, the real and
// saved ones are 0.
class ServerIdentity {
 public:
  ServerIdentity() {
    if (setegid(kGroup) != 0 || seteuid(kUser) != 0) throw std::runtime_error("identity");
  }
  ~ServerIdentity() {
    if (seteuid(0) != 0 || setegid(0) != 0) std::abort();
  }
  ServerIdentity(const ServerIdentity&) = delete;
  ServerIdentity& operator=(const ServerIdentity&) = delete;
};

long page_faults() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

struct Questions {
  explicit Questions(const sample::Shape& asked) : shape(asked) {
    publish(shape);
    for (const std::string& path : some_paths(shape, kQuestions)) {
      paths.push_back("/tavrix/" + path);
      std::filesystem::create_directories(paths.back());
    }
  }
  ~Questions() { std::filesystem::remove_all("/tavrix/Shared"); }
  Questions(const Questions&) = delete;
  Questions& operator=(const Questions&) = delete;
  sample::Shape shape;
  std::vector<std::string> paths;
};

// A power user in four groups.
struct Caller {
  Caller() {
    vfs_set_admins_powerusers(9001, kPowerUsers);
    trustees.euid = kUser;
    trustees.egid = kGroup;
    trustees.num_sup_gids = 4;
    trustees.gids = groups;
  }
  gid_t groups[4] = {100, 101, 102, kPowerUsers};
  process_trustees_s trustees{};
};

void ask(benchmark::State& state, const Questions& questions) {
  Caller caller;
  std::size_t next = 0;
  int is_nav = 0;
  const long faults = page_faults();
  for (auto _ : state) {
    const std::string& path = questions.paths[next++ % kQuestions];
    const int verdict =
        vfs_enforce_perms("/tavrix", path.c_str(), FSOP_STAT, &caller.trustees, 0, &is_nav);
    if (verdict != TXPERMS_HAS_PERMS && verdict != TXPERMS_NO_PERM) state.SkipWithError("verdict");
  }
  state.counters["faults"] = benchmark::Counter(static_cast<double>(page_faults() - faults),
                                                benchmark::Counter::kAvgIterations);
}

void decision(benchmark::State& state) {
  const Questions questions(
      shape_of(static_cast<uint64_t>(state.range(0)), static_cast<unsigned>(state.range(1))));
  const ServerIdentity identity;
  ask(state, questions);
}

// The pages of the image that any answer has to read: the header, the root, the record and the name
// of each folder on the path, and the ACLs from the folder up to the first one with entries.
std::vector<std::size_t> pages_of_answer(const std::vector<std::byte>& image,
                                         const std::string& path) {
  const ImageView view(image.data());
  std::set<std::size_t> pages{0};
  const auto touch = [&](const void* record) {
    pages.insert(static_cast<std::size_t>(static_cast<const std::byte*>(record) - image.data()) /
                 4096);
  };
  const fs_elem_s* folder = &view.fselem(0);
  touch(folder);
  touch(&view.name_of(*folder));
  std::size_t at = 0;
  while (at < path.size()) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view wanted = std::string_view(path).substr(at, end - at);
    at = end + 1;
    const child_list_s& list = view.children_of(*folder);
    if (folder == &view.fselem(0)) touch(&list);
    for (uint32_t slot = 0; slot < list.num_children; ++slot) {
      folder = &view.fselem(ImageView::child_at(list, slot));
      if (ImageView::text_of(view.name_of(*folder)) == wanted) break;
    }
    touch(folder);
    touch(&view.name_of(*folder));
  }
  // Both the object's ACL and its parent's govern an answer.
  for (const fs_elem_s* from : {folder, &view.fselem(folder->parent_offset)}) {
    const fs_elem_s* holder = from;
    for (;; holder = &view.fselem(holder->parent_offset)) {
      touch(&view.acl_of(*holder));
      if (view.acl_of(*holder).num_aces > 0 || (holder->flags & FSELEM_FLAG_ROOT) != 0) break;
    }
  }
  return {pages.begin(), pages.end()};
}

int semaphore_value(int set, int number) { return semctl(set, number, GETVAL); }

// The current table's index. A reader looks it up for each decision.
int current_index() {
  const int set = semget(ftok("/dev/null", TAVRIX_PERM_MAP_SEM_KEY_ID), 0, 0666);
  semaphore_value(set, 1);
  return semaphore_value(set, 0);
}

// Runs the body as the superuser, with the system calls of a switch: ask, switch, switch back.
template <typename Body>
void as_root(Body body) {
  uid_t uids[3];
  gid_t gids[3];
  getresuid(&uids[0], &uids[1], &uids[2]);
  getresgid(&gids[0], &gids[1], &gids[2]);
  if (seteuid(0) != 0 || setegid(0) != 0) std::abort();
  body();
  if (setegid(gids[1]) != 0 || seteuid(uids[1]) != 0) std::abort();
}

void decision_floor(benchmark::State& state) {
  const Questions questions(
      shape_of(static_cast<uint64_t>(state.range(0)), static_cast<unsigned>(state.range(1))));
  std::vector<std::vector<std::size_t>> pages;
  for (const std::string& path : questions.paths) {
    pages.push_back(pages_of_answer(image_of(questions.shape), path.substr(8)));
  }
  const ServerIdentity identity;
  std::size_t next = 0;
  const long faults = page_faults();
  for (auto _ : state) {
    const std::size_t question = next++ % kQuestions;
    struct stat info {};
    as_root([&] {
      stat(questions.paths[question].c_str(), &info);
      stat("/etc/tavrix/.permbe_map", &info);
      const int index = current_index();
      const int shmid = shmget(index == 0 ? TAVRIX_PERM_TABLE0_KEY : TAVRIX_PERM_TABLE1_KEY, 0, 0);
      const auto* table = static_cast<const volatile char*>(shmat(shmid, nullptr, 0));
      shmid_ds segment{};
      shmctl(shmid, IPC_STAT, &segment);
      if (current_index() != index) std::abort();
      for (const std::size_t page : pages[question]) static_cast<void>(table[page * 4096]);
      shmdt(const_cast<const char*>(table));
    });
  }
  state.counters["faults"] = benchmark::Counter(static_cast<double>(page_faults() - faults),
                                                benchmark::Counter::kAvgIterations);
}

BENCHMARK(decision)->Args({1'000'000, 16});
BENCHMARK(decision_floor)->Args({1'000'000, 16});

// The growth of a decision with the size of the map, and with the width of its folders: wider
// folders make the tree flatter.
void growth_sizes(benchmark::internal::Benchmark* growth) {
  for (const int folders : {1'000, 10'000, 100'000}) growth->Args({folders, 16});
  for (const int width : {2, 64, 256, 1024}) growth->Args({100'000, width});
}
BENCHMARK(decision)->Apply(growth_sizes);
BENCHMARK(decision_floor)->Apply(growth_sizes);

// --- in a session
// ---------------------------------------------------------------------------------

// Decisions of a process that is root already, as the module is when it asks.
void session_decision(benchmark::State& state) {
  const Questions questions(shape_of(static_cast<uint64_t>(state.range(0))));
  tavrix_session_begin();
  ask(state, questions);
  tavrix_session_end();
}

// The identity, the object, and whether the table is still the current one.
void session_decision_floor(benchmark::State& state) {
  const Questions questions(shape_of(static_cast<uint64_t>(state.range(0))));
  const int set = semget(ftok("/dev/null", TAVRIX_PERM_MAP_SEM_KEY_ID), 0, 0666);
  std::size_t next = 0;
  const long faults = page_faults();
  for (auto _ : state) {
    uid_t uids[3];
    gid_t gids[3];
    struct stat info {};
    getresuid(&uids[0], &uids[1], &uids[2]);
    getresgid(&gids[0], &gids[1], &gids[2]);
    stat(questions.paths[next++ % kQuestions].c_str(), &info);
    const int index = semaphore_value(set, 0);
    shmget(index == 0 ? TAVRIX_PERM_TABLE0_KEY : TAVRIX_PERM_TABLE1_KEY, 0, 0);
  }
  state.counters["faults"] = benchmark::Counter(static_cast<double>(page_faults() - faults),
                                                benchmark::Counter::kAvgIterations);
}

BENCHMARK(session_decision)->Arg(1'000)->Arg(1'000'000);
BENCHMARK(session_decision_floor)->Arg(1'000)->Arg(1'000'000);

// The entries of a listing: files of one folder, as a module reads them ahead.
constexpr std::size_t kEntries = 256;

std::vector<std::string> names_of_entries() {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < kEntries; ++i) names.push_back("entry" + std::to_string(i) + ".txt");
  return names;
}

// One entry of a batch whose types are known.
void batch_entry(benchmark::State& state) {
  const Questions questions(shape_of(static_cast<uint64_t>(state.range(0))));
  Caller caller;
  const auto connection = std::make_unique<connection_private_data_s>();
  connection->groupmap = caller.trustees;
  const auto names = names_of_entries();
  std::vector<tavrix_entry_s> entries;
  for (const std::string& name : names) entries.push_back({name.c_str(), FSTYPE_FILE, {}});
  const ServerIdentity identity;
  tavrix_session_begin();
  std::size_t next = 0;
  while (state.KeepRunningBatch(kEntries)) {
    const std::string& folder = questions.paths[next++ % kQuestions];
    tavrix_decide_entries("/tavrix", folder.c_str() + 8, FSOP_STAT, connection.get(),
                          entries.data(), sizeof entries[0], entries.size());
    if (entries[0].verdict > TXPERMS_HAS_PERMS) state.SkipWithError("verdict");
  }
  tavrix_session_end();
}

// The canonical path of the entry, the hash of its name, and the rule.
void batch_entry_floor(benchmark::State& state) {
  const auto names = names_of_entries();
  std::vector<std::string> paths;
  for (const std::string& name : names) paths.push_back("Shared/Folder/Folder/Folder/" + name);
  std::size_t next = 0;
  for (auto _ : state) {
    const std::size_t entry = next++ % kEntries;
    char* clean = normalize_path(paths[entry].c_str());
    benchmark::DoNotOptimize(clean);
    benchmark::DoNotOptimize(process_namecomponent_4hash(
        names[entry].data(), static_cast<uint32_t>(names[entry].size())));
    benchmark::DoNotOptimize(enforce_tavrix_permissions(FSOP_STAT, FSTYPE_FILE, 1, 1));
    std::free(clean);
  }
}

BENCHMARK(batch_entry)->Arg(1'000)->Arg(1'000'000);
BENCHMARK(batch_entry_floor)->Arg(1'000)->Arg(1'000'000);

}  // namespace
}  // namespace tavrix::bench
