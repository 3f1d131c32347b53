// SPDX-License-Identifier: LGPL-3.0-or-later
// An installation as other programs use it, and the ABI that it promises to keep.

#include <gtest/gtest.h>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

const std::string kSource = TAVRIX_SOURCE_DIR;
const std::string kPrefix = "/scratch/prefix";

class Installed : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    const Outcome install =
        run_program({"cmake", "--install", TAVRIX_BUILD_DIR, "--prefix", kPrefix});
    ASSERT_TRUE(install.ok()) << install.err;
    library_dir_ = exists(kPrefix + "/lib/libtavrix.so") ? kPrefix + "/lib"
                                                         : kPrefix + "/lib/x86_64-linux-gnu";
  }
  static std::string sanitizers() {
    return std::string(TAVRIX_SANITIZED_BUILD) == "ON" ? "-fsanitize=address,undefined" : "-O2";
  }
  void expect_runs(const std::string& program) {
    const Outcome run = run_program({program}, "", {{"LD_LIBRARY_PATH", library_dir_}});
    EXPECT_TRUE(run.ok()) << run.out << run.err;
  }
  std::string library_dir_;
};

TEST_F(Installed, HasEverythingInItsPlace) {
  for (const char* file : {"/include/tavrix/tavrix.h",
                           "/include/tavrix/parameter_block.h",
                           "/include/tavrix/processing_functions.h",
                           "/include/tavrix/samba.pb-c.h",
                           "/include/tavrix/samba.proto",
                           "/share/man/man1/tavrixctl.1",
                           "/share/bash-completion/completions/tavrixctl",
                           "/share/zsh/vendor-completions/_tavrixctl",
                           "/share/fish/vendor_completions.d/tavrixctl.fish",
                           "/bin/tavrixctl",
                           "/sbin/tavrix-historian",
                           "/sbin/tavrix-sweeper",
                           "/lib/systemd/system/tavrix-historian.service",
                           "/share/man/man8/tavrix-historian.8",
                           "/share/doc/tavrix-historian/copyright",
                           "/sbin/tavrix-loader",
                           "/share/man/man8/tavrix-loader.8",
                           "/share/man/man8/tavrix-sample-tree.8",
                           "/share/man/man8/vfs_tavrix.8",
                           "/lib/systemd/system/tavrix-loader.service",
                           "/lib/systemd/system/tavrix-sweeper.service",
                           "/lib/tmpfiles.d/tavrix.conf",
                           "/etc/tavrix/tavrix.conf",
                           "/etc/tavrix/exception_patterns",
                           "/etc/logrotate.d/tavrix",
                           "/share/doc/libtavrix1/copyright",
                           "/share/doc/libtavrix-dev/copyright",
                           "/share/doc/tavrix-tools/copyright",
                           "/share/doc/samba-vfs-tavrix/copyright"}) {
    EXPECT_TRUE(exists(kPrefix + file)) << file;
  }
  for (const char* file :
       {"/libtavrix.so.1", "/pkgconfig/tavrix.pc", "/cmake/tavrix/tavrix-config.cmake",
        "/cmake/tavrix/tavrix-config-version.cmake"}) {
    EXPECT_TRUE(exists(library_dir_ + file)) << file;
  }
}

TEST_F(Installed, ServesAProgramInC11ByPkgConfig) {
  // This prefix was given at installation, so pkg-config needs it on its command line too.
  const Outcome compile = run_program(
      {"bash", "-c",
       "gcc -std=c11 -pedantic -Wall -Wextra -Werror " + sanitizers() + " -o /scratch/program " +
           kSource + "/tests/abi/program.c " + "$(PKG_CONFIG_PATH=" + library_dir_ +
           "/pkgconfig pkg-config --define-variable=prefix=" + kPrefix +
           " --cflags --libs tavrix)"});
  ASSERT_TRUE(compile.ok()) << compile.err;
  expect_runs("/scratch/program");
}

TEST_F(Installed, ServesACMakeProject) {
  make_dirs("/scratch/project");
  write_file("/scratch/project/CMakeLists.txt", R"(cmake_minimum_required(VERSION 3.25)
project(user C)
find_package(tavrix 1.0 REQUIRED)
add_executable(user )" + kSource + R"(/tests/abi/program.c)
target_compile_options(user PRIVATE )" + sanitizers() +
                                                    R"()
target_link_options(user PRIVATE )" + sanitizers() + R"()
target_link_libraries(user PRIVATE tavrix::tavrix)
)");
  const Outcome configure = run_program({"cmake", "-S", "/scratch/project", "-B", "/scratch/build",
                                         "-DCMAKE_PREFIX_PATH=" + kPrefix});
  ASSERT_TRUE(configure.ok()) << configure.out << configure.err;
  const Outcome build = run_program({"cmake", "--build", "/scratch/build"});
  ASSERT_TRUE(build.ok()) << build.out << build.err;
  expect_runs("/scratch/build/user");
}

// A difference must be meant: scripts/abi-reference.sh takes it over, and the commit says why.
TEST_F(Installed, KeepsTheAbiOfTheReference) {
  const Outcome diff = run_program(
      {"abidiff", kSource + "/tests/abi/libtavrix.abi", TAVRIX_BUILD_DIR "/libtavrix.so"});
  EXPECT_TRUE(diff.ok()) << diff.out << diff.err;
}

// The comparison notices a member that moved.
TEST_F(Installed, WouldNoticeAnotherAbi) {
  std::string reference = read_file(kSource + "/tests/abi/libtavrix.abi");
  const std::string member = "<data-member access='public' layout-offset-in-bits='230144'>";
  const auto at = reference.find(member);  // reserved_user of the connection record
  ASSERT_NE(std::string::npos, at);
  reference.replace(at, member.size(),
                    "<data-member access='public' layout-offset-in-bits='230176'>");
  write_file("/scratch/changed.abi", reference);
  const Outcome diff =
      run_program({"abidiff", "/scratch/changed.abi", TAVRIX_BUILD_DIR "/libtavrix.so"});
  EXPECT_FALSE(diff.ok());
  EXPECT_NE(std::string::npos, diff.out.find("reserved_user")) << diff.out;
}

}  // namespace
}  // namespace tavrix::test
