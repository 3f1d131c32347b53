// SPDX-License-Identifier: LGPL-3.0-or-later
// One object for each thread: a thread without memory gets none, a thread that ends gives its own
// back, and a thread that outlives the unloaded library does not call it.

#include "internal/per_thread.hpp"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/attached_map.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr bool kIsSanitized = std::string_view(TAVRIX_SANITIZED_BUILD) == "ON";

long pages_of_this_process() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0;
  statm >> pages;
  return pages;
}

struct Numbers {
  int first = 7;
  int rest[1000];
};

TEST(PerThread, MakesItsObjectOnFirstUse) {
  static PerThread<Numbers> numbers;
  EXPECT_EQ(nullptr, numbers.find());
  Numbers* mine = numbers.get();
  ASSERT_NE(nullptr, mine);
  EXPECT_EQ(mine, numbers.find());
  EXPECT_EQ(mine, numbers.get());
  EXPECT_EQ(7, mine->first);
  for (const int number : mine->rest) ASSERT_EQ(0, number);
}

struct Owned {
  long value;
};

TEST(PerThread, GivesEachThreadItsOwn) {
  static PerThread<Owned> owned;
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::set<Owned*> objects;
  std::mutex mutex;
  std::vector<std::thread> threads;
  for (long number = 1; number <= kThreads; ++number) {
    threads.emplace_back([&, number] {
      owned.get()->value = number;
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      EXPECT_EQ(number, owned.get()->value);
      const std::scoped_lock lock(mutex);
      objects.insert(owned.get());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(static_cast<std::size_t>(kThreads), objects.size());
  EXPECT_EQ(nullptr, owned.find());
}

struct Large {
  char bytes[64 << 20];
};

TEST(PerThread, GoesWithItsThread) {
  static PerThread<Large> large;
  reset_calls();
  for (int number = 0; number < 50; ++number) {
    std::thread([] { large.get()->bytes[0] = 'x'; }).join();
  }
  EXPECT_EQ(50, calls("mmap"));
  EXPECT_EQ(50, calls("munmap"));
}

// Takes the memory away from this process, and gives it back at the end of the scope. A sanitizer
// needs memory of its own, so there the call that asks for memory fails.
class NoMemory {
 public:
  NoMemory() {
    if (kIsSanitized) {
      fail_call("mmap", ENOMEM);
      return;
    }
    EXPECT_EQ(0, getrlimit(RLIMIT_AS, &before_));
    rlimit tight = before_;
    tight.rlim_cur = static_cast<rlim_t>(pages_of_this_process()) * 4096 + (16 << 20);
    EXPECT_EQ(0, setrlimit(RLIMIT_AS, &tight));
  }
  ~NoMemory() {
    if (kIsSanitized) return;
    EXPECT_EQ(0, setrlimit(RLIMIT_AS, &before_));
  }

 private:
  rlimit before_{};
};

// Afterwards there is memory again, and the thread gets its object.
TEST(PerThread, IsNoneInAThreadUnderAMemoryLimit) {
  static PerThread<Large> large;
  const Outcome outcome = in_child([] {
    std::thread([] {
      {
        const NoMemory here;
        EXPECT_EQ(nullptr, large.get());
        EXPECT_EQ(nullptr, large.find());
      }
      EXPECT_NE(nullptr, large.get());
    }).join();
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
}

struct Unlucky {
  int value;
};

TEST(PerThread, IsNoneAndLeavesNothingWithoutRoomForAKey) {
  static PerThread<Unlucky> unlucky;
  const Outcome outcome = in_child([] {
    pthread_key_t taken = 0;
    while (pthread_key_create(&taken, nullptr) == 0) {
    }
    reset_calls();
    EXPECT_EQ(nullptr, unlucky.get());
    EXPECT_EQ(nullptr, unlucky.find());
    EXPECT_EQ(0, calls("mmap"));
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

// --- the library itself, as a server loads it ----------------------------------------------------

class LoadedLibrary : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    publish(build_image({.name = "/", .children = {{.name = "a", .users = {{5, 1}}}}}));
  }
  static bool is_loaded() {
    return read_file("/proc/self/maps").find("libtavrix.so") != std::string::npos;
  }
  static void* load() { return dlopen(TAVRIX_BUILD_DIR "/libtavrix.so", RTLD_NOW | RTLD_LOCAL); }
  template <typename Function>
  static Function* function(void* library, const char* name) {
    return reinterpret_cast<Function*>(dlsym(library, name));
  }
  // A lookup by that library, which makes this thread's objects.
  static void use(void* library) {
    auto* attach = function<decltype(get_perm_map_addr)>(library, "get_perm_map_addr");
    auto* detach = function<decltype(put_perm_map_addr)>(library, "put_perm_map_addr");
    auto* find = function<decltype(get_tavrix_acl)>(library, "get_tavrix_acl");
    void* map = attach();
    ASSERT_NE(nullptr, map);
    tavrix_acl_t* acl = nullptr;
    ASSERT_EQ(0, find(map, "a", &acl));
    EXPECT_EQ(5U, governing_of(*acl).entries.at(0).ace.id);
    free_ACL(acl);
    std::free(acl);
    detach(map);
  }
};

TEST_F(LoadedLibrary, IsUnloadedBeforeAThreadThatUsedItEnds) {
  const Outcome outcome = in_child([] {
    std::atomic<bool> has_used{false};
    std::atomic<bool> is_gone{false};
    void* library = load();
    ASSERT_NE(nullptr, library) << dlerror();
    std::thread user([&] {
      use(library);
      has_used = true;
      while (!is_gone) std::this_thread::yield();
    });
    while (!has_used) std::this_thread::yield();
    ASSERT_EQ(0, dlclose(library));
    EXPECT_FALSE(is_loaded());
    is_gone = true;
    user.join();
  });
  EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.out << outcome.err;
}

TEST_F(LoadedLibrary, IsUsedByAThreadThatEndsBeforeItGoes) {
  const Outcome outcome = in_child([] {
    void* library = load();
    ASSERT_NE(nullptr, library) << dlerror();
    for (int round = 0; round < 3; ++round) std::thread([library] { use(library); }).join();
    EXPECT_EQ(0, dlclose(library));
    EXPECT_FALSE(is_loaded());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.out << outcome.err;
}

// The keys that a process may still make.
int free_keys() {
  std::vector<pthread_key_t> made;
  pthread_key_t key = 0;
  while (pthread_key_create(&key, nullptr) == 0) made.push_back(key);
  for (const pthread_key_t one : made) pthread_key_delete(one);
  return static_cast<int>(made.size());
}

TEST_F(LoadedLibrary, GivesItsKeysAndItsMemoryBack) {
  const Outcome outcome = in_child([] {
    const auto load_use_and_unload = [] {
      void* library = load();
      ASSERT_NE(nullptr, library) << dlerror();
      use(library);
      ASSERT_EQ(0, dlclose(library));
    };
    for (int round = 0; round < 5; ++round) load_use_and_unload();
    const int keys = free_keys();
    const long pages = pages_of_this_process();
    for (int round = 0; round < 30; ++round) load_use_and_unload();
    EXPECT_EQ(keys, free_keys());
    if (!kIsSanitized) {
      EXPECT_LT(pages_of_this_process(), pages + 30 * 8);
    }
  });
  EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.out << outcome.err;
}

}  // namespace
}  // namespace tavrix::test
