// SPDX-License-Identifier: LGPL-3.0-or-later
// The import as a whole: its files, its outcomes, its reports.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "permissions/map/image.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kDone = "1,Successfully processed permission map,0";
const std::string kFailed = "4,Failed processing permission map,2";

class ImportDriver : public Importer {
 protected:
  static Folder tree() { return {.name = "/", .users = {{1, 7}}, .children = {{.name = "a"}}}; }
  static void prepare_tree() { prepare(count(tree()), data_json(tree())); }
  static std::string copy_text() {
    const auto bytes = build_image(tree());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
};

TEST_F(ImportDriver, SavesTheImageAndRemovesTheFiles) {
  prepare_tree();
  EXPECT_EQ(SHM_MEMBE_OK, run());
  EXPECT_EQ(copy_text(), read_file(kCopy));
  EXPECT_FALSE(exists(kSize));
  EXPECT_FALSE(exists(kData));
  EXPECT_EQ(Lines{kDone}, told());
}

TEST_F(ImportDriver, SavesForTheSuperuserAlone) {
  prepare_tree();
  run();
  struct stat info {};
  ASSERT_EQ(0, stat(kCopy, &info));
  EXPECT_EQ(0600U, info.st_mode & 0777);
}

TEST_F(ImportDriver, ReplacesALongerCopyWhole) {
  write_file(kCopy, std::string(100000, 'x'));
  prepare_tree();
  run();
  EXPECT_EQ(copy_text(), read_file(kCopy));
}

// The result tells that an image was saved, not that the document parsed.
TEST_F(ImportDriver, SucceedsWithADocumentThatDoesNotParse) {
  for (const char* text :
       {"[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",,", "", "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\""}) {
    prepare(count(tree()), text);
    EXPECT_EQ(SHM_MEMBE_OK, run()) << text;
    EXPECT_FALSE(exists(kData));
    EXPECT_FALSE(exists(kSize));
  }
}

TEST_F(ImportDriver, WritesTheParsersErrorToStandardError) {
  prepare(count(tree()), "[{\"NUMCHILDREN\":1},{\"DIR\":\"/\",,");
  testing::internal::CaptureStderr();
  run();
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, text.find("parse error")) << text;
  EXPECT_NE(std::string::npos, text.find("(right here)")) << text;
}

TEST_F(ImportDriver, SaysThatAnEmptyDataFileCannotBeRead) {
  prepare(count(tree()), "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(SHM_MEMBE_OK, run());
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with(
      "error on file read.\nparse error: premature EOF\n"));
}

// A read that fails is a document that ends early: the image is judged as it is.
TEST_F(ImportDriver, KeepsWhatItReadBeforeAReadFailed) {
  prepare_tree();
  fail_call("read", EIO);
  testing::internal::CaptureStderr();
  EXPECT_EQ(SHM_MEMBE_OK, run());
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("error on file read.\n"));
  EXPECT_EQ(0U, ImageView(image().data()).header().next_free_fselem);
  EXPECT_FALSE(exists(kData));
  EXPECT_EQ(Lines{kDone}, told());
}

TEST_F(ImportDriver, EmptiesTheStackThatACancelledSizeFileLeft) {
  write_file(kSize, R"({"TOTALFSELEMS": 2, "TOTALACES": 1, "TOTALNAMELEN": 4, "extra": 1})");
  write_file(kData, data_json(tree()));
  memsummary_s* sum = nullptr;
  testing::internal::CaptureStdout();
  get_permbe_shmsize(kSize, kData, &sum);
  EXPECT_EQ(1U, sum->sth.totalelems);
  image().assign(sum->memsize, std::byte{0});
  sum->membuf = image().data();
  EXPECT_EQ(SHM_MEMBE_OK, init_permbe_shm(sum));
  std::fflush(stdout);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(0U, sum->sth.totalelems);
  EXPECT_EQ(2U * 24, ImageView(image().data()).header().next_free_fselem);
  std::free(sum->perm_map_name_size);
  std::free(sum->perm_map_name_data);
  std::free(sum);
}

