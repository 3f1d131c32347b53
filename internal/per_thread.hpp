// SPDX-License-Identifier: LGPL-3.0-or-later
// One object of a type for each thread, made at the thread's first use. An object that owns more
// than its memory gives the rest back in at_thread_end().
//
// Not thread_local: servers load this library at run time, and a thread that cannot get the memory
// for its thread-local variables ends the process. Here it gets no object, and does without.
#pragma once

#include <pthread.h>
#include <sys/mman.h>
#include <new>
#include <type_traits>

namespace tavrix {

template <typename Object>
class PerThread {
 public:
  // This thread's object; null when there is no memory for it. Its bytes are zero before it is
  // constructed.
  [[nodiscard]] Object* get() noexcept {
    pthread_once(&once_, &make_key);
    if (!has_key_) return nullptr;
    if (void* found = pthread_getspecific(key_); __builtin_expect(found != nullptr, 1)) {
      return static_cast<Object*>(found);
    }
    return make();
  }
  // The object, if the thread has one already.
  [[nodiscard]] Object* find() noexcept {
    pthread_once(&once_, &make_key);
    return has_key_ ? static_cast<Object*>(pthread_getspecific(key_)) : nullptr;
  }

 private:
  static_assert(std::is_trivially_destructible_v<Object>);

  static void make_key() noexcept {
    static_cast<void>(&forget);  // a use, so that the compiler emits it
    has_key_ = pthread_key_create(&key_, &end) == 0;
  }
  // The memory comes from the kernel, in pages that cost nothing until they are touched.
  static Object* make() noexcept {
    void* block =
        mmap(nullptr, sizeof(Object), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) return nullptr;
    if (pthread_setspecific(key_, block) != 0) {
      munmap(block, sizeof(Object));
      return nullptr;
    }
    return new (block) Object;
  }
  static void end(void* block) noexcept {
    if (block == nullptr) return;
    if constexpr (requires(Object & object) { object.at_thread_end(); }) {
      static_cast<Object*>(block)->at_thread_end();
    }
    munmap(block, sizeof(Object));
  }

  // Runs before the library is unloaded: a thread that ends later must not call into it. The memory
  // of other threads stays allocated.
  [[gnu::destructor]] static void forget() noexcept {
    if (!has_key_) return;
    void* block = pthread_getspecific(key_);
    pthread_setspecific(key_, nullptr);
    end(block);
    pthread_key_delete(key_);
    has_key_ = false;
  }

  static inline pthread_once_t once_ = PTHREAD_ONCE_INIT;
  static inline pthread_key_t key_ = 0;
  static inline bool has_key_ = false;
};

}  // namespace tavrix
