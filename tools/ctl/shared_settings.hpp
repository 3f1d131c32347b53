// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings of the appliance, as this program uses them.
#pragma once

namespace tavrix::ctl {

// Takes a private copy of the parameter block, so that the library finds its settings; complains
// and answers false when there is none. Unlike a server process it makes no block.
bool use_shared_settings();

}  // namespace tavrix::ctl
