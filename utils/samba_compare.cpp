// SPDX-License-Identifier: LGPL-3.0-or-later
// Samba's Unicode-aware comparison of names, loaded from its library at run time.

#include <dlfcn.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "logging.h"
#include "tavrix_utils.h"

namespace tavrix {
namespace {

constexpr const char* kSambaLibrary = "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common.so.0";
constexpr const char* kComparison = "strncasecmp_m";

using Comparison = int (*)(const char*, const char*, size_t);

void* samba_lib_handle = nullptr;  // kept for the life of the process

// Ends a process that cannot load the routine. A comparison of bytes in its place would grant or
// refuse by another name than the client sees.
[[noreturn]] void give_up() {
  if (samba_lib_handle != nullptr) dlclose(samba_lib_handle);
  std::exit(EXIT_FAILURE);
}

// Looks the routine up on each call. On failure returns null, with the loader's text in `*error`.
Comparison find_comparison(const char** error) {
  init_samba_lib_handle();
  dlerror();
  auto comparison = reinterpret_cast<Comparison>(dlsym(samba_lib_handle, kComparison));
  *error = dlerror();
  return *error == nullptr ? comparison : nullptr;
}

}  // namespace
}  // namespace tavrix

void init_samba_lib_handle(void) {
  if (tavrix::samba_lib_handle != nullptr) return;
  tavrix::samba_lib_handle = dlopen(tavrix::kSambaLibrary, RTLD_LAZY);
  if (tavrix::samba_lib_handle != nullptr) return;
  const char* error = dlerror();
  TAVRIX_LOG(0, "Failed to open samba common lib: %s", error == nullptr ? "" : error);
  tavrix::give_up();
}

int strcasecmp_m_wrapper(const char* a, const char* b) {
  const char* error = nullptr;
  const auto comparison = tavrix::find_comparison(&error);
  if (comparison == nullptr) {
    TAVRIX_LOG(0, "Failed to find samba strcasecmp_m pointer : %s", error == nullptr ? "" : error);
    tavrix::give_up();
  }
  // The routine takes one length; the longer name's covers both.
  return comparison(a, b, std::max(std::strlen(a), std::strlen(b)));
}

int strncasecmp_m_wrapper(const char* a, const char* b, size_t n) {
  const char* error = nullptr;
  const auto comparison = tavrix::find_comparison(&error);
  if (comparison == nullptr) {
    TAVRIX_LOG(0, "Failed to find samba strncasecmp_m pointer : %s", error == nullptr ? "" : error);
    tavrix::give_up();
  }
  return comparison(a, b, n);
}
