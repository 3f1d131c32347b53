// SPDX-License-Identifier: LGPL-3.0-or-later
// Kills at each step: a child that is killed, or waits, in front of one of its system calls.
#pragma once

#include <functional>

namespace tavrix::test {

// Runs the body in a child and kills it in front of its nth system call that changes something
// others can see: a file, a lock, a segment, a semaphore. The call is not made. false when the
// child ended before that.
bool killed_at_change(int nth, const std::function<void()>& body);
// The same in front of its nth system call of any kind.
bool killed_at_call(int nth, const std::function<void()>& body);

// Runs the body in a child, and the action here while the child stands in front of its nth change;
// then the child goes on to its end. false when it ended before that. A child that dies of a signal
// fails the test.
bool stopped_at_change(int nth, const std::function<void()>& body,
                       const std::function<void()>& action);

}  // namespace tavrix::test
