// SPDX-License-Identifier: LGPL-3.0-or-later
// The verdict cache of a connection: paths in most-recently-used order, with two bits for each
// operation.

#include <cstdlib>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/per_thread.hpp"
#include "logging.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

constexpr int kNewPath = -1;
constexpr std::size_t kLongestComparison = 4096;  // bytes of a path that a comparison reads

// The word and the bit of an operation in the two bit sets of a slot.
struct OperationBit {
  explicit OperationBit(e_fsop_type op) noexcept : word(op >= 32 ? 1U : 0U) {
    TAVRIX_REQUIRE(op != 0, "op != 0");
    mask = 1U << (static_cast<unsigned>(op) % 32U);
  }
  unsigned word;
  uint32_t mask = 0;
};

// A 32-bit hash of the bytes that a comparison reads; different hashes mean different paths.
uint32_t fingerprint_of(const char* path) noexcept {
  constexpr uint64_t kMix = 0x9E3779B97F4A7C15U;
  std::size_t left = strnlen(path, kLongestComparison);
  uint64_t mixed = left * kMix;
  for (; left >= sizeof mixed; left -= sizeof mixed, path += sizeof mixed) {
    uint64_t next;
    std::memcpy(&next, path, sizeof next);
    mixed = (mixed ^ next) * kMix;
    mixed ^= mixed >> 32;
  }
  uint64_t last = 0;
  std::memcpy(&last, path, left);
  mixed = (mixed ^ last) * kMix;
  return static_cast<uint32_t>(mixed >> 32);
}

// Hashes of the paths in the cache that was used last. A lookup passes up to 1024 paths that often
// differ in their last characters only; the hashes save most comparisons. They are kept beside the
// cache because its layout is part of the ABI. A slot's hash is valid while the slot holds the same
// string.
class Fingerprints {
 public:
  void use(const vfs_table_cache_s& cache) noexcept {
    if (cache_ == &cache) return;
    cache_ = &cache;
    std::memset(slots_, 0, sizeof slots_);
  }
  // Call this before the strings of a cache are freed, because other strings may get their
  // addresses.
  void forget(const vfs_table_cache_s& cache) noexcept {
    if (cache_ == &cache) cache_ = nullptr;
  }
  void note(int slot, const char* path, uint32_t fingerprint) noexcept {
    slots_[slot] = {path, fingerprint};
  }
  [[nodiscard]] bool may_be(int slot, const char* path, uint32_t wanted) noexcept {
    if (__builtin_expect(slots_[slot].path != path, 0)) {
      note(slot, path, path != nullptr ? fingerprint_of(path) : 0);
    }
    return slots_[slot].fingerprint == wanted;
  }

 private:
  struct Slot {
    const char* path;
    uint32_t fingerprint;
  };
  const vfs_table_cache_s* cache_ = nullptr;
  Slot slots_[TAVRIX_TLB_PATHS];
};

PerThread<Fingerprints> fingerprints;

bool is_grant(e_vfs_enforce_perms verdict) { return verdict == TXPERMS_HAS_PERMS; }

int slot_at(const vfs_table_cache_s& cache, int position) {
  return cache.tlb_index_table[position];
}

void reset(vfs_table_cache_s& cache) {
  if (Fingerprints* known = fingerprints.find(); known != nullptr) known->forget(cache);
  std::memset(cache.tlb_perms, 0, sizeof cache.tlb_perms);
  std::memset(cache.tlb_paths, 0, sizeof cache.tlb_paths);
  for (int i = 0; i < TAVRIX_TLB_PATHS; ++i) cache.tlb_index_table[i] = i;
  cache.vfs_tlb_end = 0;
}

// A slot for a new path: the next free one, or the least recently used one.
int take_slot(vfs_table_cache_s& cache) {
  if (cache.vfs_tlb_end >= TAVRIX_TLB_PATHS) {
    const int slot = slot_at(cache, cache.vfs_tlb_end - 1);
    std::free(cache.tlb_paths[slot]);
    cache.tlb_paths[slot] = nullptr;
    return slot;
  }
  const int slot = slot_at(cache, cache.vfs_tlb_end);
  cache.vfs_tlb_end += 1;
  TAVRIX_REQUIRE(cache.tlb_paths[slot] == nullptr, "tlb_cache->tlb_paths[index] == NULL");
  return slot;
}

void move_to_front(vfs_table_cache_s& cache, int position) {
  int* table = cache.tlb_index_table;
  const int slot = table[position];
  std::memmove(table + 1, table, static_cast<std::size_t>(position) * sizeof *table);
  table[0] = slot;
}

}  // namespace
}  // namespace tavrix

using tavrix::OperationBit;
using tavrix::slot_at;

void init_tlb(vfs_table_cache_s* cache) { tavrix::reset(*cache); }

void destroy_tlb(vfs_table_cache_s* cache) {
  for (char* path : cache->tlb_paths) std::free(path);
  tavrix::reset(*cache);
}

