// SPDX-License-Identifier: LGPL-3.0-or-later
// The units of systemd: how far they confine the services, and what they must leave open.

#include <gtest/gtest.h>
#include <cstdlib>

#include "tests/support/files.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

const std::string kPackaging = TAVRIX_SOURCE_DIR "/packaging/";

std::vector<std::string> services() {
  std::vector<std::string> names;
  for (const std::string& name : list(kPackaging)) {
    if (name.ends_with(".service")) names.push_back(name);
  }
  return names;
}

// systemd's own judgement: 0 is confined, 10 is open.
TEST(Units, AreExposedByFourAtMost) {
  for (const std::string& name : services()) {
    const Outcome analysis = run_program(
        {"systemd-analyze", "security", "--offline=true", "--no-pager", kPackaging + name});
    const std::string before = "Overall exposure level for " + name + ": ";
    const auto at = analysis.out.find(before);
    ASSERT_NE(std::string::npos, at) << name << analysis.out << analysis.err;
    EXPECT_LE(std::strtod(analysis.out.c_str() + at + before.size(), nullptr), 4.0) << name;
  }
  EXPECT_EQ(5U, services().size());
}

// A private IPC namespace hides the shared memory, a private /dev changes its keys, and without
// ptrace's right a service cannot see which processes have the library mapped.
TEST(Units, LeaveOpenWhatTheServicesWorkOn) {
  for (const std::string& name : services()) {
    const std::string text = read_file(kPackaging + name);
    EXPECT_NE(std::string::npos, text.find("\nPrivateIPC=no\n")) << name;
    EXPECT_NE(std::string::npos, text.find("\nPrivateDevices=no\n")) << name;
    if (name == "tavrix-historian.service") continue;  // it looks at no process
    EXPECT_NE(std::string::npos, text.find("CAP_SYS_PTRACE")) << name;
    EXPECT_EQ(std::string::npos, text.find("ProtectProc=")) << name;
  }
}

}  // namespace
}  // namespace tavrix::test
