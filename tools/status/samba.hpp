// SPDX-License-Identifier: LGPL-3.0-or-later
// The installed Samba, and the Samba that the module is built for.
#pragma once

#include <optional>
#include <string>

namespace tavrix::status {

std::string samba_module();  // the file of the module

// A library of the server that carries its version. Empty when Samba is not installed.
std::string samba_library();

// The library with Samba's comparison of names, under the name that the library opens, and the name
// that Samba's own packages give it.
std::string samba_comparison_library();
std::string samba_name_of_comparison_library();

// The version in the names of a file's symbols, such as "4.17.12": Samba puts it into the version
// of each symbol of its private libraries. Empty when the file is not there or has none.
std::string samba_version_in(const std::string& file);

// The series that a module is built for, such as "4.17": it says so in a text of its own. Empty
// when the file is not there or says nothing.
std::string samba_series_of_module(const std::string& file);

// The server's settings as testparm tells them, defaults included; those of the installed server
// when the name of the file is empty. Nothing when testparm cannot be run or refuses the file.
std::optional<std::string> testparm(const std::string& smb_conf);

}  // namespace tavrix::status
