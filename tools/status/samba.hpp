// SPDX-License-Identifier: LGPL-3.0-or-later
// The installed Samba, and the Samba that the module was built for.
#pragma once

#include <optional>
#include <string>

namespace tavrix::status {

std::string samba_module();   // the file of the module
std::string samba_library();  // a library of the server whose version the module must match

// The library with Samba's comparison of names, under the name that the library opens.
std::string samba_comparison_library();

// The version in the names of a file's symbols, such as "4.17.12": Samba puts it into the version
// of each symbol of its private libraries, and a module asks for symbols of that version. Empty
// when the file is not there or has none.
std::string samba_version_in(const std::string& file);

// The server's settings as testparm tells them, defaults included; those of the installed server
// when the name of the file is empty. Nothing when testparm cannot be run or refuses the file.
std::optional<std::string> testparm(const std::string& smb_conf);

}  // namespace tavrix::status
