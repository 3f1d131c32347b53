// SPDX-License-Identifier: LGPL-3.0-or-later
// The link to Samba's comparison library, as the package's scripts make, follow and remove it.

#include <gtest/gtest.h>
#include <filesystem>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/usr/lib/x86_64-linux-gnu/samba/";
const std::string kLink = kFolder + "libsamdb-common.so.0";
const std::string kOld = "libsamdb-common-samba4.so.0";
const std::string kNew = "libsamdb-common-private-samba.so.0";

class ComparisonLink : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    hide_samba_library();
  }
  static void run(const std::string& script, const std::string& action) {
    last_ = run_program({"sh", TAVRIX_SOURCE_DIR "/debian/libtavrix1." + script, action, ""});
    ASSERT_TRUE(last_.ok()) << last_.err;
  }
  static std::string target() {
    return fs::is_symlink(kLink) ? fs::read_symlink(kLink).string() : "";
  }
  static inline Outcome last_;
};

TEST_F(ComparisonLink, IsMadeAtTheInstallation) {
  write_file(kFolder + kOld, "");
  run("postinst", "configure");
  EXPECT_EQ(kOld, target());
}

TEST_F(ComparisonLink, FollowsAnUpdateOfSamba) {
  write_file(kFolder + kOld, "");
  run("postinst", "configure");
  fs::rename(kFolder + kOld, kFolder + kNew);
  run("postinst", "triggered");
  EXPECT_EQ(kNew, target());
}

TEST_F(ComparisonLink, LeavesAFileOfSambaAlone) {
  write_file(kFolder + kOld, "");
  write_file(kLink, "of Samba");
  run("postinst", "configure");
  run("postrm", "remove");
  EXPECT_EQ("of Samba", read_file(kLink));
}

TEST_F(ComparisonLink, LeavesALinkToAnotherPlaceAloneWhileItWorks) {
  write_file(kFolder + kOld, "");
  write_file("/scratch/mine.so", "");
  fs::create_symlink("/scratch/mine.so", kLink);
  run("postinst", "configure");
  run("postrm", "remove");
  EXPECT_EQ("/scratch/mine.so", target());
  fs::remove("/scratch/mine.so");
  run("postinst", "triggered");
  EXPECT_EQ(kOld, target());
}

TEST_F(ComparisonLink, GoesWhenItsLibraryIsGone) {
  write_file(kFolder + kOld, "");
  run("postinst", "configure");
  fs::remove(kFolder + kOld);
  run("postinst", "triggered");
  EXPECT_FALSE(fs::is_symlink(kLink));
  EXPECT_NE(std::string::npos, last_.err.find("names beyond ASCII cannot be compared"));
}

TEST_F(ComparisonLink, GoesWithThePackage) {
  write_file(kFolder + kOld, "");
  run("postinst", "configure");
  run("postrm", "upgrade");
  EXPECT_EQ(kOld, target());
  run("postrm", "remove");
  EXPECT_FALSE(fs::is_symlink(kLink));
}

}  // namespace
}  // namespace tavrix::test