int _tlb_lookup_path(const char* path, vfs_table_cache_s* cache) {
  const auto holds_path = [&](int slot) {
    const char* stored = cache->tlb_paths[slot];
    // A slot has no path when there was no memory for the copy.
    return stored != nullptr && std::strncmp(stored, path, tavrix::kLongestComparison) == 0;
  };
  if (cache->vfs_tlb_end == 0) return -1;
  if (holds_path(slot_at(*cache, 0))) return 0;  // usually the path of the previous lookup
  // Without memory for hashes every path is compared.
  tavrix::Fingerprints* fingerprints = tavrix::fingerprints.get();
  const uint32_t wanted = fingerprints != nullptr ? tavrix::fingerprint_of(path) : 0;
  if (fingerprints != nullptr) fingerprints->use(*cache);
  for (int position = 1; position < cache->vfs_tlb_end; ++position) {
    const int slot = slot_at(*cache, position);
    const bool may_be =
        fingerprints == nullptr || fingerprints->may_be(slot, cache->tlb_paths[slot], wanted);
    if (may_be && holds_path(slot)) return position;
  }
  return -1;
}

int _update_tlb_hit(int position, vfs_table_cache_s* cache) {
  TAVRIX_REQUIRE(position >= 0 && position < cache->vfs_tlb_end,
                 "position >= 0 && position < tlb_cache->vfs_tlb_end");
  tavrix::move_to_front(*cache, position);
  return 0;
}

e_vfs_enforce_perms check_tlb(const char* path, e_fsop_type op, int* index,
                              vfs_table_cache_s* cache) {
  const OperationBit bit(op);
  *index = -1;
  if (cache->flush_tlb == TAVRIX_TLB_FLUSH_REQUESTED) {
    TAVRIX_LOG(10, "Flushing and rebuilding tlb \n");
    destroy_tlb(cache);
    init_tlb(cache);
    cache->flush_tlb = TAVRIX_TLB_FLUSHED;
  }
  const int position = _tlb_lookup_path(path, cache);
  if (position == -1) return TXPERMS_NOT_FOUND;
  const tlb_perms_s& perms = cache->tlb_perms[slot_at(*cache, position)];
  if ((perms.set[bit.word] & bit.mask) == 0) {
    *index = position;
    return TXPERMS_NOT_SET;
  }
  const bool granted = (perms.value[bit.word] & bit.mask) != 0;
  *index = _update_tlb_hit(position, cache);
  return granted ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM;
}

void add_tlb_entry(const char* path, int slot, e_fsop_type op, e_vfs_enforce_perms verdict,
                   vfs_table_cache_s* cache) {
  const OperationBit bit(op);
  int position = slot;
  int used_slot = 0;
  if (slot == tavrix::kNewPath) {
    used_slot = tavrix::take_slot(*cache);
    cache->tlb_paths[used_slot] = strdup(path);
    if (cache->tlb_paths[used_slot] == nullptr) {
      TAVRIX_LOG(0, "Cannot create path for TLB cache, out of memory\n");
      return;
    }
    if (tavrix::Fingerprints* known = tavrix::fingerprints.get(); known != nullptr) {
      known->use(*cache);
      known->note(used_slot, cache->tlb_paths[used_slot], tavrix::fingerprint_of(path));
    }
    cache->tlb_perms[used_slot] = {};
    position = cache->vfs_tlb_end - 1;
  } else {
    TAVRIX_REQUIRE(slot >= 0 && slot < cache->vfs_tlb_end,
                   "slot >= 0 && slot < tlb_cache->vfs_tlb_end");
    used_slot = slot_at(*cache, slot);
  }
  tlb_perms_s& perms = cache->tlb_perms[used_slot];
  if (tavrix::is_grant(verdict)) perms.value[bit.word] |= bit.mask;
  perms.set[bit.word] |= bit.mask;
  static_cast<void>(_update_tlb_hit(position, cache));
}

// Takes the number of a slot. The permission check passes a position; the two are equal only until
// the first reordering. Modules in the field were built against this pairing, so it is kept.
void update_tlb_entry(int slot, e_fsop_type op, e_vfs_enforce_perms verdict,
                      vfs_table_cache_s* cache) {
  TAVRIX_REQUIRE(slot >= 0 && slot < cache->vfs_tlb_end,
                 "slot >= 0 && slot < tlb_cache->vfs_tlb_end");
  const OperationBit bit(op);
  tlb_perms_s& perms = cache->tlb_perms[slot];
  perms.set[bit.word] |= bit.mask;
  if (tavrix::is_grant(verdict)) {
    perms.value[bit.word] |= bit.mask;
  } else {
    perms.value[bit.word] &= ~bit.mask;
  }
}

// The position behind the last path gets the slot that moved into the gap instead of the freed one.
// So the freed slot is lost until the next flush, unless the last path was deleted. Modules rely on
// this.
void del_tlb_entry(const char* path, vfs_table_cache_s* cache) {
  const int position = _tlb_lookup_path(path, cache);
  if (position == -1) {
    TAVRIX_LOG(0, "%s: did not find path %s\n", __func__, path);
    return;
  }
  int* table = cache->tlb_index_table;
  const int slot = table[position];
  std::free(cache->tlb_paths[slot]);
  cache->tlb_paths[slot] = nullptr;
  cache->tlb_perms[slot] = {};
  const int behind = cache->vfs_tlb_end - 1 - position;
  std::memmove(table + position, table + position + 1,
               static_cast<std::size_t>(behind) * sizeof *table);
  table[cache->vfs_tlb_end - 1] = table[position];
  cache->vfs_tlb_end -= 1;
}
