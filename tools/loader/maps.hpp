// What the loader does to maps, each a step that leaves the old or the new map current, whatever
// ends it.
#pragma once

#include <string>

#include "tools/loader/inbox.hpp"

namespace tavrix::loader {

struct Result {
  bool good = false;
  std::string text;  // what was done, or why not
};

// Checks a pair and makes it current; a pair that does not pass harms nothing.
Result load_pair(const Pair& pair);
// Makes the local copy current: after a restart of the machine.
Result restore();

// After a loader that died: removes the table it was filling and settles which local copy counts.
// `redo`: its pair is still there and will be loaded again.
struct Recovery {
  bool removed_table = false;
  bool took_copy_back = false;  // the local copy of before
  bool must_restore = false;    // a whole new local copy is there that was never made current
};
Recovery recover(bool redo);

bool has_map();
bool has_local_copy();

}  // namespace tavrix::loader
