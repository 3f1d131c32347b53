// SPDX-License-Identifier: LGPL-3.0-or-later
// Kills at each step: a child that is killed in front of one of its system calls.
#pragma once

#include <functional>

namespace tavrix::test {

// Runs the body in a child and kills it in front of its nth system call that changes something
// others can see: a file, a lock, a segment, a semaphore. The call is not made. false when the
// child ended before that.
bool killed_at_change(int nth, const std::function<void()>& body);

}  // namespace tavrix::test
