// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs imports as the loader does, into memory of the test's own.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "mkperms_shm.h"
#include "permissions/import/parse_stack.hpp"
#include "read_perms.h"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {

class Importer : public Isolated {
 protected:
  static constexpr const char* kSize = "/scratch/size.json";
  static constexpr const char* kData = "/scratch/data.json";
  static constexpr const char* kCopy = "/etc/tavrix/.permbe_map";

  void TearDown() override { drop(); }

  // The size pass, and an image for the data pass.
  static void prepare(const Counts& counts, const std::string& data) {
    drop();
    write_file(kSize, size_json(counts));
    write_file(kData, data);
    silently([] { ASSERT_EQ(SHM_MEMBE_OK, get_permbe_shmsize(kSize, kData, &summary_)); });
    image_.assign(summary_->memsize, std::byte{0xAA});
    summary_->membuf = image_.data();
  }
  static membe_shm_err run() {
    membe_shm_err result = SHM_MEMBE_OK;
    silently([&] { result = init_permbe_shm(summary_); });
    return result;
  }
  static std::vector<std::byte> import_text(const Counts& counts, const std::string& data) {
    prepare(counts, data);
    EXPECT_EQ(SHM_MEMBE_OK, run());
    return image_;
  }
  static std::vector<std::byte> import(const Folder& root) {
    return import_text(count(root), data_json(root));
  }
  // Restores into an image of that size, and expects nothing behind it to be touched.
  static membe_shm_err restore(uint32_t size) {
    memsummary_s sum{};
    sum.memsize = size;
    image().assign(size + 1, std::byte{0xAA});
    sum.membuf = image().data();
    const membe_shm_err result = process_permmap(&sum);
    EXPECT_EQ(std::byte{0xAA}, image()[size]);
    return result;
  }
  static memsummary_s* summary() { return summary_; }
  static std::vector<std::byte>& image() { return image_; }

  // The operator's log without the times: severity, text, index.
  static std::vector<std::string> told() {
    std::vector<std::string> lines = lines_of("/var/log/tavrix_perms.log");
    for (std::string& line : lines) line.erase(0, line.find(',', line.find(',') + 1) + 1);
    return lines;
  }

 private:
  // The library's traces on standard output are for the loader's log.
  template <typename Body>
  static void silently(Body body) {
    testing::internal::CaptureStdout();
    body();
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
  }
  static void drop() {
    if (summary_ == nullptr) return;
    tavrix::empty_stack(summary_->sth);
    std::free(summary_->perm_map_name_size);
    std::free(summary_->perm_map_name_data);
    std::free(summary_);
    summary_ = nullptr;
  }

  inline static memsummary_s* summary_ = nullptr;
  inline static std::vector<std::byte> image_;
};

}  // namespace tavrix::test
