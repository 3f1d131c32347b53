// SPDX-License-Identifier: LGPL-3.0-or-later
// Sessions and scopes of a thread: they tell the map and the staging buffer what to keep.

#include "tavrix_session.h"

#include <cerrno>

#include "internal/assert.hpp"
#include "internal/per_thread.hpp"
#include "permissions/map/held_table.hpp"
#include "utils/root_scope.hpp"
#include "utils/staging/held_buffer.hpp"

namespace tavrix {
namespace {

struct Sessions {
  unsigned open = 0;
};
PerThread<Sessions> sessions;

}  // namespace
}  // namespace tavrix

using tavrix::held_buffer;
using tavrix::held_table;
using tavrix::sessions;

int tavrix_session_begin(void) {
  tavrix::Sessions* session = sessions.get();
  tavrix::HeldTable* table = held_table.get();
  tavrix::HeldBuffer* buffer = held_buffer.get();
  if (session == nullptr || table == nullptr || buffer == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  ++session->open;
  table->keep();
  buffer->keep();
  return 0;
}

void tavrix_session_idle(void) {
  if (tavrix::HeldTable* table = held_table.find(); table != nullptr) table->drop();
  if (tavrix::HeldBuffer* buffer = held_buffer.find(); buffer != nullptr) buffer->drop();
}

// A server's clean-up of a thread may close the session when the thread's end has taken away what
// it kept.
void tavrix_session_end(void) {
  tavrix::Sessions* session = sessions.find();
  if (session == nullptr || session->open == 0 || --session->open > 0) return;
  if (tavrix::HeldTable* table = held_table.find(); table != nullptr) table->keep_no_longer();
  if (tavrix::HeldBuffer* buffer = held_buffer.find(); buffer != nullptr) buffer->keep_no_longer();
}

int tavrix_session_is_holding(void) {
  const tavrix::HeldTable* table = held_table.find();
  const tavrix::HeldBuffer* buffer = held_buffer.find();
  const bool holds =
      (table != nullptr && table->is_holding()) || (buffer != nullptr && buffer->is_holding());
  return holds ? 1 : 0;
}

// Without memory for the thread's state the decisions of the scope look at the map one by one.
void tavrix_scope_begin(void) {
  tavrix::LazyRoot::begin_scope();
  if (tavrix::HeldTable* table = held_table.get(); table != nullptr) table->begin_scope();
}

void tavrix_scope_end(void) {
  if (tavrix::HeldTable* table = held_table.find(); table != nullptr) table->end_scope();
  tavrix::LazyRoot::end_scope();
}
