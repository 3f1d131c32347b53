// SPDX-License-Identifier: LGPL-3.0-or-later
// The size of an image and its header.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "mkperms_shm.h"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

TEST(ImageLayout, ComputesTheSizeInThirtyTwoBits) {
  memsummary_s sum{};
  sum.total_fselems = 100000000;
  sum.total_aces = 7;
  sum.total_namelen = 3;
  estimate_shmbe_size(&sum);
  EXPECT_EQ(static_cast<uint32_t>(176 + 60 * 100000000ULL + 3 + 12 * 7), sum.memsize);
  EXPECT_EQ(0, level_of(" NULL summary", [] { estimate_shmbe_size(nullptr); }));
}

TEST(ImageLayout, LaysOutTheHeader) {
  memsummary_s sum{};
  std::strcpy(sum.mapname, "name");
  std::memset(sum.version, 'v', sizeof sum.version);
  sum.generationnum = 7;
  sum.timestamp = 99;
  sum.total_fselems = 3;
  sum.total_aces = 5;
  sum.total_namelen = 21;
  estimate_shmbe_size(&sum);
  std::vector<std::byte> image(sum.memsize, std::byte{0xAA});
  sum.membuf = image.data();
  ASSERT_EQ(SHM_MEMBE_OK, init_shmbe(&sum));
  const auto& header = *reinterpret_cast<const tavrix_be_header*>(image.data());
  EXPECT_STREQ("name", header.mapname);
  EXPECT_EQ(0, std::memcmp(sum.version, header.version, 36));
  EXPECT_EQ('\0', header.nextmap[0]);
  EXPECT_EQ(7U, header.generationnum);
  EXPECT_EQ(99, header.timestamp);
  EXPECT_EQ(3U, header.total_fselems);
  EXPECT_EQ(5U, header.total_aces);
  EXPECT_EQ(0U, header.total_lists);
  EXPECT_EQ(176U, header.fselem_offset);
  EXPECT_EQ(72U, header.fselem_size);
  EXPECT_EQ(248U, header.nameelem_offset);
  EXPECT_EQ(57U, header.nameelem_size);
  EXPECT_EQ(305U, header.acl_offset);
  EXPECT_EQ(84U, header.acl_size);
  EXPECT_EQ(389U, header.list_offset);
  EXPECT_EQ(48U, header.list_size);
  EXPECT_EQ(0U, header.next_free_fselem + header.next_free_nameelem + header.next_free_acl +
                    header.next_free_list);
  EXPECT_EQ(0x1EA78EAFU, header.signature);
  for (std::size_t at = 176; at < image.size(); ++at) ASSERT_EQ(std::byte{0}, image[at]);
}

TEST(ImageLayout, LaysOutNoMoreThanTheImageHolds) {
  std::vector<std::byte> image(64, std::byte{0xAA});
  memsummary_s sum{};
  sum.memsize = 60;
  sum.membuf = image.data();
  EXPECT_EQ(SHM_MEMBE_OK, init_shmbe(&sum));
  EXPECT_EQ(std::byte{0xAA}, image[60]);
}

TEST(ImageLayout, NeedsASummaryAndABuffer) {
  memsummary_s sum{};
  EXPECT_EQ(0, level_of("Shared memory not present",
                        [&] { EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, init_shmbe(&sum)); }));
}

// The VmFlags of the mapping at that address, in /proc/self/smaps.
std::string flags_of_mapping(const void* address) {
  std::ifstream maps("/proc/self/smaps");
  char start[32];
  std::snprintf(start, sizeof start, "%lx-", reinterpret_cast<unsigned long>(address));
  bool is_here = false;
  for (std::string line; std::getline(maps, line);) {
    is_here = is_here || line.starts_with(start);
    if (is_here && line.starts_with("VmFlags:")) return line;
  }
  return {};
}

TEST(ImageLayout, ZeroesTheImageAndNothingBesideIt) {
  memsummary_s sum{};
  sum.memsize = 5 << 20;
  for (const std::size_t at : {1U, 4095U, 4096U}) {
    std::vector<std::byte> block(sum.memsize + 8192, std::byte{0xAA});
    sum.membuf = block.data() + at;
    ASSERT_EQ(SHM_MEMBE_OK, init_shmbe(&sum));
    const auto is = [](std::byte value) { return [value](std::byte b) { return b == value; }; };
    const auto begin = block.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = begin + static_cast<std::ptrdiff_t>(sum.memsize);
    EXPECT_TRUE(std::all_of(block.begin(), begin, is(std::byte{0xAA}))) << at;
    EXPECT_TRUE(std::all_of(begin + sizeof(tavrix_be_header), end, is(std::byte{0}))) << at;
    EXPECT_TRUE(std::all_of(end, block.end(), is(std::byte{0xAA}))) << at;
  }
}

// A kernel without huge pages refuses the advice to anybody.
TEST(ImageLayout, AsksForHugePagesBeforeItMakesThePages) {
  constexpr std::size_t kSize = std::size_t{4} << 20;
  const auto map_pages = [] {
    return mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  };
  void* probe = map_pages();
  const bool are_known = madvise(probe, kSize, MADV_HUGEPAGE) == 0;
  munmap(probe, kSize);

  memsummary_s sum{};
  sum.memsize = kSize;
  sum.membuf = map_pages();
  ASSERT_EQ(SHM_MEMBE_OK, init_shmbe(&sum));
  EXPECT_EQ(are_known, flags_of_mapping(sum.membuf).find(" hg") != std::string::npos);
  munmap(sum.membuf, kSize);
}

}  // namespace
}  // namespace tavrix::test
