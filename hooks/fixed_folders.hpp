// SPDX-License-Identifier: LGPL-3.0-or-later
// Fixed folders: the synchronisation agent stamps folders of Shared that only administrators may
// remove or rename. The rules of all hooks about them stand here.
//
// The stamp is an extended attribute, and is_fixed_folder() cannot always tell: the object may be
// missing, the attribute may have a value that is no stamp, the process may fail to become root.
// The hooks differ in that case, on purpose:
//
//   hook                  asked about                        stamp unknown
//   open_preprocess       names that begin with "Shared"     goes on (1)
//   fdopendir_preprocess  names that begin with "Shared"     refused (2)
//   rename_preprocess     paths that begin with              goes on (3)
//                         "/tavrix/Shared"
//
// (1) The open may make its object, and an object that is not there yet has no stamp.
// (2) The folder is there and is opened for its removal; after this the hook asks only for the
//     right to list it.
// (3) After this the decision asks for the rights to take the folder away and to put it there.
//
// The reference module refuses an unknown stamp before it removes, renames or replaces a folder.
// "Begin with" compares bytes: "Shared files" is asked about, "shared" is not. The reserved user is
// held to the stamps like everybody who is no administrator.
#pragma once

#include "tavrix_structs.h"

namespace tavrix {

// For open_preprocess(). True: the stamp is there, and the client may not delete.
[[nodiscard]] bool is_known_fixed_for_open(const connection_private_data_s& connection,
                                           const char* base_name, const char* full_path);

// For fdopendir_preprocess(). True: the stamp is there or cannot be read, and the client may not
// delete. `function` names the hook in messages.
[[nodiscard]] bool is_fixed_or_unknown_for_listing(const connection_private_data_s& connection,
                                                   const char* name, const char* full_path,
                                                   const char* function);

// For rename_preprocess(). True: the stamp is there, and the client may not rename. Reads the stamp
// first, of folders outside Shared and for administrators too.
[[nodiscard]] bool is_known_fixed_for_rename(const connection_private_data_s& connection,
                                             const char* source, const char* function);

}  // namespace tavrix