TEST_F(ImportDriver, NeedsASummaryAndABuffer) {
  memsummary_s sum{};
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, init_permbe_shm(&sum));
  clear_log();
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, init_permbe_shm(nullptr));
  ASSERT_EQ(1U, messages().size());
  EXPECT_TRUE(messages()[0].starts_with("init_permbe_shm(")) << messages()[0];
  EXPECT_TRUE(messages()[0].ends_with(") perm be shmbe is NULL ")) << messages()[0];
}

TEST_F(ImportDriver, NeedsASummary) {
  EXPECT_EQ(0, level_of("Null summary ",
                        [] { EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, process_permmap(nullptr)); }));
}

TEST_F(ImportDriver, NeedsTheDataFile) {
  prepare_tree();
  unlink(kData);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, run());
  EXPECT_TRUE(exists(kSize));
  EXPECT_FALSE(exists(kCopy));
  EXPECT_EQ((Lines{"5,No such file /scratch/data.json,1", kFailed}), told());
}

TEST_F(ImportDriver, NeedsADataFileThatOpens) {
  prepare_tree();
  fail_call("open", EACCES);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, run());
  EXPECT_TRUE(exists(kSize));
  EXPECT_TRUE(exists(kData));
  EXPECT_EQ((Lines{"5,cannot open file /scratch/data.json,5", kFailed}), told());
}

// Nothing was read of the data file, so an image without folders must not be published as its map.
TEST_F(ImportDriver, WithoutMemoryForTheDataFileKeepsTheFiles) {
  write_file(kCopy, "the copy of before");
  prepare_tree();
  fail_call("malloc", ENOMEM);
  EXPECT_EQ(SHM_MEMBE_ERR_NOMEM, run());
  EXPECT_TRUE(logged("No memory Cannot allocate memory"));
  EXPECT_TRUE(exists(kSize));
  EXPECT_TRUE(exists(kData));
  EXPECT_EQ("the copy of before", read_file(kCopy));
  EXPECT_EQ(Lines{kFailed}, told());
}

TEST_F(ImportDriver, FailsWhenTheCopyCannotBeSavedAndRemovesTheFilesAllTheSame) {
  remove_all("/etc/tavrix");
  prepare_tree();
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_WRERR, run());
  EXPECT_TRUE(logged("Cannot persist permission map"));
  EXPECT_FALSE(exists(kData));
  EXPECT_FALSE(exists(kSize));
  EXPECT_EQ(Lines{kFailed}, told());
}

TEST_F(ImportDriver, FailsOnAFullDisk) {
  mount_small_disk("/etc/tavrix", 4096);
  const Folder big = random_tree(3, 500);
  prepare(count(big), data_json(big));
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_WRERR, run());
  EXPECT_EQ(Lines{kFailed}, told());
}

TEST_F(ImportDriver, FailsWhenTheHeaderWasOverrun) {
  prepare(count(tree()), data_json(tree()));
  const auto spoil = [] { reinterpret_cast<tavrix_be_header*>(image().data())->signature = 1; };
  run_before("stat", [] {});
  run_before("open", spoil, 2);  // the first opens the data file
  run_before("unlink", [] {});
  EXPECT_EQ(SHM_MEMBE_OK, run());  // the file is open by then
  EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, restore(summary()->memsize));
}

TEST_F(ImportDriver, TellsFilesThatCannotBeRemoved) {
  prepare_tree();
  fail_call("unlink", EROFS, 1, 2);
  EXPECT_EQ(SHM_MEMBE_OK, run());
  EXPECT_EQ((Lines{"2,Could not unlink data file /scratch/data.json errno 30,6",
                   "2,Could not unlink size file /scratch/size.json errno 30,6", kDone}),
            told());
  EXPECT_TRUE(logged("Could not unlink data file /scratch/data.json errno 30"));
  EXPECT_TRUE(logged("Could not unlink size file /scratch/size.json errno 30"));
}

TEST_F(ImportDriver, TellsASizeFileThatIsAMountPoint) {
  prepare_tree();
  unlink(kSize);
  make_dirs(kSize);
  EXPECT_EQ(SHM_MEMBE_OK, run());
  EXPECT_EQ((Lines{"2,Could not unlink size file /scratch/size.json errno 21,6", kDone}), told());
}

}  // namespace
}  // namespace tavrix::test
