// SPDX-License-Identifier: LGPL-3.0-or-later
// A cluster of two nodes as tavrixctl finds it: the words of both, and a "ctdb" that answers for
// them. This machine is node1.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tests/support/files.hpp"

namespace tavrix::test {

// The node's word about itself; `written` is the time of its last word.
inline void tell_word(const std::string& node, int generation, int64_t written,
                      const std::string& more = "") {
  const std::string path = "/tavrix/.conf/cluster/nodes/" + node + ".json";
  write_file(path, "{\"node\": \"" + node +
                       "\", \"boot\": \"b\", \"beat\": 1, \"time\": " + std::to_string(written) +
                       ", \"number\": 2, \"generation\": " + std::to_string(generation) +
                       ", \"prepared\": 2, \"settings_hash\": \"s\", \"smb_conf_hash\": \"" +
                       (more.empty() ? "c" : more) +
                       "\", \"group_map_hash\": \"g\", \"problems\": []}");
  const timespec times[2] = {{written, 0}, {written, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

// So many records are in the memory of the node, as its sweeper says in the next moments.
inline void tell_staged(const std::string& node, int records) {
  const std::string path = "/tavrix/.conf/cluster/staged/" + node + ".json";
  write_file(path, "{\"records\": " + std::to_string(records) + ", \"bytes\": 0}");
  const timespec soon{std::time(nullptr) + 3600, 0};
  const timespec times[2] = {soon, soon};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

// Its first line is the commands that are run, so that a test can change one.
inline void install_ctdb(const std::string& first = ":") {
  make_dirs("/scratch/bin");
  write_file("/scratch/bin/ctdb", "#!/bin/sh\n" + first + R"(
disabled=$(cat /scratch/disabled 2>/dev/null || echo 0)
case "$*" in
  "-X status")
    echo '|Node|IP|Disconnected|Unknown|Banned|Disabled|Unhealthy|Stopped|Inactive|PartiallyOnline|ThisNode|'
    echo '|0|10.0.0.1|0|0|0|0|0|0|0|0|Y|'
    echo "|1|10.0.0.2|0|0|0|$disabled|0|0|0|0|N|" ;;
  "-X ip all")
    echo '|Public IP|Node|ActiveInterface|AvailableInterfaces|ConfiguredInterfaces|'
    echo '|10.1.0.1|0|eth0|eth0|eth0|'
    echo "|10.1.0.2|$((1 - disabled))|eth0|eth0|eth0|" ;;
  "-n 1 disable") echo 1 >/scratch/disabled ;;
  "-n 1 enable") echo 0 >/scratch/disabled ;;
  *) exit 1 ;;
esac
)");
  chmod("/scratch/bin/ctdb", 0755);
}

// Both have this map in force, and no other is on its way.
inline void commit_map() {
  remove_all("/tavrix/.conf/cluster/maps");
  const std::string folder = "/tavrix/.conf/cluster/maps/2";
  make_dirs(folder);
  write_file(folder + "/size.json", "{}");
  write_file(folder + "/data.json", "[]");
  write_file("/tavrix/.conf/cluster/committed.json",
             R"({"number": 2, "sha256": {"size": "s", "data": "d"}, "generation": 7, )"
             R"("timestamp": 1, "when": 1, "by": "node1"})");
}

inline void make_two_nodes() {
  if (unshare(CLONE_NEWUTS) != 0 || sethostname("node1", 5) != 0) std::abort();
  const std::string file = "/etc/tavrix/tavrix.conf";
  std::string settings = exists(file) ? read_file(file) : "";
  const std::string off = "\nenabled = no\n";
  if (const auto at = settings.find(off); at != std::string::npos) {
    settings.replace(at, off.size(), "\nenabled = yes\n");
  } else {
    settings += "\n[CLUSTER]\nenabled = yes\n";
  }
  write_file(file, settings);
  for (const char* folder : {"nodes", "running", "staged"}) {
    make_dirs(std::string("/tavrix/.conf/cluster/") + folder);
  }
  for (const char* number : {"1", "2"}) {
    const std::string node = std::string("node") + number;
    write_file("/tavrix/.conf/cluster/running/" + node, std::string("b\n10.0.0.") + number + "\n");
    tell_word(node, 7, std::time(nullptr));
    tell_staged(node, 0);
  }
  commit_map();
  install_ctdb();
  setenv("PATH", "/scratch/bin:/usr/bin:/bin", 1);
}

}  // namespace tavrix::test
