// SPDX-License-Identifier: LGPL-3.0-or-later
// The local copy of the map: how it is saved, and what is restored from it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/fail_call.hpp"
#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kDone = "1,Successfully processed permission map,0";
const std::string kRestored = "1,Successfully read the permission map,0";

class LocalCopy : public Importer {
 protected:
  static Folder tree() { return {.name = "/", .users = {{1, 7}}, .children = {{.name = "a"}}}; }
  static std::string copy_text() {
    const auto bytes = build_image(tree());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
};

// --- saving --------------------------------------------------------------------------------------

TEST_F(LocalCopy, SavingRefusesWhatIsNoImage) {
  auto bytes = build_image(tree());
  auto* header = reinterpret_cast<tavrix_be_header*>(bytes.data());
  const auto size = static_cast<unsigned>(bytes.size());
  const auto refuses = [](const char* message, auto call) {
    EXPECT_EQ(0, level_of(message, [&] { EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, call()); })) << message;
  };
  refuses("Null perm map file", [&] { return persist_perm_map(nullptr, header, size); });
  refuses("Empty buffer", [&] { return persist_perm_map(kCopy, nullptr, size); });
  refuses("Empty buffer", [&] { return persist_perm_map(kCopy, header, 0); });
  refuses("Invalid or uninitialized buffer", [&] { return persist_perm_map(kCopy, header, 100); });
  header->signature = 0;
  refuses("Invalid or uninitialized buffer", [&] { return persist_perm_map(kCopy, header, size); });
  EXPECT_FALSE(exists(kCopy));
}

TEST_F(LocalCopy, SavingWritesOnce) {
  auto bytes = build_image(tree());
  const auto* header = reinterpret_cast<const tavrix_be_header*>(bytes.data());
  reset_calls();
  EXPECT_EQ(SHM_MEMBE_OK, persist_perm_map(kCopy, header, static_cast<unsigned>(bytes.size())));
  EXPECT_EQ(1, calls("write"));
  cut_short("write", 10);
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_WRERR,
            persist_perm_map(kCopy, header, static_cast<unsigned>(bytes.size())));
}

TEST_F(LocalCopy, ADescriptorOfZeroIsAFailure) {
  auto bytes = build_image(tree());
  write_file(kCopy, copy_text());
  const Outcome outcome = in_child([&] {
    close(0);
    auto* header = reinterpret_cast<tavrix_be_header*>(bytes.data());
    const auto size = static_cast<unsigned>(bytes.size());
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_WRERR, persist_perm_map("/scratch/x", header, size));
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, readperms_from_map(kCopy, header, size));
    EXPECT_EQ(-1, fcntl(0, F_GETFD));  // and it is closed again
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

// --- restoring -----------------------------------------------------------------------------------

TEST_F(LocalCopy, RestoresTheLocalCopy) {
  write_file(kCopy, copy_text());
  const auto size = static_cast<uint32_t>(copy_text().size());
  EXPECT_EQ(SHM_MEMBE_OK, restore(size));
  EXPECT_EQ(0, std::memcmp(copy_text().data(), image().data(), size));
  EXPECT_EQ(Lines{kRestored}, told());
}

TEST_F(LocalCopy, RestoresIntoALargerImage) {
  write_file(kCopy, copy_text());
  const auto size = static_cast<uint32_t>(copy_text().size());
  EXPECT_EQ(SHM_MEMBE_OK, restore(size + 50));
  for (std::size_t at = size; at < size + 50; ++at) EXPECT_EQ(std::byte{0}, image()[at]);
}

TEST_F(LocalCopy, RestoresAsTheLoaderDoes) {
  write_file(kCopy, copy_text());
  memsummary_s sum{};
  memsummary_s* pointer = &sum;
  ASSERT_EQ(SHM_MEMBE_OK, get_permbe_shmsize(nullptr, nullptr, &pointer));
  image().assign(sum.memsize, std::byte{0});
  sum.membuf = image().data();
  EXPECT_EQ(SHM_MEMBE_OK, init_permbe_shm(&sum));
  EXPECT_EQ(0, std::memcmp(copy_text().data(), image().data(), sum.memsize));
  EXPECT_EQ((Lines{kRestored, kDone}), told());
}

TEST_F(LocalCopy, RefusesACopyLargerThanTheImageAndLeavesItAlone) {
  write_file(kCopy, copy_text());
  const auto size = static_cast<uint32_t>(copy_text().size()) - 1;
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL, restore(size));
  for (std::size_t at = 0; at < size; ++at) ASSERT_EQ(std::byte{0xAA}, image()[at]);
  EXPECT_TRUE(logged("perm map file /etc/tavrix/.permbe_map larger than buffer size " +
                     std::to_string(size)));
  EXPECT_EQ(Lines{kRestored}, told());  // kept on purpose: the next line tells the outcome
}

TEST_F(LocalCopy, RefusesACopyWithAnotherSignature) {
  std::string text = copy_text();
  text[172] = '\x12';
  write_file(kCopy, text);
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, restore(static_cast<uint32_t>(text.size()) + 5));
  EXPECT_TRUE(logged("Invalid buffer 1ea78e12"));
  EXPECT_EQ(0, std::memcmp(text.data(), image().data(), text.size()));
  EXPECT_EQ(std::byte{0}, image()[text.size()]);
}

TEST_F(LocalCopy, RefusesATruncatedCopy) {
  for (const std::size_t size : {1UL, 60UL, 172UL, 175UL}) {
    write_file(kCopy, copy_text().substr(0, size));
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, restore(static_cast<uint32_t>(size))) << size;
    memsummary_s sum{};
    sum.memsize = static_cast<uint32_t>(size);
    image().assign(size, std::byte{0xAA});
    sum.membuf = image().data();
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, init_permbe_shm(&sum)) << size;
  }
}

TEST_F(LocalCopy, RefusesACopyThatCannotBeRead) {
  write_file(kCopy, copy_text());
  const auto size = static_cast<uint32_t>(copy_text().size());
  cut_short("read", 20);
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, restore(size));
  fail_call("open", EACCES);
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, restore(size));
  EXPECT_TRUE(logged("Cannot read permission map"));
  remove_all(kCopy);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, restore(size));
  EXPECT_TRUE(logged("perm map fille /etc/tavrix/.permbe_map does not exist"));
}

TEST_F(LocalCopy, RestoringNeedsItsArguments) {
  auto bytes = build_image(tree());
  auto* header = reinterpret_cast<tavrix_be_header*>(bytes.data());
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, readperms_from_map(nullptr, header, 100));
  EXPECT_TRUE(logged("Null perm map file"));
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, readperms_from_map(kCopy, nullptr, 100));
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, readperms_from_map(kCopy, header, 0));
  EXPECT_EQ(2, times_logged("Empty buffer"));
}

TEST_F(LocalCopy, RestoringNeedsMemoryForTheLocation) {
  fail_call("strdup", ENOMEM, 1, 1);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, restore(500));
  EXPECT_TRUE(logged("get_permbe_map_location: returns NULL"));
}

TEST_F(LocalCopy, KnowsTheLocation) {
  char* location = get_permbe_map_location();
  EXPECT_STREQ("/etc/tavrix/.permbe_map", location);
  std::free(location);
}

}  // namespace
}  // namespace tavrix::test
