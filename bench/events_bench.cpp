// SPDX-License-Identifier: LGPL-3.0-or-later
// Benchmarks of events: building a record, appending it, flushing a full buffer.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tavrix_session.h"
#include "vfs_common.h"

namespace tavrix::bench {
namespace {

constexpr int kBufferSize = 16 << 20;
const std::string kFolder = "/scratch/staging";

VFSEvent sample_event() {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>("Shared/Design/Drafts/Quarterly Report 2026.docx");
  event.tavrix_user = const_cast<char*>("anna");
  event.optype = VFSEVENT__OP_TYPE__OPTYPE_CLOSE;
  event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
  event.uid = 1005;
  return event;
}

// A fresh staging buffer. The settings are private to this process.
struct Staging {
  Staging() {
    global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = kBufferSize;
    global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = 99;
    std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, kFolder.c_str());
    std::filesystem::create_directories(kFolder);
    create_eventstore_staging_semaphore();
    create_staging_buffer();
  }
  ~Staging() {
    remove_staging_buffers();
    destroy_eventstore_staging_buffer_semaphore();
    std::filesystem::remove_all(kFolder);
  }
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;
};

void event_build(benchmark::State& state) {
  global_params[PARAM_DEBUG_LEVEL].value.intval = -1;  // at level 0 the stamp is logged
  VFSEvent event = sample_event();
  for (auto _ : state) {
    pop_vfs_event(&event, 1005);
    std::free(create_staging_data_buf(&event));
  }
  global_params[PARAM_DEBUG_LEVEL].value.intval = 0;
}
BENCHMARK(event_build);

// Reads the clock and the process id, and lets protobuf-c pack into a block of the right size.
void event_build_floor(benchmark::State& state) {
  VFSEvent event = sample_event();
  for (auto _ : state) {
    timeval now{};
    gettimeofday(&now, nullptr);
    event.time_sec = static_cast<int32_t>(now.tv_sec);
    event.client_pid = getpid();
    auto* bytes = static_cast<uint8_t*>(std::malloc(vfsevent__get_packed_size(&event) + 8));
    vfsevent__pack(&event, bytes + 8);
    benchmark::DoNotOptimize(bytes);
    std::free(bytes);
  }
}
BENCHMARK(event_build_floor);

void staging_append(benchmark::State& state) {
  const Staging staging;
  VFSEvent event = sample_event();
  const std::unique_ptr<staging_data_s, decltype(&std::free)> record(
      create_staging_data_buf(&event), &std::free);
  const auto room = static_cast<int64_t>(kBufferSize / (record->size + 8) * 9 / 10);
  int64_t used = 0;
  for (auto _ : state) {
    if (++used == room) {
      state.PauseTiming();
      initialize_staging_buffer();
      used = 0;
      state.ResumeTiming();
    }
    write_to_staging_buffer(record.get());
  }
}
BENCHMARK(staging_append);

// The same system calls in a row: take the semaphore, attach, copy, give the semaphore, detach.
// Each object is looked up by its key, as by the library.
void staging_append_floor(benchmark::State& state) {
  const Staging staging;
  VFSEvent event = sample_event();
  const std::unique_ptr<staging_data_s, decltype(&std::free)> record(
      create_staging_data_buf(&event), &std::free);
  const std::size_t length = record->size + 8;
  std::size_t at = 16;
  for (auto _ : state) {
    sembuf take{0, -1, SEM_UNDO};
    sembuf give{0, 1, SEM_UNDO};
    semop(semget(ftok("/dev/null", 2345), 1, 0), &take, 1);
    auto* segment =
        static_cast<char*>(shmat(shmget(ftok("/dev/null", 1234), kBufferSize, 0666), nullptr, 0));
    if (at + length > kBufferSize) at = 16;
    segment[0] = 1;
    std::memcpy(segment + at, record.get(), length);
    at += length;
    semop(semget(ftok("/dev/null", 2345), 1, 0), &give, 1);
    shmdt(segment);
  }
}
BENCHMARK(staging_append_floor);

// An append in a session: the buffer stays attached.
void session_append(benchmark::State& state) {
  tavrix_session_begin();
  staging_append(state);
  tavrix_session_end();
}
BENCHMARK(session_append);

// Take the semaphore, see that the buffer is the same, copy, give the semaphore.
void session_append_floor(benchmark::State& state) {
  const Staging staging;
  VFSEvent event = sample_event();
  const std::unique_ptr<staging_data_s, decltype(&std::free)> record(
      create_staging_data_buf(&event), &std::free);
  const std::size_t length = record->size + 8;
  const int set = semget(ftok("/dev/null", 2345), 1, 0);
  const key_t key = ftok("/dev/null", 1234);
  auto* segment = static_cast<char*>(shmat(shmget(key, kBufferSize, 0666), nullptr, 0));
  std::size_t at = 16;
  for (auto _ : state) {
    sembuf take{0, -1, SEM_UNDO};
    sembuf give{0, 1, SEM_UNDO};
    semop(set, &take, 1);
    benchmark::DoNotOptimize(shmget(key, kBufferSize, 0666));
    if (at + length > kBufferSize) at = 16;
    segment[0] = 1;
    std::memcpy(segment + at, record.get(), length);
    at += length;
    semop(set, &give, 1);
  }
  shmdt(segment);
}
BENCHMARK(session_append_floor);

// Appends per second when that many processes write at once.
void staging_writers(benchmark::State& state) {
  constexpr int kEvents = 2000;
  const Staging staging;
  for (auto _ : state) {
    initialize_staging_buffer();
    std::vector<pid_t> writers;
    for (int64_t writer = 0; writer < state.range(0); ++writer) {
      const pid_t pid = fork();
      if (pid == 0) {
        VFSEvent event = sample_event();
        staging_data_s* record = create_staging_data_buf(&event);
        for (int number = 0; number < kEvents; ++number) write_to_staging_buffer(record);
        _exit(0);
      }
      writers.push_back(pid);
    }
    for (const pid_t pid : writers) waitpid(pid, nullptr, 0);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * kEvents);
}
BENCHMARK(staging_writers)
    ->Arg(1)
    ->Arg(2)
    ->Arg(8)
    ->Arg(32)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void fill_buffer() {
  staging_buffer_s* buffer = get_eventstore_staging_buffer();
  buffer->next_offset = kBufferSize;
  buffer->num_records = 1;
  put_eventstore_staging_buffer(buffer);
}

void remove_dumps() {
  for (const auto& entry : std::filesystem::directory_iterator(kFolder))
    std::filesystem::remove(entry);
}

void flush_full(benchmark::State& state) {
  const Staging staging;
  for (auto _ : state) {
    state.PauseTiming();
    remove_dumps();
    fill_buffer();
    state.ResumeTiming();
    if (flush_staging_buffer(FB_CTX_SWPR) != 1) state.SkipWithError("flush");
  }
}
BENCHMARK(flush_full)->Unit(benchmark::kMillisecond);

void flush_full_floor(benchmark::State& state) {
  const Staging staging;
  for (auto _ : state) {
    state.PauseTiming();
    remove_dumps();
    fill_buffer();
    state.ResumeTiming();
    staging_buffer_s* buffer = get_eventstore_staging_buffer();
    std::string temp = kFolder + "/floorXXXXXX";
    const int file = mkstemp(temp.data());
    if (write(file, buffer + 1, kBufferSize - 16) != kBufferSize - 16) state.SkipWithError("write");
    fdatasync(file);
    close(file);
    std::memset(buffer, 0, kBufferSize);
    rename(temp.c_str(), (kFolder + "/named").c_str());
    put_eventstore_staging_buffer(buffer);
  }
}
BENCHMARK(flush_full_floor)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrix::bench
