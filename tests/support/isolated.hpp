// SPDX-License-Identifier: LGPL-3.0-or-later
// A world of a test's own: System V objects, mounts, and the paths of the appliance.
#pragma once

#include <gtest/gtest.h>
#include <string>

namespace tavrix::test {

// Empty System V tables and a root folder in which /etc/tavrix, /tavrix, /var/log and /scratch are
// new and empty; the rest is the machine's, /etc read-only. Shared with children of this process
// only; gone with the last of them. Throws when the machine refuses.
void enter_private_world();

// Samba's library of name comparisons, under the path where libtavrix looks for it, or not there.
void give_samba_library_its_name();
void hide_samba_library();

class Isolated : public testing::Test {
 protected:
  void SetUp() override { enter_private_world(); }
};

}  // namespace tavrix::test
