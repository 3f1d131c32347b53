// SPDX-License-Identifier: LGPL-3.0-or-later
// The shared settings, for the functions of the library that this program calls.
#pragma once

namespace tavrix::ctl {

// Copies the parameter block into this process, so that the library finds its settings. Complains
// and returns false when there is no block; it makes none, unlike a server process.
bool use_shared_settings();

}  // namespace tavrix::ctl
