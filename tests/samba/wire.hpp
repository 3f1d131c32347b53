// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs wire.py, a client that sends requests that smbclient cannot send.
#pragma once

#include <string>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {

class WireClients : public Appliance {
 protected:
  // Runs a Python script as that user; "me" is the connection. A refused request prints the name of
  // its status.
  static std::string wire(const std::string& user, const std::string& script) {
    const Outcome outcome =
        run_program({"/usr/bin/python3", TAVRIX_SOURCE_DIR "/tests/samba/wire.py", user}, script);
    EXPECT_TRUE(outcome.ok()) << outcome.err;
    return outcome.out;
  }
  static std::string wire(const Caller& caller, const std::string& script) {
    return wire(caller.name, script);
  }
};

}  // namespace tavrix::test
